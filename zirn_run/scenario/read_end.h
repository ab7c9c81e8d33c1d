#ifndef SCENARIO_READ_END_H
#define SCENARIO_READ_END_H

#include "story/reading.h"

// How a read came to its end, as far as a scenario tells it apart.
namespace scenario {

// Whether the unit had, or took, what it asked for.
bool is_finished(const story::Transfer& one);
// Whether it got an error from the station, or nothing more.
bool is_read_in_vain(const story::Transfer& one);
// Whether the unit was gone without a word: nobody told the server, which repeated what it had sent.
bool is_crash(const story::Transfer& one);

}  // namespace scenario

#endif
