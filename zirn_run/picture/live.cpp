#include "picture/live.h"

#include <set>

#include "picture/outcome.h"
#include "picture/page.h"
#include "picture/rows.h"
#include "picture/svg.h"
#include "picture/telling.h"
#include "picture/words.h"

namespace picture {

namespace {

// "0.222 s, the unit to the station: read boot.img; 20 bytes in 1 block; PASSED".
std::string words_of(const Row& row, const story::Reading& reading) {
  std::string words;
  if (row.kind != Row::Kind::kPause) words = seconds(row.from - reading.first, 3) + " s";
  if (row.source != kNone) {
    add_words(&words, name_of(reading, row.source));
    if (row.target != kNone && row.target != row.source) words += " to " + name_of(reading, row.target);
  }
  words += (words.empty() ? "" : ": ") + row.text;
  if (row.times > 1) add_words(&words, std::to_string(row.times) + " times");
  if (row.lost > 0) add_words(&words, std::to_string(row.lost) + " lost");
  for (const std::string& fact : row.facts) words += "; " + fact;
  return words + (row.mark_words.empty() ? "" : "; " + row.mark_words);
}

bool is_finished(std::size_t transfer, const story::Reading& reading) {
  return reading.transfers[transfer].end == story::Transfer::End::kFinished;
}

}  // namespace

Live live_picture_of(const story::Reading& reading) {
  const Outcome outcome = outcome_of(reading, std::nullopt);
  const std::vector<Row> rows = rows_to_fold(reading, outcome);
  const Sheet sheet = page_of(rows, reading, outcome, {});
  Live live;
  live.width = sheet.width;
  live.legend = strip_of(sheet, sheet.legend);
  live.lanes = strip_of(sheet, sheet.lanes);
  double bottom = sheet.lanes.bottom();
  std::set<std::size_t> shortened;
  for (std::size_t i = 0; i < rows.size(); ++i) {
    const Row& row = rows[i];
    if (row.is_short) shortened.insert(row.transfer);
    const bool is_foldable = shortened.count(row.transfer) > 0;
    live.rows.push_back({strip_of(sheet, sheet.rows[i]), words_of(row, reading), row.frames, row.lines,
                         row.transfer, row.is_short,
                         is_foldable && row.is_short != is_finished(row.transfer, reading)});
    bottom = sheet.rows[i].bottom();
  }
  live.foot = strip_of(sheet, {0, bottom, sheet.width, sheet.height - bottom});
  return live;
}

}  // namespace picture
