#ifndef PICTURE_OUTCOME_H
#define PICTURE_OUTCOME_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "picture/row.h"
#include "story/reading.h"

namespace picture {

// The time of one unit at the station, up to its final verdict. The next one begins with what a unit at the same
// address asks for after that.
struct Turn {
  std::size_t unit = kNone;     // the party
  std::size_t verdict = kNone;  // the final one
  std::size_t last_step = kNone;
  Nanoseconds from = 0;
  Nanoseconds until = 0;
  bool is_closed = false;  // more that it asks for begins the next one
};

// How a run came out, and where it turned.
struct Outcome {
  std::vector<Turn> turns;
  std::vector<std::size_t>
      turn_of_step;          // a unit's; of all else the one that began last; kNone: before the first
  std::uint64_t passed = 0;  // units
  std::uint64_t failed = 0;
  std::uint64_t without = 0;  // a final verdict, where others have one
  bool went_wrong = false;
  std::string last_verdict;                                   // empty: there was none
  std::map<std::size_t, std::pair<Mark, std::string>> marks;  // of steps
};

// A final verdict counts when it reached the station, as far as the record tells. Of one that is not in the frames,
// the station's line tells. unit: only of this address.
Outcome outcome_of(const story::Reading& reading, std::optional<std::uint32_t> unit);

// The unit that a step concerns; kNone: none.
std::size_t unit_of(const story::Reading& reading, const story::Step& step);

// "the unit PASSED", "57 units PASSED, 3 units FAILED", "no final verdict"; each with its mark, in order.
std::vector<std::pair<Mark, std::string>> in_words(const Outcome& outcome);

}  // namespace picture

#endif
