#include "picture/page.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <optional>
#include <string>
#include <utility>

#include "frames/words.h"
#include "picture/lanes.h"
#include "picture/progress.h"
#include "picture/row_drawing.h"
#include "picture/words.h"

namespace picture {

namespace {

using frames::counted;
using frames::printable;
using story::Reading;

constexpr double kMargin = 24;
constexpr double kTitleHeight = 34;
constexpr double kLineHeight = 20;
constexpr double kGap = 14;
constexpr double kSignHeight = 44;
constexpr double kSignPadding = 14;
constexpr double kLaneHeadHeight = 44;
constexpr double kLaneHeadWidth = 106;
constexpr double kTallPage = 1000;  // its lanes are named at the bottom too
constexpr double kKeyWidth = 110;
constexpr double kColumnMargin = 22;
constexpr double kEdgeWidth = 5;  // of a marked row
constexpr std::size_t kMaxHeadLines = 3;
constexpr std::size_t kMaxUntimedLines = 100;

// In the order of Mark.
constexpr Paint kSignPaints[] = {Paint::kNeither, Paint::kPassed, Paint::kFailed, Paint::kWrong};
constexpr Paint kRowPaints[] = {Paint::kPage, Paint::kPassedRow, Paint::kFailedRow, Paint::kWrongRow};
constexpr Font kMarkFonts[] = {Font::kBold, Font::kPassed, Font::kFailed, Font::kWrong};

std::size_t place_of(Mark mark) {
  return static_cast<std::size_t>(mark);
}

// Wrapped text from (x, y) to the right margin. Returns where the next line begins.
double add_text(const std::string& text, Font font, double x, double y, Sheet* sheet) {
  const auto title_width = [](const std::string& line) { return width_in(Font::kTitle, line); };
  const auto width_of = font == Font::kTitle    ? +title_width
                        : font == Font::kOutput ? output_width
                                                : bold_label_width;
  for (const std::string& line : wrapped(text, sheet->width - kMargin - x, width_of, kMaxHeadLines)) {
    add_line(line, font, x, y, sheet);
    y += font == Font::kTitle ? kTitleHeight : kLineHeight;
  }
  return y;
}

std::string date_in_words(Nanoseconds at) {
  if (at <= 0) return "";
  const auto moment = static_cast<std::time_t>(at / 1000000000);
  std::tm calendar = {};
  std::array<char, 64> text = {};
  if (gmtime_r(&moment, &calendar) == nullptr) return "";
  const std::size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S UTC", &calendar);
  return std::string(text.data(), length);
}

// What the record lacks, and what of it is not drawn; said once, here.
std::vector<std::string> warnings_of(const Reading& reading, const Choice& choice) {
  std::vector<std::string> warnings;
  if (reading.is_cut_short) warnings.emplace_back("The record breaks off: what came after it is not known.");
  if (!reading.has_frames)
    warnings.emplace_back("The record has no frames: what went over the networks is not known.");
  for (const story::Network& network : reading.networks) {
    if (network.dropped.value_or(0) == 0) continue;
    warnings.push_back("The kernel dropped " + counted(*network.dropped, "frame") + " of " +
                       (network.name.empty() ? "a network" : printable(network.name)) +
                       ": the record lacks them.");
  }
  if (reading.not_whole > 0) {
    warnings.push_back("The capture kept only a part of " + counted(reading.not_whole, "packet") +
                       ": what is said in the rest is not known.");
  }
  if (!reading.gaps.empty()) {
    const story::Gap& first = reading.gaps.front();
    const std::size_t further = reading.gaps.size() - 1;
    warnings.push_back("The record lacks something, at " + seconds(first.at - reading.first, 3) +
                       " s: " + printable(first.text) +
                       (further > 0 ? " (and " + counted(further, "further remark") + " below)" : ""));
  }
  if (reading.left_out > 0) {
    warnings.push_back(counted(reading.left_out, "thing") +
                       " left out: more happened than a picture has room for.");
  }
  if (choice.from || choice.until) {
    warnings.push_back("Drawn" + (choice.from ? " from " + seconds(*choice.from, 3) + " s" : "") +
                       (choice.until ? " until " + seconds(*choice.until, 3) + " s" : "") +
                       " of the run only.");
  }
  if (choice.unit)
    warnings.push_back("Drawn is only what concerns " + frames::dotted(*choice.unit) + ", or no unit.");
  return warnings;
}

// Signs one below the other, and beside them what they come from. Returns where they end.
double add_outcome(const Reading& reading, const Outcome& outcome, double y, Sheet* sheet) {
  double signs_end = y;
  double x = kMargin;
  for (const auto& [mark, words] : in_words(outcome)) {
    const double width =
        add_line(words, Font::kSign, kMargin + kSignPadding, signs_end + 5, sheet) + 2 * kSignPadding;
    sheet->areas.push_back({{kMargin, signs_end, width, kSignHeight}, kSignPaints[place_of(mark)]});
    x = std::max(x, kMargin + width + kMargin);
    signs_end += kSignHeight + 4;
    sheet->summary += (sheet->summary.empty() ? "" : ", ") + words;
  }
  std::vector<std::pair<const char*, std::string>> facts;
  facts.emplace_back("last verdict", outcome.last_verdict.empty() ? "none" : printable(outcome.last_verdict));
  facts.emplace_back("exit status",
                     reading.station_end ? story::in_words(*reading.station_end) : "not known");
  if (reading.run_end && !reading.run_end->ppt_flag.empty())
    facts.emplace_back("ppt_flag", printable(reading.run_end->ppt_flag));
  if (reading.run_end && !reading.run_end->judged.empty())
    facts.emplace_back("judged", printable(reading.run_end->judged));
  const record::RunBegins run = reading.run.value_or(record::RunBegins());
  std::string name = printable(run.name);
  add_words(&name, date_in_words(reading.first));
  if (!name.empty()) facts.emplace_back("run", name);
  if (!run.command.empty()) facts.emplace_back("command", printable(run.command));
  for (const auto& [key, value] : facts) {
    add_line(key, Font::kBold, x, y, sheet);
    y = add_text(value, Font::kLabel, x + kKeyWidth, y, sheet);
  }
  return std::max(y, signs_end);
}

// The legend: one sample after the other, with its meaning, of what is in the picture.
class Legend {
 public:
  Legend(double y, Sheet* sheet) : sheet_(sheet), y_(y) {}

  void add_arrow(Pen pen, const char* meaning, bool is_twice = false) {
    const double x = place(meaning);
    sheet_->strokes.push_back({x, middle(), x + kSample, middle(), pen});
    sheet_->heads.push_back({x + kSample, middle(), true, pen});
    if (is_twice) sheet_->heads.push_back({x + kSample - 9, middle(), true, pen});
  }
  void add_area(Paint paint, const char* meaning) {
    const double x = place(meaning);
    sheet_->areas.push_back({{x, y_ + 1, kSample, kTextHeight - 2}, paint});
  }
  void add_tick(Pen pen, const char* meaning) {
    const double x = place(meaning);
    sheet_->strokes.push_back({x + kSample - 14, middle(), x + kSample, middle(), pen});
  }
  void add_cross(const char* meaning) {
    const double x = place(meaning) + kSample - 8;
    picture::add_cross(x, middle(), sheet_);
  }
  double end() const { return x_ > kMargin ? y_ + kLineHeight : y_; }

 private:
  static constexpr double kSample = 38;

  double middle() const { return y_ + kTextHeight / 2; }
  double place(const char* meaning) {
    const double width = kSample + 8 + label_width(meaning);
    if (x_ > kMargin && x_ + width > sheet_->width - kMargin) {
      x_ = kMargin;
      y_ += kLineHeight;
    }
    const double x = x_;
    add_line(meaning, Font::kLabel, x + kSample + 8, y_, sheet_);
    x_ += width + 22;
    return x;
  }

  Sheet* const sheet_;
  double x_ = kMargin;
  double y_;
};

double add_legend(const std::vector<Row>& rows, const Reading& reading, double y, Sheet* sheet) {
  Legend legend(y, sheet);
  const auto any = [&rows](auto is) { return std::any_of(rows.begin(), rows.end(), is); };
  const auto has = [&any](Row::Kind kind) {
    return any([kind](const Row& row) { return row.kind == kind; });
  };
  const auto looks = [&any](Row::Look look) {
    return any([look](const Row& row) { return row.kind == Row::Kind::kArrow && row.look == look; });
  };
  if (looks(Row::Look::kDatagram)) legend.add_arrow(Pen::kDatagram, "datagram");
  if (looks(Row::Look::kVerdict)) legend.add_arrow(Pen::kVerdict, "verdict of the unit");
  if (looks(Row::Look::kBroadcast)) legend.add_arrow(Pen::kBroadcast, "broadcast");
  if (looks(Row::Look::kTcp)) legend.add_arrow(Pen::kTcp, "TCP connection");
  if (has(Row::Kind::kBand)) legend.add_area(Paint::kBand, "blocks of a file and their ACKs");
  if (any([](const Row& row) { return row.is_inferred; }))
    legend.add_area(Paint::kInferredBand, "the same, in part inferred");
  if (has(Row::Kind::kOutput)) legend.add_area(Paint::kOutput, "the station prints");
  if (has(Row::Kind::kBoardCall)) legend.add_area(Paint::kBoardCall, "the station runs on its board");
  if (any([](const Row& row) { return row.lost > 0 && row.kind == Row::Kind::kArrow; }))
    legend.add_cross("lost");
  if (any([](const Row& row) { return row.duplicated > 0 && row.kind == Row::Kind::kArrow; }))
    legend.add_arrow(Pen::kDatagram, "duplicated", true);
  const auto has_ticks = [&](auto of) {
    return any([&](const Row& row) {
      return row.kind == Row::Kind::kBand && !row.facts.empty() && of(reading.transfers[row.thread]) > 0;
    });
  };
  if (has_ticks([](const story::Transfer& one) { return one.data.lost + one.acks.lost; }))
    legend.add_tick(Pen::kLost, "a block or ACK lost");
  if (has_ticks([](const story::Transfer& one) { return one.data.duplicated + one.acks.duplicated; }))
    legend.add_tick(Pen::kDuplicated, "a block or ACK duplicated");
  if (has_ticks([](const story::Transfer& one) { return one.data.swapped + one.acks.swapped; }))
    legend.add_tick(Pen::kSwapped, "swapped with the next one");
  if (has_ticks([](const story::Transfer& one) { return one.data.again + one.acks.again; }))
    legend.add_tick(Pen::kAgain, "sent again");
  if (has(Row::Kind::kCut)) legend.add_area(Paint::kCut, "the cable is out");
  if (looks(Row::Look::kClosedPort)) legend.add_arrow(Pen::kClosedPort, "nobody listens on that port");
  if (looks(Row::Look::kHarmless)) {
    legend.add_arrow(
        Pen::kHarmless,
        "nobody listens there any more: harmless, the station does not await the ACK of a verdict");
  }
  return legend.end();
}

double add_head(const std::vector<Row>& rows, const Reading& reading, const Outcome& outcome,
                const Choice& choice, Sheet* sheet) {
  sheet->title =
      !reading.run || reading.run->title.empty() ? "A recorded run" : printable(reading.run->title);
  if (!choice.heading.empty()) sheet->title = choice.heading + ": " + sheet->title;
  double y = add_text(sheet->title, Font::kTitle, kMargin, kMargin - 8, sheet);
  y = add_outcome(reading, outcome, y + 6, sheet) + 4;
  for (const std::string& warning : warnings_of(reading, choice))
    y = add_text(warning, Font::kWrong, kMargin, y, sheet);
  const double bottom = add_legend(rows, reading, y + kGap / 2, sheet) + kGap / 2;
  sheet->legend = {0, y, sheet->width, bottom - y};
  return bottom;
}

double add_lane_heads(const Lanes& lanes, double y, Sheet* sheet) {
  for (const Lanes::Head& lane : lanes.heads()) {
    sheet->areas.push_back(
        {{lane.x - kLaneHeadWidth / 2, y, kLaneHeadWidth, kLaneHeadHeight}, Paint::kLaneHead});
    add_line(lane.name, Font::kBold, lane.x, y + (lane.address.empty() ? 14 : 5), sheet,
             Text::Align::kMiddle);
    if (!lane.address.empty())
      add_line(lane.address, Font::kOutput, lane.x, y + 23, sheet, Text::Align::kMiddle);
  }
  add_line("seconds", Font::kLabel, 8, y + 14, sheet);
  return y + kLaneHeadHeight;
}

void add_stretch(const Lanes& lanes, double top, double bottom, bool is_paused, Sheet* sheet) {
  const Pen pen = is_paused ? Pen::kPausedLifeLine : Pen::kLifeLine;
  for (const Lanes::Head& lane : lanes.heads()) sheet->strokes.push_back({lane.x, top, lane.x, bottom, pen});
  sheet->strokes.push_back({lanes.axis(), top, lanes.axis(), bottom, is_paused ? pen : Pen::kAxis});
}

void add_life_lines(const std::vector<Row>& rows, const Lanes& lanes, double top, double bottom,
                    Sheet* sheet) {
  for (std::size_t i = 0; i < rows.size(); ++i) {
    if (rows[i].kind != Row::Kind::kPause) continue;
    const Box& pause = sheet->rows[i];
    add_stretch(lanes, top, pause.y, false, sheet);
    add_stretch(lanes, pause.y, pause.bottom(), true, sheet);
    top = pause.bottom();
  }
  add_stretch(lanes, top, bottom, false, sheet);
}

// A cut hatches the test network from its own row to the last that begins before the cable is back.
void add_cuts(const std::vector<Row>& rows, const Lanes& lanes, Sheet* sheet) {
  for (std::size_t i = 0; i < rows.size(); ++i) {
    if (rows[i].kind != Row::Kind::kCut) continue;
    std::size_t last = i;
    while (last + 1 < rows.size() && rows[last + 1].from < rows[i].until) ++last;
    const double top = sheet->rows[i].y;
    const Box band{lanes.outermost(), top, lanes.station() - lanes.outermost(),
                   sheet->rows[last].bottom() - top};
    sheet->areas.insert(sheet->areas.begin(), Area{band, Paint::kCut});
  }
}

// What the row decides, in the column that it leaves free, on a ground of its own. Returns the row's height.
double add_mark(const Row& row, double top, double height, const Lanes& lanes, Sheet* sheet) {
  const double from = lanes.x(row.source);
  const double to = lanes.target_x(row);
  const bool is_right = row.kind == Row::Kind::kOutput || row.kind == Row::Kind::kStationEnd ||
                        std::max(from, to) > lanes.station();
  const bool is_both = is_right && std::min(from, to) < lanes.station();
  const double left = is_right ? lanes.innermost() : lanes.station();
  const double right = is_right ? lanes.station() : lanes.ppt_server();
  const auto lines =
      wrapped(row.mark_words, right - left - 2 * kColumnMargin, bold_label_width, kMaxHeadLines);
  const double space = height - static_cast<double>(lines.size()) * kTextHeight;
  double y = top + (is_both ? height : std::max(kRowMargin, space / 2));
  for (const std::string& line : lines) {
    add_line(line, kMarkFonts[place_of(row.mark)], left + kColumnMargin, y, sheet);
    y += kTextHeight;
  }
  height = std::max(height, y + kRowMargin - top);
  const Box ground{lanes.axis(), top, sheet->width - lanes.axis(), height};
  const Box edge{lanes.axis(), top, kEdgeWidth, height};
  sheet->areas.insert(sheet->areas.begin(), {Area{ground, kRowPaints[place_of(row.mark)]},
                                             Area{edge, kSignPaints[place_of(row.mark)]}});
  return height;
}

// A line from the first row of the group to the row that says how often it comes.
void add_group(const std::vector<Row>& rows, std::size_t fold, const Lanes& lanes, Sheet* sheet) {
  std::size_t first = fold;
  while (first > 0 && rows[first - 1].from >= rows[fold].group_from) --first;
  const double x = lanes.axis() + 12;
  const double top = sheet->rows[first].y + kRowMargin;
  const double bottom = sheet->rows[fold].bottom() - kRowMargin;
  sheet->strokes.push_back({x, top, x, bottom, Pen::kGroup});
  sheet->strokes.push_back({x, top, x + 6, top, Pen::kGroup});
  sheet->strokes.push_back({x, bottom, x + 6, bottom, Pen::kGroup});
}

double add_rows(const std::vector<Row>& rows, const Reading& reading, const Lanes& lanes, double y,
                Sheet* sheet) {
  for (std::size_t i = 0; i < rows.size(); ++i) {
    double height = draw_row(rows[i], y, reading.first, lanes, sheet);
    if (rows[i].mark != Mark::kUnmarked) height = add_mark(rows[i], y, height, lanes, sheet);
    sheet->rows.push_back({0, y, sheet->width, height});
    if (rows[i].kind == Row::Kind::kFold) add_group(rows, i, lanes, sheet);
    y += height;
  }
  add_cuts(rows, lanes, sheet);
  add_progress(rows, reading, lanes, sheet);
  return y;
}

// Lines of which is not known when the station printed them.
double add_untimed_lines(const Reading& reading, double y, Sheet* sheet) {
  if (reading.untimed_lines.empty()) return y;
  y = add_text("The station printed, without a time:", Font::kBold, kMargin, y + kGap, sheet);
  const std::size_t count = std::min(reading.untimed_lines.size(), kMaxUntimedLines);
  for (std::size_t i = 0; i < count; ++i) {
    y = add_text(printable(reading.untimed_lines[i].text), Font::kOutput, kMargin, y, sheet);
  }
  const std::size_t more = reading.untimed_lines.size() - count;
  return more == 0 ? y : add_text("and " + counted(more, "further line"), Font::kLabel, kMargin, y, sheet);
}

}  // namespace

Sheet page_of(const std::vector<Row>& rows, const Reading& reading, const Outcome& outcome,
              const Choice& choice) {
  const Lanes lanes(reading, rows);
  Sheet sheet;
  sheet.width = lanes.width();
  const double head = add_head(rows, reading, outcome, choice, &sheet);
  const double top = add_lane_heads(lanes, head, &sheet);
  sheet.lanes = {0, head, sheet.width, top - head};
  double y = add_rows(rows, reading, lanes, top + kGap, &sheet) + kGap;
  add_life_lines(rows, lanes, top, y, &sheet);
  if (y > kTallPage) y = add_lane_heads(lanes, y, &sheet);
  sheet.height = add_untimed_lines(reading, y, &sheet) + kMargin;
  return sheet;
}

}  // namespace picture
