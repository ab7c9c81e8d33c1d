#ifndef TERMINAL_ROWS_H
#define TERMINAL_ROWS_H

#include <cstddef>
#include <vector>

#include "story/reading.h"

namespace terminal {

// What has a line of its own: a step of the story, or where the record lacks something.
struct Row {
  bool is_gap = false;
  std::size_t place = 0;  // in the reading's steps or gaps

  bool operator==(const Row& other) const { return is_gap == other.is_gap && place == other.place; }
  bool operator<(const Row& other) const {
    return is_gap != other.is_gap ? is_gap < other.is_gap : place < other.place;
  }
};

// The rows of a run in the order of time. A transfer or a connection is one row, that of its first step. Nothing is
// kept of a row but where it stands in the reading, and what follows the last look is all that a look costs.
class Rows {
 public:
  // Takes note of what the reading has since the last time; it must be the same one.
  void look_at(const story::Reading& reading);

  const std::vector<Row>& all() const { return rows_; }

 private:
  bool is_first_of_its_thread(const story::Reading& reading, std::size_t place) const;
  void note_threads(const story::Reading& reading);
  void add(const Row& row, std::size_t at);

  std::vector<Row> rows_;
  std::vector<std::size_t> orders_;  // of the rows: where they stand in the reading's order
  std::vector<std::size_t> first_of_transfer_;
  std::vector<std::size_t> first_of_connection_;
  std::size_t noted_ = 0;    // steps whose threads are noted
  std::size_t ordered_ = 0;  // steps of the order that were looked at
  std::size_t gaps_ = 0;     // gaps among the rows
};

}  // namespace terminal

#endif
