#include "picture/page.h"

#include <signal.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <optional>
#include <string>
#include <utility>

#include "picture/row_drawing.h"
#include "picture/words.h"

namespace picture {

namespace {

constexpr double kMargin = 24;
constexpr double kTitlePixelsPerLabelPixel = 26.0 / 13.0;
constexpr double kTitleHeight = 34;
constexpr double kLineHeight = 20;
constexpr double kGap = 14;
constexpr double kLaneHeadHeight = 44;
constexpr double kLaneHeadWidth = 132;
constexpr double kNarrowLaneHeadWidth = 88;  // the board's, beside the time axis
constexpr double kFootKeyWidth = 130;
constexpr std::size_t kMaxHeadLines = 3;
const std::string kNotKnown = "not known";
constexpr int kKilled = 128;  // plus the signal's number, as a shell says it

struct LaneName {
  Lane lane;
  const char* name;
  const char* addresses;
};
constexpr std::array<LaneName, 4> kLanes{{{Lane::kBoard, "board", ""},
                                          {Lane::kStation, "station", "the daemon"},
                                          {Lane::kUnit, "unit", "172.40.0.2"},
                                          {Lane::kPptServer, "PPT server", "172.30.0.254"}}};

double title_width(const std::string& text) {
  return bold_label_width(text) * kTitlePixelsPerLabelPixel;
}

double width_in(Text::Font font, const std::string& text) {
  switch (font) {
    case Text::Font::kLabel:
      return label_width(text);
    case Text::Font::kBold:
      return bold_label_width(text);
    case Text::Font::kOutput:
      return output_width(text);
    case Text::Font::kTitle:
      break;
  }
  return title_width(text);
}

// Wrapped text from (x, y) to the right margin. Returns where the next line begins.
double add_text(const std::string& text, Text::Font font, double x, double y, Sheet* sheet) {
  const auto width_of = font == Text::Font::kTitle    ? title_width
                        : font == Text::Font::kOutput ? output_width
                                                      : bold_label_width;
  const double height = font == Text::Font::kTitle ? kTitleHeight : kLineHeight;
  for (const std::string& line : wrapped(text, kSheetWidth - kMargin - x, width_of, kMaxHeadLines)) {
    sheet->texts.push_back({{x, y, width_in(font, line), height}, line, font, Text::Align::kLeft, false});
    y += height;
  }
  return y;
}

void add_middle(const std::string& text, Text::Font font, double middle, double y, Sheet* sheet) {
  const double width = width_in(font, text);
  sheet->texts.push_back(
      {{middle - width / 2, y, width, kTextHeight}, text, font, Text::Align::kMiddle, false});
}

std::string date_in_words(const RunRecord& run) {
  if (!run.start) return "";
  const auto moment = static_cast<std::time_t>(*run.start / 1000000);
  std::tm calendar = {};
  std::array<char, 64> text = {};
  if (gmtime_r(&moment, &calendar) == nullptr) return "";
  const std::size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S UTC", &calendar);
  return std::string(text.data(), length);
}

double add_legend(double y, Sheet* sheet) {
  constexpr double kSample = 44;
  constexpr std::array<std::pair<Pen, const char*>, 5> kEntries{{{Pen::kDatagram, "datagram"},
                                                                 {Pen::kVerdict, "verdict"},
                                                                 {Pen::kBroadcast, "broadcast"},
                                                                 {Pen::kTcp, "TCP"},
                                                                 {Pen::kBoard, "board command"}}};
  double x = kMargin;
  for (const auto& [pen, name] : kEntries) {
    const double middle = y + kTextHeight / 2;
    sheet->strokes.push_back({x, middle, x + kSample, middle, pen});
    sheet->heads.push_back({x + kSample, middle, true, pen});
    x += kSample + 8;
    sheet->texts.push_back(
        {{x, y, label_width(name), kTextHeight}, name, Text::Font::kLabel, Text::Align::kLeft, false});
    x += label_width(name) + 28;
  }
  return y + kLineHeight;
}

double add_head(const RunRecord& run, Sheet* sheet) {
  const std::string title = printable(run.title);
  double y = add_text(title.empty() ? "A run" : title, Text::Font::kTitle, kMargin, kMargin, sheet);
  const std::string name = printable(run.name);
  const std::string date = date_in_words(run);
  const std::string line = name + (name.empty() || date.empty() ? "" : ", ") + date;
  if (!line.empty()) y = add_text(line, Text::Font::kLabel, kMargin, y, sheet);
  const std::string command = printable(run.command);
  if (!command.empty()) y = add_text(command, Text::Font::kOutput, kMargin, y, sheet);
  return add_legend(y + kGap / 2, sheet) + kGap / 2;
}

double add_lane_heads(double y, Sheet* sheet) {
  for (const LaneName& lane : kLanes) {
    const double x = x_of(lane.lane);
    const double width = lane.lane == Lane::kBoard ? kNarrowLaneHeadWidth : kLaneHeadWidth;
    sheet->areas.push_back({{x - width / 2, y, width, kLaneHeadHeight}, Area::Paint::kLaneHead});
    const bool has_addresses = lane.addresses[0] != '\0';
    add_middle(lane.name, Text::Font::kBold, x, y + (has_addresses ? 5 : 14), sheet);
    if (has_addresses) add_middle(lane.addresses, Text::Font::kLabel, x, y + 23, sheet);
  }
  add_middle("seconds", Text::Font::kLabel, kAxisX / 2, y + 14, sheet);
  return y + kLaneHeadHeight;
}

void add_life_lines(double top, double bottom, Pen pen, Sheet* sheet) {
  for (const LaneName& lane : kLanes) {
    const double x = x_of(lane.lane);
    sheet->strokes.push_back({x, top, x, bottom, pen});
  }
  sheet->strokes.push_back({kAxisX, top, kAxisX, bottom, pen == Pen::kLifeLine ? Pen::kAxis : pen});
}

Microseconds start_of(const std::vector<Event>& rows, const RunRecord& run) {
  if (run.start) return *run.start;
  return rows.empty() ? 0 : rows.front().from;
}

// A cut hatches the test network from its own row to the last that begins before the cable is back.
void add_cuts(const std::vector<Event>& rows, Sheet* sheet) {
  for (std::size_t i = 0; i < rows.size(); ++i) {
    if (rows[i].kind != Event::Kind::kCut) continue;
    std::size_t last = i;
    while (last + 1 < rows.size() && rows[last + 1].from < rows[i].until) ++last;
    const double top = sheet->rows[i].y;
    const double bottom = sheet->rows[last].y + sheet->rows[last].height;
    const Box band{kStationX, top, kUnitX - kStationX, bottom - top};
    sheet->areas.insert(sheet->areas.begin(), Area{band, Area::Paint::kCut});
  }
}

double add_rows(const std::vector<Event>& rows, Microseconds start, double y, Sheet* sheet) {
  for (const Event& row : rows) {
    const double height = draw_row(row, y, start, sheet);
    sheet->rows.push_back({0, y, kSheetWidth, height});
    const bool is_pause = row.kind == Event::Kind::kPause;
    add_life_lines(y, y + height, is_pause ? Pen::kPausedLifeLine : Pen::kLifeLine, sheet);
    y += height;
  }
  add_cuts(rows, sheet);
  return y;
}

std::string last_verdict(const RunRecord& run) {
  constexpr char kIntroduction[] = "Cmd received: ";
  std::string verdict = "none";
  for (const TimedLine& line : run.station_lines) {
    if (line.text.rfind(kIntroduction, 0) == 0) verdict = line.text.substr(sizeof kIntroduction - 1);
  }
  return verdict;
}

double add_foot(const RunRecord& run, double y, Sheet* sheet) {
  const auto known = [](const std::string& value) { return value.empty() ? kNotKnown : value; };
  const std::array<std::pair<const char*, std::string>, 4> lines{
      {{"last verdict", last_verdict(run)},
       {"ppt_flag", known(run.ppt_flag)},
       {"exit status", run.exit_status ? in_words(*run.exit_status) : kNotKnown},
       {"judged", known(run.judged)}}};
  const double top = y;
  y += kGap;
  for (const auto& [key, value] : lines) {
    sheet->texts.push_back({{2 * kMargin, y, bold_label_width(key), kLineHeight},
                            key,
                            Text::Font::kBold,
                            Text::Align::kLeft,
                            false});
    y = add_text(printable(value), Text::Font::kLabel, 2 * kMargin + kFootKeyWidth, y, sheet);
  }
  y += kGap;
  sheet->areas.push_back({{kMargin, top, kSheetWidth - 2 * kMargin, y - top}, Area::Paint::kFoot});
  return y;
}

}  // namespace

Sheet page_of(const std::vector<Event>& rows, const RunRecord& run) {
  Sheet sheet;
  double y = add_head(run, &sheet);
  y = add_lane_heads(y, &sheet);
  add_life_lines(y, y + kGap, Pen::kLifeLine, &sheet);
  y = add_rows(rows, start_of(rows, run), y + kGap, &sheet);
  add_life_lines(y, y + kGap, Pen::kLifeLine, &sheet);
  y = add_lane_heads(y + kGap, &sheet);
  y = add_foot(run, y + kGap, &sheet);
  sheet.height = y + kMargin;
  return sheet;
}

std::string in_words(const ExitStatus& exit_status) {
  struct Meaning {
    ExitStatus of;
    const char* words;
  };
  static constexpr Meaning kMeanings[] = {
      {{2, 0}, "a final verdict or SIGINT ended the run"},
      {{1, 0}, "the TFTP port could not be bound, or -s was empty"},
      {{15, 0}, "SIGTERM"},
      {{0, SIGPIPE}, "SIGPIPE: the unit closed its command connection before its answer was sent"},
      {{0, SIGABRT}, "abort: no socket could be made, or a verdict name of fewer than eight characters came"},
      {{0, SIGKILL}, "SIGKILL"}};
  const int number = exit_status.signal == 0 ? exit_status.status : kKilled + exit_status.signal;
  for (const auto& [of, words] : kMeanings) {
    if (of.status == exit_status.status && of.signal == exit_status.signal)
      return std::to_string(number) + " (" + words + ")";
  }
  return std::to_string(number);
}

}  // namespace picture
