#ifndef SCENARIO_SCENARIO_H
#define SCENARIO_SCENARIO_H

#include <cstddef>
#include <string>

#include "story/reading.h"

// A recorded run as a scenario: what the virtual bench plays, by meaning and not by bytes. Steps wait for what caused
// them; where nothing did, the bench waits as long as the run did.
namespace scenario {

class Contents;

struct Scenario {
  std::string
      text;  // one step a line, as virtual_bench/README.md says; the first line is a comment, the title
  std::size_t left_out = 0;  // comments for what the language cannot say; each names its frames
};

// Of a reading that has ended. The text is safe in a terminal. contents: the record's files; null: they are random ones of
// the same size.
Scenario scenario_of(const story::Reading& reading, const Contents* contents = nullptr);

}  // namespace scenario

#endif
