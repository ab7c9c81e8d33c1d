#ifndef PICTURE_ROWS_H
#define PICTURE_ROWS_H

#include <vector>

#include "picture/outcome.h"
#include "picture/picture.h"
#include "picture/row.h"
#include "story/reading.h"

namespace picture {

// How much of a run is told, from all to least.
enum class Detail {
  kEverything,
  kRepetitionsFolded,  // and a connection in two rows
  kTransfersInARow,
  kUnitsInARow,  // each that passed, where there are several
  kUnitsTogether,
};

// The run row by row, downwards, in the order of their beginnings. Of more than kMaxRows, the first ones and the
// last ones, and between them a row that says what is missing.
//
// A transfer of few blocks is an arrow, a longer one a band. Where something begins while it goes on, its end has a
// row of its own, so that the times at the side never run backwards. A time in which nothing begins is a row.
constexpr std::size_t kMaxRows = 1000;
std::vector<Row> rows_of(const story::Reading& reading, const Choice& choice, Detail detail,
                         const Outcome& outcome);

// The same for a page that folds transfers: everything, and before the rows of each transfer that has several one that
// stands for all of them (Row::is_short). Repetitions are folded only where there are more than kMaxRows.
std::vector<Row> rows_to_fold(const story::Reading& reading, const Outcome& outcome);

}  // namespace picture

#endif
