#ifndef RUN_FILES_PLACED_LINES_H
#define RUN_FILES_PLACED_LINES_H

#include <string>
#include <vector>

#include "record/item.h"
#include "story/reading.h"

namespace run_files {

// A line of a log; without a time (0) where that is not certain.
struct PlacedLine {
  record::Nanoseconds at = 0;
  std::string text;
};

// The lines with the times of what they speak of. A line that says which file is asked for, or which verdict was
// given, has the time of that request where there are as many such requests on the wire as such lines, none of them
// was sent again, and no two lines would change places. No other line has a time.
std::vector<PlacedLine> placed(const std::vector<std::string>& lines, const story::Reading& reading);

}  // namespace run_files

#endif
