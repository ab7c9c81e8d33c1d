#ifndef ZIRN_RUN_DRAWN_H
#define ZIRN_RUN_DRAWN_H

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "picture/lanes.h"
#include "picture/outcome.h"
#include "picture/page.h"
#include "picture/picture.h"
#include "picture/rows.h"
#include "picture/sheet.h"
#include "story/reading.h"
#include "zirn_run/made_run.h"

using Lines = std::vector<std::string>;

// A picture with what it was made of.
struct Drawn {
  std::vector<picture::Row> rows;
  picture::Sheet sheet;
};

inline Drawn drawn(const story::Reading& reading,
                   picture::Detail detail = picture::Detail::kRepetitionsFolded,
                   const picture::Choice& choice = {}) {
  const picture::Outcome outcome = picture::outcome_of(reading, choice.unit);
  Drawn result;
  result.rows = picture::rows_of(reading, choice, detail, outcome);
  result.sheet = picture::page_of(result.rows, reading, outcome, choice);
  return result;
}

// What stands in the rows, downwards, without the times at the side; lines of one row are joined.
inline Lines words_in(const Drawn& picture) {
  Lines lines;
  for (const picture::Box& row : picture.sheet.rows) {
    std::string words;
    for (const picture::Text& text : picture.sheet.texts) {
      const bool is_in = text.box.y >= row.y && text.box.bottom() <= row.bottom() && text.box.right() > 76;
      if (is_in) words += (words.empty() ? "" : " ") + text.text;
    }
    lines.push_back(words);
  }
  return lines;
}

inline bool says(const Drawn& picture, const std::string& line) {
  const auto& texts = picture.sheet.texts;
  return std::any_of(texts.begin(), texts.end(),
                     [&line](const picture::Text& text) { return text.text == line; });
}

inline std::size_t strokes_of(picture::Pen pen, const Drawn& picture) {
  const auto& strokes = picture.sheet.strokes;
  return static_cast<std::size_t>(std::count_if(
      strokes.begin(), strokes.end(), [pen](const picture::Stroke& stroke) { return stroke.pen == pen; }));
}

inline std::vector<picture::Box> areas_of(picture::Paint paint, const Drawn& picture) {
  std::vector<picture::Box> boxes;
  for (const picture::Area& area : picture.sheet.areas) {
    if (area.paint == paint) boxes.push_back(area.box);
  }
  return boxes;
}

// Empty when every text has its own place on the sheet, no arrow runs through one, and the times go on downwards;
// otherwise what is wrong.
inline std::string wrong_in_layout(const Drawn& picture) {
  const picture::Sheet& sheet = picture.sheet;
  const auto overlap = [](const picture::Box& one, const picture::Box& other) {
    return one.x < other.right() && other.x < one.right() && one.y < other.bottom() && other.y < one.bottom();
  };
  const auto told = [](const picture::Text& text) {
    return "'" + text.text + "' at " + std::to_string(text.box.y);
  };
  for (std::size_t i = 0; i < sheet.texts.size(); ++i) {
    const picture::Text& text = sheet.texts[i];
    if (text.box.x < 0 || text.box.right() > sheet.width) return told(text) + " is off";
    if (text.box.y < 0 || text.box.bottom() > sheet.height) return told(text) + " is off";
    for (std::size_t j = i + 1; j < sheet.texts.size(); ++j) {
      if (overlap(text.box, sheet.texts[j].box)) return told(text) + " meets " + told(sheet.texts[j]);
    }
    for (const picture::Stroke& stroke : sheet.strokes) {
      if (stroke.pen == picture::Pen::kPausedLifeLine) continue;
      const picture::Box around{std::min(stroke.x1, stroke.x2), std::min(stroke.y1, stroke.y2),
                                std::abs(stroke.x1 - stroke.x2), std::abs(stroke.y1 - stroke.y2)};
      if (overlap(text.box, around)) return told(text) + " is crossed out";
    }
  }
  for (std::size_t i = 1; i < sheet.rows.size(); ++i) {
    if (sheet.rows[i].y < sheet.rows[i - 1].bottom()) return "row " + std::to_string(i) + " begins too early";
    if (picture.rows[i].from < picture.rows[i - 1].from)
      return "the time runs backwards at row " + std::to_string(i);
  }
  return "";
}

#endif
