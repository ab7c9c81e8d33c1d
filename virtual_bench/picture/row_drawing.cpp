#include "picture/row_drawing.h"

#include <algorithm>
#include <string>
#include <vector>

#include "picture/bundle_drawing.h"
#include "picture/words.h"

namespace picture {

namespace {

constexpr double kRowMargin = 3;
constexpr double kLabelMargin = 10;   // beside a label, to the life lines
constexpr double kLabelToArrow = 5;   // from the label down to the line
constexpr double kLabelToCross = 11;  // the same where "lost" stands beside the line
constexpr double kArrowToNext = 8;
constexpr double kCrossRadius = 6;
constexpr double kNoteWidth = 330;
constexpr double kNotePadding = 7;
constexpr double kNoteToLine = 12;
constexpr double kPauseHeight = 40;
constexpr double kSecondHeadDistance = 9;
constexpr std::size_t kMaxLabelLines = 4;
constexpr std::size_t kMaxNoteLines = 6;

Pen pen_of(Event::Look look) {
  constexpr Pen kPens[] = {Pen::kDatagram, Pen::kVerdict, Pen::kBroadcast,
                           Pen::kTcp,      Pen::kBoard,   Pen::kUnreachable};  // in the order of Look
  return kPens[static_cast<std::size_t>(look)];
}

std::string share(std::size_t count, std::size_t times, const std::string& what) {
  if (count == 0) return "";
  if (times == 1) return ", " + what;
  return ", " + (count == times ? std::string("all") : std::to_string(count)) + " " + what;
}

// The text with what became of the packets that it stands for. That a single one was lost is drawn.
std::string label_of(const Event& event, Microseconds start) {
  std::string label = event.text;
  if (event.times > 1) {
    label += ", " + std::to_string(event.times) + " times until " + seconds(event.until - start, 1) + " s";
    label += share(event.times_lost, event.times, "lost");
  }
  return label + share(event.times_duplicated, event.times, "duplicated") +
         share(event.times_swapped, event.times, "swapped");
}

// Where the label of an arrow stands: between two life lines, in the PPT server's part for all that goes
// there.
struct Column {
  double left = 0;
  double right = 0;
};

Column column_of(const Event& event) {
  const auto is_end = [&event](Lane lane) { return event.source == lane || event.target == lane; };
  if (is_end(Lane::kPptServer)) return {kUnitX, kPptServerX};
  if (is_end(Lane::kBoard)) return {kBoardX, kStationX};
  return {kStationX, kUnitX};
}

void add_cross(double x, double y, Sheet* sheet) {
  sheet->strokes.push_back(
      {x - kCrossRadius, y - kCrossRadius, x + kCrossRadius, y + kCrossRadius, Pen::kLost});
  sheet->strokes.push_back(
      {x - kCrossRadius, y + kCrossRadius, x + kCrossRadius, y - kCrossRadius, Pen::kLost});
}

// The line from one x to the other; where it passes the unit's life line, it hops.
void add_line(double from, double to, double y, Pen pen, Sheet* sheet) {
  if (std::min(from, to) >= kUnitX || std::max(from, to) <= kUnitX) {
    sheet->strokes.push_back({from, y, to, y, pen});
    return;
  }
  const double hop = from < to ? kHopRadius : -kHopRadius;
  sheet->strokes.push_back({from, y, kUnitX - hop, y, pen});
  sheet->strokes.push_back({kUnitX + hop, y, to, y, pen});
  sheet->hops.push_back({kUnitX, y, pen});
}

void add_lost_arrow(double from, const Column& column, bool to_the_right, double y, Pen pen, Sheet* sheet) {
  const double middle = (column.left + column.right) / 2;
  add_line(from, middle, y, pen, sheet);
  add_cross(middle, y, sheet);
  const double width = bold_label_width("lost");
  const double gap = kCrossRadius + 4;
  const double x = to_the_right ? middle + gap : middle - gap - width;
  const Text::Align align = to_the_right ? Text::Align::kLeft : Text::Align::kRight;
  sheet->texts.push_back(
      {{x, y - kTextHeight / 2, width, kTextHeight}, "lost", Text::Font::kBold, align, true});
}

void add_time(double y, Microseconds time, Sheet* sheet) {
  constexpr double kGap = 8;
  std::string text = seconds(time, 3);
  if (output_width(text) > kAxisX - kGap) text = seconds(time, 0);
  if (output_width(text) > kAxisX - kGap) text = "far off";
  const double width = output_width(text);
  sheet->texts.push_back({{kAxisX - kGap - width, y - kTextHeight / 2, width, kTextHeight},
                          text,
                          Text::Font::kOutput,
                          Text::Align::kRight,
                          false});
  sheet->strokes.push_back({kAxisX - 4, y, kAxisX, y, Pen::kAxis});
}

double draw_arrow(const Event& event, double top, Microseconds start, Sheet* sheet) {
  const Column column = column_of(event);
  const bool is_verdict = event.look == Event::Look::kVerdict;
  const auto width_of = is_verdict ? bold_label_width : label_width;
  const double room = column.right - column.left - 2 * kLabelMargin;
  double y = top + kRowMargin;
  for (const std::string& line : wrapped(label_of(event, start), room, width_of, kMaxLabelLines)) {
    const double width = width_of(line);
    const double x = (column.left + column.right - width) / 2;
    const Text::Font font = is_verdict ? Text::Font::kBold : Text::Font::kLabel;
    sheet->texts.push_back({{x, y, width, kTextHeight}, line, font, Text::Align::kMiddle, true});
    y += kTextHeight;
  }
  y += event.fate.lost ? kLabelToCross : kLabelToArrow;
  const double from = x_of(event.source);
  const double to = x_of(event.target);
  const bool to_the_right = from < to;
  const Pen pen = pen_of(event.look);
  add_time(y, event.from - start, sheet);
  if (event.fate.lost) {
    add_lost_arrow(from, column, to_the_right, y, pen, sheet);
  } else {
    add_line(from, to, y, pen, sheet);
    sheet->heads.push_back({to, y, to_the_right, pen});
    const double second = to + (to_the_right ? -kSecondHeadDistance : kSecondHeadDistance);
    if (event.fate.duplicated) sheet->heads.push_back({second, y, to_the_right, pen});
  }
  return y + kArrowToNext - top;
}

double draw_note(const Event& event, double top, Microseconds start, Sheet* sheet) {
  std::string text = event.text;
  if (event.times > 1) {
    text += " x " + std::to_string(event.times) + " until " + seconds(event.until - start, 1) + " s";
  }
  const std::vector<std::string> lines = wrapped(text, kNoteWidth, output_width, kMaxNoteLines);
  double width = 0;
  for (const std::string& line : lines) width = std::max(width, output_width(line));
  const double right = kStationX - kNoteToLine;
  const double left = right - width - 2 * kNotePadding;
  const double box_top = top + kRowMargin;
  double y = box_top + kRowMargin / 2;
  for (const std::string& line : lines) {
    const double x = left + kNotePadding;
    sheet->texts.push_back(
        {{x, y, output_width(line), kTextHeight}, line, Text::Font::kOutput, Text::Align::kLeft, false});
    y += kTextHeight;
  }
  y += kRowMargin / 2;
  const double middle = (box_top + y) / 2;
  sheet->areas.push_back({{left, box_top, right - left, y - box_top}, Area::Paint::kNote});
  sheet->strokes.push_back({right, middle, kStationX, middle, Pen::kAxis});
  add_time(middle, event.from - start, sheet);
  return y + kRowMargin - top;
}

// A line of bold text between station and unit.
double draw_words(const Event& event, double top, double height, Sheet* sheet) {
  const double width = bold_label_width(event.text);
  const double x = (kStationX + kUnitX - width) / 2;
  const double y = top + (height - kTextHeight) / 2;
  sheet->texts.push_back(
      {{x, y, width, kTextHeight}, event.text, Text::Font::kBold, Text::Align::kMiddle, true});
  return height;
}

}  // namespace

double draw_row(const Event& row, double top, Microseconds start, Sheet* sheet) {
  constexpr double kWordsHeight = kTextHeight + 4 * kRowMargin;
  double height = 0;
  switch (row.kind) {
    case Event::Kind::kArrow:
      return draw_arrow(row, top, start, sheet);
    case Event::Kind::kNote:
      return draw_note(row, top, start, sheet);
    case Event::Kind::kPause:
      return draw_words(row, top, kPauseHeight, sheet);
    case Event::Kind::kBundle:
      height = draw_bundle(row, top, sheet);
      add_time(top + height - kTextHeight, row.until - start, sheet);
      break;
    case Event::Kind::kCut:
    case Event::Kind::kEnd:
      height = draw_words(row, top, kWordsHeight, sheet);
      break;
  }
  const double time_y = row.kind == Event::Kind::kBundle ? top + kTextHeight : top + height / 2;
  add_time(time_y, row.from - start, sheet);
  return height;
}

}  // namespace picture
