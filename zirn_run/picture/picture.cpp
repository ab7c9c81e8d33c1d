#include "picture/picture.h"

#include "picture/outcome.h"
#include "picture/page.h"
#include "picture/rows.h"
#include "picture/svg.h"

namespace picture {

namespace {

constexpr double kThreeScreens = 3000;  // pixels

Outcome remarked(const story::Reading& reading, const Choice& choice) {
  Outcome outcome = outcome_of(reading, choice.unit);
  if (!choice.remark) return outcome;
  auto& [mark, words] = outcome.marks[choice.remark->step];
  words = choice.remark->words + (words.empty() ? "" : "; " + words);
  mark = Mark::kWrong;
  return outcome;
}

Sheet sheet_of(const story::Reading& reading, const Choice& choice) {
  const Outcome outcome = remarked(reading, choice);
  const auto page = [&](Detail detail) {
    return page_of(rows_of(reading, choice, detail, outcome), reading, outcome, choice);
  };
  if (choice.folding == Choice::Folding::kUnfold) return page(Detail::kEverything);
  if (choice.folding == Choice::Folding::kFold) return page(Detail::kUnitsTogether);
  Sheet sheet = page(Detail::kRepetitionsFolded);
  for (const Detail less : {Detail::kTransfersInARow, Detail::kUnitsInARow, Detail::kUnitsTogether}) {
    const bool is_enough = less >= Detail::kUnitsInARow && (outcome.passed < 2 || choice.remark);
    if (sheet.height <= kThreeScreens || is_enough) break;
    sheet = page(less);
  }
  return sheet;
}

}  // namespace

std::string picture_of(const story::Reading& reading, const Choice& choice) {
  return svg_of(sheet_of(reading, choice));
}

std::string picture_of(const Side& left, const Side& right) {
  Sheet sheet = sheet_of(left.reading, left.choice);
  put_beside(sheet_of(right.reading, right.choice), &sheet);
  return svg_of(sheet);
}

}  // namespace picture
