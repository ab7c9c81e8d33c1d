#include "recorder/lines.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <system_error>

#include "record/journal.h"
#include "record/journal_text.h"
#include "record/run_entry.h"
#include "recorder/clock.h"

namespace recorder {

namespace {

constexpr record::Nanoseconds kPause = kSecond;  // between two beginnings of journalctl

std::string since_text(record::Nanoseconds at) {
  std::array<char, 40> text = {};
  std::snprintf(text.data(), text.size(), "--since=@%lld.%06lld", static_cast<long long>(at / kSecond),
                static_cast<long long>(at % kSecond / 1000));
  return text.data();
}

}  // namespace

void LineSplitter::add(std::string_view piece, const Lines::Take& take) {
  line_.append(piece);
  std::size_t begin = 0;
  for (std::size_t end = 0; (end = line_.find('\n', begin)) != std::string::npos; begin = end + 1)
    take(entry_of(record::Line{line_.substr(begin, end - begin)}, now()));
  line_.erase(0, begin);
  if (line_.size() >= record::LogReader::kMostLineBytes) take_rest(take);
}

void LineSplitter::take_rest(const Lines::Take& take) {
  if (!line_.empty()) take(entry_of(record::Line{line_}, now()));
  line_.clear();
}

Journal::Journal(std::string unit, record::Nanoseconds since)
    : unit_(std::move(unit)), from_(since_text(since)) {
  begin();
}

void Journal::begin() {
  began_ = now();
  text_.clear();
  entry_ = {};
  journalctl_ = station::Child(
      {"journalctl", "--quiet", "--follow", "--lines=all", "--output=export", "--unit", unit_, from_});
  fcntl(journalctl_.descriptor(), F_SETFL, O_NONBLOCK);
}

// False: nothing more has come.
bool Journal::read_more() {
  std::array<char, 16384> buffer = {};
  const ssize_t count = read(journalctl_.descriptor(), buffer.data(), buffer.size());
  if (count > 0) text_.append(buffer.data(), static_cast<std::size_t>(count));
  if (count == 0) journalctl_ = station::Child();
  return count > 0;
}

// What cannot be read would come again behind the last cursor, for ever.
void Journal::pass_over() {
  journalctl_ = station::Child();
  from_ = since_text(now());
}

void Journal::receive(const Take& take) {
  using record::journal_text::Taken;
  while (descriptor() >= 0 && read_more()) {
    std::string_view rest = text_;
    Taken taken = Taken::kField;
    while (!rest.empty() && taken != Taken::kMore && taken != Taken::kWrong) {
      taken = record::journal_text::take_field(&rest, record::JournalReader::kMostFieldBytes, &entry_);
      if (taken != Taken::kEntryEnd || entry_.fields.empty()) continue;
      from_ = "--after-cursor=" + std::string(entry_.value("__CURSOR"));
      take(entry_);
      entry_ = {};
      has_told_ = false;
    }
    text_.erase(0, text_.size() - rest.size());
    if (taken == Taken::kWrong) pass_over();
  }
  if (descriptor() >= 0 || now() - began_ < kPause) return;
  if (!has_told_)
    take(entry_of(record::gap(record::kLinesMayMiss, "journalctl ended, and is begun anew"), now()));
  has_told_ = true;
  begin();
}

Log::Log(const std::string& name, bool is_whole)
    : file_(open(name.c_str(), O_RDONLY | O_CLOEXEC)), news_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
  const bool is_open = file_ >= 0 && lseek(file_, 0, is_whole ? SEEK_SET : SEEK_END) >= 0;
  if (is_open && inotify_add_watch(news_, name.c_str(), IN_MODIFY | IN_MOVE_SELF) >= 0) return;
  const int error = errno;
  close(file_);
  close(news_);
  throw std::system_error(error, std::generic_category(), name);
}

Log::~Log() {
  close(file_);
  close(news_);
}

void Log::receive(const Take& take) {
  std::array<char, 16384> buffer = {};
  ssize_t count = 0;
  while ((count = read(news_, buffer.data(), buffer.size())) > 0) {
    for (std::size_t i = 0; i < static_cast<std::size_t>(count); i += sizeof(inotify_event)) {
      inotify_event event = {};
      std::memcpy(&event, buffer.data() + i, sizeof event);
      has_moved_ = has_moved_ || (event.mask & IN_MOVE_SELF) != 0;
    }
  }
  struct stat about = {};
  if (fstat(file_, &about) == 0 && about.st_size < lseek(file_, 0, SEEK_CUR)) {
    lines_.take_rest(take);
    lseek(file_, 0, SEEK_SET);
  }
  while ((count = read(file_, buffer.data(), buffer.size())) > 0)
    lines_.add({buffer.data(), static_cast<std::size_t>(count)}, take);
}

void Log::finish(const Take& take) {
  receive(take);
  lines_.take_rest(take);
}

}  // namespace recorder
