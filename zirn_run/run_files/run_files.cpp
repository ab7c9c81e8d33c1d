#include "run_files/run_files.h"

#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <istream>
#include <map>
#include <memory>
#include <string_view>
#include <system_error>

#include "frames/words.h"
#include "record/gzip.h"
#include "record/journal.h"
#include "record/reader.h"
#include "record/run_entry.h"
#include "run_files/placed_lines.h"

namespace run_files {

namespace {

constexpr std::string_view kBegins = "Starting TFTP server on ";
constexpr std::string_view kPart = ".part";      // the ending of a record's name until it is whole
constexpr std::uint64_t kProgressEvery = 16384;  // frames and entries
constexpr std::size_t kMostBytesOfJournal = std::size_t{32}
                                            << 20;  // that are held of a run, without its frames

// A file, opened and unpacked.
class OpenFile {
 public:
  explicit OpenFile(const std::string& name)
      : name_(name == "-" ? "standard input" : frames::printable(name)) {
    try {
      unpacked_ = name == "-" ? std::make_unique<record::UnpackedFile>(dup(STDIN_FILENO))
                              : std::make_unique<record::UnpackedFile>(name);
    } catch (const std::system_error& error) {
      throw NotReadable(name_ + ": " + error.code().message());
    }
    stream_.rdbuf(unpacked_.get());
  }
  std::istream& stream() { return stream_; }
  const std::string& name() const { return name_; }
  std::string named(const std::string& what) const { return name_ + ": " + what; }

 private:
  const std::string name_;
  std::unique_ptr<record::UnpackedFile> unpacked_;
  std::istream stream_{nullptr};
};

bool is_line(const record::Entry& entry) {
  const auto said = record::said_by(entry);
  return said && std::holds_alternative<record::Line>(*said);
}

// What is beside the record, told up to a time.
class Beside {
 public:
  virtual ~Beside() = default;
  virtual void tell_until(record::Nanoseconds at, story::Story* story) = 0;
  // What is to be known of it once all is told; empty: nothing.
  virtual std::string remark() const { return {}; }
};

class Journal : public Beside {
 public:
  explicit Journal(const std::string& name) : file_(name), reader_(file_.stream()) {
    next();
    if (!entry_ && !reader_.problem().empty()) throw NotReadable(file_.named(reader_.problem()));
  }
  void tell_until(record::Nanoseconds at, story::Story* story) override {
    if (from_ == 0) from_ = at - kMostDistance;
    for (; entry_ && entry_->at <= at; next()) {
      if (entry_->at < from_) continue;
      has_told_ = has_told_ || record::said_by(*entry_);
      story->take(*entry_);
    }
  }
  std::string remark() const override {
    if (!reader_.problem().empty()) return file_.named(reader_.problem());
    if (has_told_) return "";
    return file_.named("expected what the station printed while the frames were caught, found nothing of it");
  }

 private:
  void next() {
    entry_ = reader_.next();
    if (entry_) entry_->number = ++number_;
  }

  OpenFile file_;
  record::JournalReader reader_;
  record::Nanoseconds from_ = 0;
  bool has_told_ = false;  // of the run
  std::uint64_t number_ = 0;
  std::optional<record::Entry> entry_;
};

// Hands over the lines of a log.
template <typename Take>
void read_lines(const std::string& name, const Take& take) {
  OpenFile file(name);
  record::LogReader reader(file.stream());
  while (const auto line = reader.next()) take(line->text);
  if (!reader.problem().empty()) throw NotReadable(file.named(reader.problem()));
}

std::string remark_of_left_out(const std::string& name, std::uint64_t left_out) {
  return frames::printable(name) + ": expected at most " + std::to_string(story::UntimedLine::kMost) +
         " lines without a time, found " + std::to_string(left_out) + " more, which are left out";
}

class Log : public Beside {
 public:
  Log(const std::string& name, const story::Reading& reading) : name_(name) {
    LinePlacer placer(reading);
    read_lines(name, [&](const std::string& line) { placer.add(line); });
    lines_ = placer.placed();
    left_out_ = placer.left_out();
  }
  void tell_until(record::Nanoseconds at, story::Story* story) override {
    if (!has_told_untimed_) tell_untimed(story);
    for (; next_ < lines_.size() && lines_[next_].at <= at; ++next_) {
      if (lines_[next_].at != 0) tell(lines_[next_], story);
    }
  }
  std::string remark() const override {
    if (lines_.empty()) return frames::printable(name_) + ": expected the station's lines, found none";
    return left_out_ > 0 ? remark_of_left_out(name_, left_out_) : "";
  }

 private:
  static void tell(const PlacedLine& line, story::Story* story) {
    story->take(record::Line{line.text}, line.at, line.number);
  }
  void tell_untimed(story::Story* story) {
    has_told_untimed_ = true;
    for (const PlacedLine& line : lines_) {
      if (line.at == 0) tell(line, story);
    }
    story->leave_out(left_out_);
  }

  const std::string name_;
  std::vector<PlacedLine> lines_;
  std::uint64_t left_out_ = 0;
  bool has_told_untimed_ = false;
  std::size_t next_ = 0;
};

struct Counted {
  std::uint64_t frames = 0;
  std::uint64_t entries = 0;
  std::map<std::uint16_t, std::uint64_t> not_looked_into;  // frames by link type
};

class Teller {
 public:
  Teller(const std::string& record, const Progress& progress, const Watch& watch)
      : file_(record),
        is_part_(record.size() > kPart.size() && record.substr(record.size() - kPart.size()) == kPart),
        progress_(progress),
        watch_(watch) {}

  // Returns what is to be known of the record. Throws NotReadable.
  std::vector<std::string> tell(Beside* beside, story::Story* story);

 private:
  void take(const record::Item& item, Beside* beside, story::Story* story);
  void count(const record::Frame& frame);
  std::vector<std::string> remarks(const std::string& problem) const;

  OpenFile file_;
  const bool is_part_;
  const Progress& progress_;
  const Watch& watch_;
  Counted counted_;
  record::Nanoseconds last_ = 0;
};

std::vector<std::string> Teller::tell(Beside* beside, story::Story* story) {
  std::string problem;
  try {
    record::Reader reader(file_.stream());
    while (const auto item = reader.next()) take(*item, beside, story);
    problem = reader.problem();
    if (problem.empty() && is_part_)
      problem = "the record is not finished: what came after this is not there";
  } catch (const record::NotARecord& error) {
    throw NotReadable(file_.named(error.what()));
  }
  if (beside != nullptr) beside->tell_until(last_ + kMostDistance, story);
  story->finish(!problem.empty());
  std::vector<std::string> remarks = this->remarks(problem);
  const std::uint64_t not_whole = story->reading().not_whole;
  if (not_whole > 0) {
    remarks.push_back(
        file_.named("expected whole frames, found " + frames::counted(not_whole, "packet") +
                    " of which the capture kept only a part: what is said in the rest is not known"));
  }
  if (!story->reading().steps.empty()) return remarks;
  if (!remarks.empty()) throw NotReadable(remarks.front());
  throw NotReadable(file_.named("expected a test run, found none in " + std::to_string(counted_.frames) +
                                " frames and " + std::to_string(counted_.entries) + " entries"));
}

void Teller::take(const record::Item& item, Beside* beside, story::Story* story) {
  const auto* const frame = std::get_if<record::Frame>(&item);
  const auto* const entry = std::get_if<record::Entry>(&item);
  if (frame != nullptr) count(*frame);
  if (entry != nullptr) ++counted_.entries;
  if (entry != nullptr && beside != nullptr && is_line(*entry))
    throw NotTogether("expected a capture without the station's lines beside it, found them in " +
                      file_.name());
  if (frame != nullptr || entry != nullptr) {
    last_ = std::max(last_, frame != nullptr ? frame->at : entry->at);
    if (beside != nullptr) beside->tell_until(last_, story);
    const std::uint64_t read = counted_.frames + counted_.entries;
    if (progress_ && read % kProgressEvery == 0) progress_(read);
  }
  if (watch_) watch_(item);
  story->take(item);
}

void Teller::count(const record::Frame& frame) {
  ++counted_.frames;
  const bool is_known = frame.link_type == record::kEthernet || frame.link_type == record::kLinuxCooked ||
                        frame.link_type == record::kLinuxCooked2;
  if (!is_known) ++counted_.not_looked_into[frame.link_type];
}

std::vector<std::string> Teller::remarks(const std::string& problem) const {
  std::vector<std::string> remarks;
  if (!problem.empty()) remarks.push_back(file_.named(problem));
  for (const auto& [link_type, count] : counted_.not_looked_into) {
    remarks.push_back(
        file_.named("expected frames of Ethernet (link type 1) or Linux cooked (113, 276), found " +
                    std::to_string(count) + " of link type " + std::to_string(link_type) +
                    ", which are not looked into"));
  }
  return remarks;
}

std::unique_ptr<Beside> beside(const Files& files, const Progress& progress) {
  if (files.journal) return std::make_unique<Journal>(*files.journal);
  if (!files.log) return nullptr;
  story::Story without;
  Teller(files.record, progress, {}).tell(nullptr, &without);
  return std::make_unique<Log>(*files.log, without.reading());
}

bool begins(std::string_view line) {
  return line.substr(0, kBegins.size()) == kBegins;
}

void tell_log(const std::string& name, story::Story* story, std::vector<std::string>* remarks) {
  UntimedLines of_run;
  std::uint64_t number = 0;
  read_lines(name, [&](const std::string& line) {
    if (begins(line)) of_run = {};
    of_run.add(++number, line);
  });
  for (const PlacedLine& line : of_run.lines) story->take(record::Line{line.text}, 0, line.number);
  story->leave_out(of_run.left_out);
  if (of_run.left_out > 0) remarks->push_back(remark_of_left_out(name, of_run.left_out));
}

std::size_t bytes_of(const record::Entry& entry) {
  std::size_t bytes = sizeof entry;
  for (const auto& field : entry.fields) bytes += sizeof field + field.first.size() + field.second.size();
  return bytes;
}

// False: it ends before its end.
bool tell_journal(const std::string& name, story::Story* story, std::vector<std::string>* remarks) {
  OpenFile file(name);
  record::JournalReader reader(file.stream());
  std::vector<record::Entry> of_run;
  std::size_t bytes = 0;
  std::uint64_t left_out = 0;
  for (std::uint64_t number = 1; auto entry = reader.next(); ++number) {
    if (!record::said_by(*entry)) continue;
    if (begins(entry->value("MESSAGE"))) {
      of_run.clear();
      bytes = left_out = 0;
    }
    entry->number = number;
    bytes += bytes_of(*entry);
    bytes <= kMostBytesOfJournal ? of_run.push_back(std::move(*entry)) : static_cast<void>(++left_out);
  }
  for (const record::Entry& entry : of_run) story->take(entry);
  story->leave_out(left_out);
  if (!reader.problem().empty()) remarks->push_back(file.named(reader.problem()));
  if (!remarks->empty() && of_run.empty()) throw NotReadable(remarks->front());
  if (left_out > 0)
    remarks->push_back(file.named("expected at most " + std::to_string(kMostBytesOfJournal >> 20) +
                                  " MiB of a run, found " + frames::counted(left_out, "thing") +
                                  " more, which are left out"));
  return reader.problem().empty();
}

// Lines by themselves. Each start of the station begins a run.
std::vector<std::string> tell_lines(const Files& files, story::Story* story) {
  std::vector<std::string> remarks;
  bool is_whole = true;
  if (files.journal) {
    is_whole = tell_journal(*files.journal, story, &remarks);
  } else {
    tell_log(*files.log, story, &remarks);
  }
  story->finish(!is_whole);
  if (story->reading().steps.empty() && story->reading().untimed_lines.empty()) {
    throw NotReadable(frames::printable(files.journal ? *files.journal : *files.log) +
                      ": expected the station's lines, found none");
  }
  return remarks;
}

}  // namespace

std::vector<std::string> tell(const Files& files, story::Story* story, const Progress& progress,
                              const Watch& watch) {
  if (files.record.empty()) return tell_lines(files, story);
  const std::unique_ptr<Beside> more = beside(files, progress);
  std::vector<std::string> remarks = Teller(files.record, progress, watch).tell(more.get(), story);
  const std::string of_more = more ? more->remark() : "";
  if (!of_more.empty()) remarks.push_back(of_more);
  return remarks;
}

}  // namespace run_files
