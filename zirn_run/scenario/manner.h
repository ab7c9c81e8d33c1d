#ifndef SCENARIO_MANNER_H
#define SCENARIO_MANNER_H

#include <string>

#include "scenario/habits.h"
#include "scenario/script.h"
#include "story/reading.h"

namespace scenario {

// How a read was made: like a loader, and what its step says besides.
struct Manner {
  const Habit* habit;
  std::string options;  // " blksize 1428 repeats 3 times after 0.5 s"; empty: none
};

// By the options that it asks for, their order, and how long the client waited until it repeated something. What no habit
// has becomes a comment.
Manner manner_of(const story::Transfer& read, Script* script);

}  // namespace scenario

#endif
