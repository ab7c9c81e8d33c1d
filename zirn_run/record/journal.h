#ifndef RECORD_JOURNAL_H
#define RECORD_JOURNAL_H

#include <cstddef>
#include <istream>
#include <optional>
#include <string>

#include "record/input.h"
#include "record/item.h"
#include "record/run_entry.h"

namespace record {

// Reads what `journalctl -o export` wrote, entry by entry; no further than it must, as Reader.
class JournalReader {
 public:
  static constexpr std::size_t kMostFieldBytes = std::size_t{1} << 20;  // a larger field is a problem

  // The stream must outlive it, and be binary.
  explicit JournalReader(std::istream& file) : input_(file) {}

  // The next entry, without a number; nothing at the end. Its time is 0 where it has none.
  std::optional<Entry> next();

  // Where and why the entries ended before the file's end, as Reader says it; an entry that breaks off is left out. Of
  // a file that does not begin with a field: what was expected and found.
  const std::string& problem() const { return problem_; }

 private:
  std::optional<Entry> ends(const std::string& why);

  Input input_;
  std::string beginning_;  // of the file: empty lines before the first field
  bool has_fields_ = false;
  bool has_ended_ = false;
  std::string problem_;
};

// Reads the lines of a log without times.
class LogReader {
 public:
  static constexpr std::size_t kMostLineBytes = 65536;  // a longer line becomes several

  // The stream must outlive it.
  explicit LogReader(std::istream& file) : input_(file) {}

  // The next line, without its end; nothing at the end. The last one need not have an end.
  std::optional<Line> next();

  // Why the lines ended before the file's end; empty: they did not. Of a file that is no text there are none.
  std::string problem() const;

 private:
  void look_at_beginning();

  Input input_;
  std::string other_;  // what the file is, if no text
};

}  // namespace record

#endif
