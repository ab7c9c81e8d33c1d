#ifndef RECORDER_LINES_H
#define RECORDER_LINES_H

#include <functional>
#include <string>
#include <string_view>

#include "record/item.h"
#include "station/child.h"

namespace recorder {

// Where the station's lines come from.
class Lines {
 public:
  using Take = std::function<void(const record::Entry&)>;

  virtual ~Lines() = default;
  // To wait for lines by; -1: there is nothing to wait for now.
  virtual int descriptor() const = 0;
  // Hands over what has come.
  virtual void receive(const Take& take) = 0;
  // Hands over what is left, when nothing more will come.
  virtual void finish(const Take& take) { receive(take); }
  // Whether they have been put away for those of another run.
  virtual bool are_put_away() const { return false; }
};

// Makes lines, with the time when they were seen, of what is read piece by piece. A line of more than
// record::LogReader::kMostLineBytes becomes several.
class LineSplitter {
 public:
  void add(std::string_view piece, const Lines::Take& take);
  // What has no end yet.
  void take_rest(const Lines::Take& take);

 private:
  std::string line_;  // its beginning
};

// A unit's lines and what systemd says of it, from the journal. journalctl follows it, whatever is rotated meanwhile;
// when that ends it is begun anew behind the last entry, and an entry says what may lack.
class Journal : public Lines {
 public:
  // Entries from then on.
  Journal(std::string unit, record::Nanoseconds since);
  int descriptor() const override { return journalctl_.descriptor(); }
  void receive(const Take& take) override;

 private:
  void begin();
  bool read_more();
  void pass_over();

  const std::string unit_;
  std::string from_;  // where it begins
  station::Child journalctl_;
  record::Nanoseconds began_ = 0;
  bool has_told_ = false;  // that it ended, since the last entry
  std::string text_;       // that was read and not taken
  record::Entry entry_;    // what is known of the next one
};

// The lines of a log, with the time at which they were seen. A log that is emptied is read from its beginning. When the next run begins, the log gets another name.
class Log : public Lines {
 public:
  // `is_whole`: those that are there already, too. Throws std::system_error, which names the file.
  Log(const std::string& name, bool is_whole);
  ~Log() override;
  Log(const Log&) = delete;
  Log& operator=(const Log&) = delete;

  int descriptor() const override { return news_; }
  void receive(const Take& take) override;
  void finish(const Take& take) override;
  bool are_put_away() const override { return has_moved_; }

 private:
  int file_;
  int news_;
  bool has_moved_ = false;
  LineSplitter lines_;
};

}  // namespace recorder

#endif
