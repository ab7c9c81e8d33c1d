#ifndef PICTURE_ROWS_H
#define PICTURE_ROWS_H

#include <optional>
#include <vector>

#include "picture/event.h"

namespace picture {

// The story row by row, downwards. A bundle is divided where something else begins and where it rests itself;
// a time in which nothing begins becomes a row of its own, a pause. `end` is when the run ended, if it is
// known. Of a story that would not fit on any wall, the beginning, and a last row that says what is missing.
std::vector<Event> rows_of(const std::vector<Event>& story, std::optional<Microseconds> end);

}  // namespace picture

#endif
