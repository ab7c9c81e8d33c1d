#ifndef TERMINAL_LADDER_H
#define TERMINAL_LADDER_H

#include <cstddef>
#include <string>
#include <vector>

#include "story/reading.h"
#include "terminal/screen.h"
#include "terminal/told.h"

namespace terminal {

// Lanes and the arrows between them: board, station, units, PPT server, from left to right behind the time, and the
// words at the right. The first units have a lane each, as many as there is room for; all others and strangers share
// one. In less than kLeastColumns there is one lane, and the words say who.
class Ladder {
 public:
  static constexpr std::size_t kLeastColumns = 60;

  Ladder(const story::Reading& reading, std::size_t columns);

  bool is_narrow() const { return columns_ < kLeastColumns; }
  // The names of the lanes.
  Line heads() const;
  Line line_of(const Told& told) const;
  // What belongs to the line above.
  Line line_below(const std::string& text) const;

 private:
  struct Lane {
    std::string name;
    std::size_t column;
  };

  void add_lane(const std::string& name) { lanes_.push_back({name, 0}); }
  std::size_t lane_of(std::size_t party) const;
  void add_arrow(const Told& told, Line* line) const;
  std::size_t ladder_columns() const;

  const story::Reading& reading_;
  const std::size_t columns_;
  std::size_t spacing_ = 0;
  std::vector<Lane> lanes_;
  std::vector<std::size_t> units_;  // with a lane of their own
  bool has_others_ = false;
};

}  // namespace terminal

#endif
