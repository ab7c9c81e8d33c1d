#ifndef PICTURE_FOLDING_H
#define PICTURE_FOLDING_H

#include <vector>

#include "picture/outcome.h"
#include "picture/row.h"
#include "story/reading.h"

namespace picture {

// Rows, or groups of up to kMaxGroup rows, that come kLeastTimes in a row and more are told once, with their count.
// Within a group the order does not matter: what the station prints and what it sends at one moment come in any.
// A row with a mark is never folded.
constexpr std::size_t kMaxGroup = 16;
constexpr std::size_t kLeastTimes = 3;
std::vector<Row> with_repetitions_folded(std::vector<Row> rows);

// All of a unit that passed becomes one row, with what else happened meanwhile.
std::vector<Row> with_units_folded(std::vector<Row> rows, const story::Reading& reading,
                                   const Outcome& outcome, bool together);

}  // namespace picture

#endif
