#include "bench/record_file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <vector>

#include "record/reader.h"
#include "record/run_entry.h"
#include "record/writer.h"
#include "wire/wire_record.h"

namespace {

constexpr record::Nanoseconds kMicrosecond = 1000;

// What is known of the run besides frames, in the order of time.
std::vector<record::Entry> entries_of(const picture::RunRecord& run) {
  std::vector<record::Entry> entries;
  const auto add = [&entries](const record::RunEntry& said, picture::Microseconds at) {
    entries.push_back(record::entry_of(said, at * kMicrosecond));
  };
  add(record::RunBegins{run.name, run.title, run.command}, run.start.value_or(0));
  for (const picture::TimedLine& line : run.station_lines) add(record::Line{line.text}, line.at);
  for (const picture::BoardCall& call : run.board_calls)
    add(record::BoardCall{call.text, call.status}, call.at);
  for (const picture::Cut& cut : run.fates.cuts)
    add(record::Cut{(cut.until - cut.from) * kMicrosecond}, cut.from);
  const picture::Microseconds end = run.end.value_or(0);
  if (run.exit_status) {
    const auto [status, signal, at] = *run.exit_status;
    add(record::StationEnds{signal == 0 ? std::optional(status) : std::nullopt, signal}, at);
  }
  add(record::RunEnds{run.ppt_flag, run.judged}, end);
  std::stable_sort(entries.begin(), entries.end(),
                   [](const record::Entry& one, const record::Entry& other) { return one.at < other.at; });
  return entries;
}

// Writes entries up to a time, each once.
class Entries {
 public:
  Entries(const picture::RunRecord& run, record::Writer* writer)
      : entries_(entries_of(run)), next_(entries_.begin()), writer_(writer) {}
  void write_until(record::Nanoseconds at) {
    while (next_ != entries_.end() && next_->at <= at) writer_->add(*next_++);
  }
  void write_all() {
    while (next_ != entries_.end()) writer_->add(*next_++);
  }

 private:
  const std::vector<record::Entry> entries_;
  std::vector<record::Entry>::const_iterator next_;
  record::Writer* const writer_;
};

void write_frames(std::istream& wire, const WireFates& fates, Entries* entries, record::Writer* writer) {
  record::Reader reader(wire);
  std::uint64_t number = 0;
  while (const auto item = reader.next()) {
    if (const auto* const link = std::get_if<record::Interface>(&*item)) writer->add(*link);
    const auto* const recorded = std::get_if<record::Frame>(&*item);
    if (recorded == nullptr) continue;
    record::Frame frame = *recorded;
    const auto fate = fates.of_frames.find(++number);
    if (fate != fates.of_frames.end()) frame.comments = fate->second;
    entries->write_until(frame.at);
    writer->add(frame);
  }
}

}  // namespace

void write_record(const std::string& path, const std::string& wire_record, const picture::RunRecord& run) {
  std::ofstream file(path, std::ios::binary);
  record::Writer writer(file, record::Maker());
  Entries entries(run, &writer);
  if (std::ifstream first(wire_record, std::ios::binary); first) {
    const WireFates fates = read_fates(first);
    std::ifstream wire(wire_record, std::ios::binary);
    write_frames(wire, fates, &entries, &writer);
  }
  entries.write_all();
  if (!file.flush())
    throw std::runtime_error("expected a file that can be written: " + path + ": " + std::strerror(errno));
}
