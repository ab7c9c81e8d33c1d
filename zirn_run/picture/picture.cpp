#include "picture/picture.h"

#include "picture/outcome.h"
#include "picture/page.h"
#include "picture/rows.h"
#include "picture/svg.h"

namespace picture {

namespace {

constexpr double kThreeScreens = 3000;  // pixels

}  // namespace

std::string picture_of(const story::Reading& reading, const Choice& choice) {
  const Outcome outcome = outcome_of(reading, choice.unit);
  const auto page = [&](Detail detail) {
    return page_of(rows_of(reading, choice, detail, outcome), reading, outcome, choice);
  };
  if (choice.folding == Choice::Folding::kUnfold) return svg_of(page(Detail::kEverything));
  if (choice.folding == Choice::Folding::kFold) return svg_of(page(Detail::kUnitsTogether));
  Sheet sheet = page(Detail::kRepetitionsFolded);
  for (const Detail less : {Detail::kTransfersInARow, Detail::kUnitsInARow, Detail::kUnitsTogether}) {
    const bool is_enough = less >= Detail::kUnitsInARow && outcome.passed < 2;
    if (sheet.height <= kThreeScreens || is_enough) break;
    sheet = page(less);
  }
  return svg_of(sheet);
}

}  // namespace picture
