#include "picture/row_drawing.h"

#include <algorithm>
#include <string>
#include <vector>

#include "picture/words.h"

namespace picture {

namespace {

constexpr double kLeastArrow = 26;  // on either side of its label
constexpr double kLabelToArrow = 5;
constexpr double kLostWidth = 64;  // of the cross with its word
constexpr double kBoxPadding = 6;
constexpr double kStationToBox = 22;
constexpr double kSecondHeadDistance = 9;
constexpr std::size_t kMaxLabelLines = 4;
constexpr std::size_t kMaxOutputLines = 6;

Pen pen_of(Row::Look look) {
  constexpr Pen kPens[] = {Pen::kDatagram, Pen::kVerdict,    Pen::kBroadcast,
                           Pen::kTcp,      Pen::kClosedPort, Pen::kHarmless};  // in the order of Look
  return kPens[static_cast<std::size_t>(look)];
}

std::string share(std::uint64_t count, std::uint64_t times, const std::string& what) {
  if (count == 0) return "";
  if (times == 1 && count == 1) return what;
  return (count == times ? std::string("all") : std::to_string(count)) + " " + what;
}

std::string until(const Row& row, Nanoseconds start) {
  constexpr Nanoseconds kSecond = 1000000000;
  return seconds(row.until - start, row.until - row.from < kSecond ? 3 : 1) + " s";
}

// What became of the packets that a row stands for. That a single one was lost is drawn.
std::string counts_of(const Row& row, Nanoseconds start) {
  std::string text;
  if (row.times > 1) {
    text = std::to_string(row.times) + " times until " + until(row, start);
    add_words(&text, share(row.lost, row.times, "lost"));
  }
  add_words(&text, share(row.duplicated, row.times, "duplicated"));
  add_words(&text, share(row.swapped, row.times, "swapped"));
  return text;
}

bool is_all_lost(const Row& row) {
  return row.lost > 0 && row.lost >= row.times;
}

// Where the label of an arrow stands: between two life lines.
struct Column {
  double left = 0;
  double right = 0;
};

Column column_of(double from, double to, const Lanes& lanes) {
  if (std::max(from, to) > lanes.station()) return {lanes.station(), lanes.ppt_server()};
  return {lanes.innermost(), lanes.station()};
}

// The line from one x to the other; where it passes a life line, it hops.
void add_shaft(double from, double to, double y, Pen pen, const Lanes& lanes, Sheet* sheet) {
  const double left = std::min(from, to);
  const double right = std::max(from, to);
  double x = left;
  for (const Lanes::Head& lane : lanes.heads()) {
    if (lane.x <= left || lane.x >= right || pen == Pen::kBroadcast) continue;
    sheet->strokes.push_back({x, y, lane.x - kHopRadius, y, pen});
    sheet->hops.push_back({lane.x, y, pen});
    x = lane.x + kHopRadius;
  }
  sheet->strokes.push_back({x, y, right, y, pen});
}

void add_time(double y, Nanoseconds time, const Lanes& lanes, Sheet* sheet) {
  constexpr double kGap = 8;
  const auto fits = [&](const std::string& text) { return output_width(text) <= lanes.axis() - kGap; };
  std::string text = seconds(time, 3);
  if (!fits(text)) text = seconds(time, 0);
  if (!fits(text)) text = "far off";
  add_line(text, Font::kOutput, lanes.axis() - kGap, y - kTextHeight / 2, sheet, Text::Align::kRight);
  sheet->strokes.push_back({lanes.axis() - 4, y, lanes.axis(), y, Pen::kAxis});
}

// Lines of text around the middle of a column. Returns their greatest width.
double add_label(const std::vector<std::string>& lines, Font font, const Column& column, double top,
                 Sheet* sheet) {
  double widest = 0;
  for (const std::string& line : lines) {
    widest = std::max(
        widest, add_line(line, font, (column.left + column.right) / 2, top, sheet, Text::Align::kMiddle));
    top += kTextHeight;
  }
  return widest;
}

// An arrow stands to the left and to the right of its label; one that was lost ends behind it in a cross.
void add_arrow(const Row& row, double from, double to, double y, const Column& label, const Lanes& lanes,
               Sheet* sheet) {
  const Pen pen = pen_of(row.look);
  const bool to_the_right = from < to;
  if (std::max(from, to) <= lanes.innermost()) {  // between units: the label stands beside it
    add_shaft(from, to, y, pen, lanes, sheet);
    sheet->heads.push_back({to, y, to_the_right, pen});
    if (is_all_lost(row)) add_cross((from + to) / 2, y, sheet);
    return;
  }
  const double before = to_the_right ? label.left : label.right;
  const double behind = to_the_right ? label.right : label.left;
  const double sign = to_the_right ? 1 : -1;
  add_shaft(from, before, y, pen, lanes, sheet);
  if (is_all_lost(row)) {
    const double cross = behind + sign * (kCrossRadius + 12);
    sheet->strokes.push_back({std::min(behind, cross), y, std::max(behind, cross), y, pen});
    add_cross(cross, y, sheet);
    add_line("lost", Font::kBold, cross + sign * (kCrossRadius + 4), y - kTextHeight / 2, sheet,
             to_the_right ? Text::Align::kLeft : Text::Align::kRight);
    return;
  }
  add_shaft(behind, to, y, pen, lanes, sheet);
  sheet->heads.push_back({to, y, to_the_right, pen});
  if (row.duplicated > 0) sheet->heads.push_back({to - sign * kSecondHeadDistance, y, to_the_right, pen});
}

double draw_arrow(const Row& row, double top, Nanoseconds start, const Lanes& lanes, Sheet* sheet) {
  const double from = lanes.x(row.source);
  const double to = lanes.target_x(row);
  const Column column = column_of(from, to, lanes);
  std::string text = row.text;
  for (const std::size_t party : {row.source, row.target}) {
    const std::string address = lanes.address_of(party);
    if (!address.empty()) text += (party == row.source ? ", from " : ", to ") + address.substr(2);
  }
  add_words(&text, counts_of(row, start));
  const bool is_verdict = row.look == Row::Look::kVerdict;
  const double room = column.right - column.left - 2 * (is_all_lost(row) ? kLostWidth + 12 : kLeastArrow);
  const auto lines = wrapped(text, room, is_verdict ? bold_label_width : label_width, kMaxLabelLines);
  const double height = static_cast<double>(lines.size()) * kTextHeight;
  const double width =
      add_label(lines, is_verdict ? Font::kBold : Font::kLabel, column, top + kRowMargin, sheet);
  const double middle = (column.left + column.right) / 2;
  const double y = top + kRowMargin + height / 2;
  add_time(y, row.from - start, lanes, sheet);
  const Column label{middle - width / 2 - kLabelToArrow, middle + width / 2 + kLabelToArrow};
  if (from != to) add_arrow(row, from, to, y, label, lanes, sheet);
  return height + 2 * kRowMargin;
}

// A box beside the station, with what it prints or runs.
double draw_box(const Row& row, double top, Nanoseconds start, const Lanes& lanes, Sheet* sheet) {
  const bool is_call = row.kind == Row::Kind::kBoardCall;
  const Font font = is_call ? Font::kLabel : row.kind == Row::Kind::kOutput ? Font::kOutput : Font::kBold;
  const double left = lanes.station() + kStationToBox;
  const double room = lanes.ppt_server() - kSideGap - left - 2 * kBoxPadding;
  std::string text = row.text;
  if (row.times > 1) text += " x " + std::to_string(row.times) + " until " + until(row, start);
  double width = 0;
  double y = top + kRowMargin + 1;
  const auto width_of = font == Font::kOutput ? output_width : bold_label_width;
  for (const std::string& line : wrapped(text, room, width_of, kMaxOutputLines)) {
    width = std::max(width, add_line(line, font, left + kBoxPadding, y, sheet));
    y += kTextHeight;
  }
  const Box box{left, top + kRowMargin - 1, width + 2 * kBoxPadding, y + 2 - top - kRowMargin};
  const double middle = box.y + box.height / 2;
  sheet->areas.push_back({box, is_call                          ? Paint::kBoardCall
                               : row.kind == Row::Kind::kOutput ? Paint::kOutput
                                                                : Paint::kLaneHead});
  sheet->strokes.push_back({lanes.station(), middle, left, middle, is_call ? Pen::kBoard : Pen::kAxis});
  if (is_call) sheet->heads.push_back({left, middle, true, Pen::kBoard});
  add_time(middle, row.from - start, lanes, sheet);
  return box.bottom() + kRowMargin - top;
}

double draw_words(const Row& row, const std::string& text, double top, Nanoseconds start, const Lanes& lanes,
                  Sheet* sheet) {
  const Column column{lanes.innermost(), lanes.station()};
  const auto lines =
      wrapped(text, column.right - column.left - 2 * kSideGap, bold_label_width, kMaxLabelLines);
  add_label(lines, Font::kBold, column, top + kRowMargin, sheet);
  const double height = static_cast<double>(lines.size()) * kTextHeight + 2 * kRowMargin;
  if (row.kind != Row::Kind::kPause) add_time(top + height / 2, row.from - start, lanes, sheet);
  return height;
}

std::string fold_in_words(const Row& row, Nanoseconds start) {
  std::string text = "\xe2\x80\xa6 ";  // ...
  if (!row.text.empty()) {
    text += row.text + " until " + until(row, start);
    if (row.lost > 0) add_words(&text, std::to_string(row.lost) + " lost");
    return text;
  }
  if (row.group_from < row.from) text += "these rows ";
  return text + std::to_string(row.times) + " times until " + until(row, start) +
         (row.lost > 0 ? ", " + std::to_string(row.lost) + " lost" : "");
}

double draw_unit(const Row& row, double top, Nanoseconds start, const Lanes& lanes, Sheet* sheet) {
  const double left = lanes.innermost() + kSideGap;
  const Box box{left, top + kRowMargin - 1, lanes.station() - kSideGap - left, kTextHeight + 2};
  sheet->areas.push_back({box, Paint::kPassedRow});
  add_line(row.text, Font::kPassed, left + kBoxPadding, box.y + 1, sheet);
  add_line(row.facts.front(), Font::kLabel, lanes.station() + kStationToBox, box.y + 1, sheet);
  add_time(box.y + box.height / 2, row.from - start, lanes, sheet);
  return kTextHeight + 2 * kRowMargin;
}

}  // namespace

Box draw_band(const Row& row, double top, const Lanes& lanes, Sheet* sheet) {
  const double from = lanes.x(row.source);
  const double to = lanes.x(row.target);
  const Column column = column_of(from, to, lanes);
  const double left = column.left + kSideGap;
  const double right = column.right - kSideGap;
  const double room = right - left - 2 * kBoxPadding - kSideGap;
  double y = top + kRowMargin + 2;
  const auto add = [&](const std::string& text, Font font) {
    const auto width_of = font == Font::kBold ? bold_label_width : label_width;
    for (const std::string& line : wrapped(text, room, width_of, kMaxLabelLines)) {
      add_line(line, font, left + kBoxPadding, y, sheet);
      y += kTextHeight;
    }
  };
  add(row.text + lanes.address_of(row.source) + lanes.address_of(row.target),
      row.facts.empty() ? Font::kLabel : Font::kBold);
  for (const std::string& fact : row.facts) add(fact, Font::kLabel);
  const Box box{left, top + kRowMargin - 1, right - left, y + 3 - top - kRowMargin};
  sheet->areas.push_back({box, row.is_inferred ? Paint::kInferredBand : Paint::kBand});
  const bool to_the_right = to > left;
  const double middle = box.y + box.height / 2;
  if (from != to) add_shaft(to_the_right ? right : left, to, middle, Pen::kDatagram, lanes, sheet);
  if (from != to) sheet->heads.push_back({to, middle, to_the_right, Pen::kDatagram});
  return box;
}

double draw_row(const Row& row, double top, Nanoseconds start, const Lanes& lanes, Sheet* sheet) {
  switch (row.kind) {
    case Row::Kind::kArrow:
      return draw_arrow(row, top, start, lanes, sheet);
    case Row::Kind::kOutput:
    case Row::Kind::kBoardCall:
    case Row::Kind::kStationEnd:
      return draw_box(row, top, start, lanes, sheet);
    case Row::Kind::kUnit:
      return draw_unit(row, top, start, lanes, sheet);
    case Row::Kind::kFold:
      return draw_words(row, fold_in_words(row, start), top, start, lanes, sheet);
    case Row::Kind::kBand: {
      const Box box = draw_band(row, top, lanes, sheet);
      add_time(box.y + kTextHeight / 2 + 2, row.from - start, lanes, sheet);
      if (row.is_whole) add_time(box.bottom() - kTextHeight / 2 - 2, row.until - start, lanes, sheet);
      return box.bottom() + kRowMargin - top;
    }
    default:
      return draw_words(row, row.text, top, start, lanes, sheet);
  }
}

}  // namespace picture
