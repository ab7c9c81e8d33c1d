#include "picture/svg.h"

#include <algorithm>
#include <iterator>
#include <string_view>

#include "frames/words.h"
#include "picture/words.h"

namespace picture {

namespace {

constexpr double kBaselineBelowMiddle = 4.6;
constexpr double kLargeBaselineBelowMiddle = 9;

// What has a colour: how, in light surroundings and in dark ones.
struct Tone {
  const char* selector;
  const char* property;
  const char* light;
  const char* dark;
};
constexpr Tone kTones[] = {
    {"text", "fill", "#111", "#e6e6e6"},
    {"rect.page", "fill", "#fff", "#14171a"},
    {"line, path", "stroke", "#111", "#e6e6e6"},
    {".axis, .life, .paused", "stroke", "#666", "#8b9096"},
    {".group", "stroke", "#666", "#a5abb2"},
    {"polygon", "fill", "#111", "#e6e6e6"},
    {".datagram, .broadcast", "stroke", "#14457a", "#8ab8ec"},
    {"polygon.datagram, polygon.broadcast", "fill", "#14457a", "#8ab8ec"},
    {".tcp", "stroke", "#1d5c2e", "#7ccb92"},
    {"polygon.tcp", "fill", "#1d5c2e", "#7ccb92"},
    {".board", "stroke", "#6b3a00", "#e0a867"},
    {"polygon.board", "fill", "#6b3a00", "#e0a867"},
    {".lost, .closed", "stroke", "#a00000", "#ff8a80"},
    {"polygon.closed", "fill", "#a00000", "#ff8a80"},
    {".duplicated", "stroke", "#7a1f8a", "#dc9cf0"},
    {".swapped", "stroke", "#8a6200", "#e6bd55"},
    {".harmless", "stroke", "#6a6f75", "#9aa0a6"},
    {"polygon.harmless", "fill", "#6a6f75", "#9aa0a6"},
    {"rect.output", "fill", "#fbf6e2", "#2c2a20"},
    {"rect.call", "fill", "#f7ebdc", "#33281b"},
    {"rect.lane", "fill", "#eee", "#2a2e33"},
    {"rect.band, rect.inferred", "fill", "#dce8f4", "#1b2c3d"},
    {"rect.band, rect.inferred", "stroke", "#14457a", "#8ab8ec"},
    {"rect.passed", "fill", "#1a6b2f", "#1f7a37"},
    {"rect.failed", "fill", "#a01818", "#b3261e"},
    {"rect.wrong", "fill", "#7a3d00", "#8a4a08"},
    {"rect.neither", "fill", "#4a4f55", "#5a6068"},
    {"text.sign", "fill", "#fff", "#fff"},
    {"rect.passed-row", "fill", "#dff3e3", "#16301d"},
    {"rect.failed-row", "fill", "#fbe1df", "#3d1917"},
    {"rect.wrong-row", "fill", "#fbead6", "#3a2712"},
    {"text.passed", "fill", "#14591f", "#86dc9c"},
    {"text.failed", "fill", "#8c1212", "#ff9c93"},
    {"text.wrong", "fill", "#6b3500", "#f2b77a"},
    {".hatch", "stroke", "#ddd", "#33383d"},
};

constexpr char kShapes[] =
    "text { font: 13px 'DejaVu Sans', Verdana, Arial, sans-serif; white-space: pre }\n"
    ".bold, text.passed, text.failed, text.wrong { font-weight: bold }\n"
    ".title { font-size: 22px; font-weight: bold }\n"
    ".sign { font-size: 26px; font-weight: bold }\n"
    "text.output { font: 12px 'DejaVu Sans Mono', 'Liberation Mono', monospace }\n"
    "line, path { fill: none; stroke-width: 1.6 }\n"
    "rect, polygon { stroke: none }\n"
    "rect.output, rect.call, rect.lane { stroke: #777; stroke-width: 1 }\n"
    "rect.call { stroke-dasharray: 8 3 2 3 }\n"
    "rect.band, rect.inferred { stroke-width: 1.4 }\n"
    "rect.inferred { stroke-dasharray: 6 4 }\n"
    "rect.hatched { fill: url(#hatch) }\n"
    ".axis { stroke-width: 1 }\n"
    ".life, .paused { stroke-width: 1.2 }\n"
    ".paused { stroke-dasharray: 2 5 }\n"
    ".lost, .duplicated, .swapped { stroke-width: 2 }\n"
    ".again { stroke-width: 1.2 }\n"
    ".group { stroke-width: 1.2 }\n"
    ".verdict { stroke-width: 3.2 }\n"
    ".broadcast { stroke-width: 2.2; stroke-dasharray: 2 4 }\n"
    ".tcp { stroke-dasharray: 10 4 }\n"
    ".board { stroke-dasharray: 12 3 2 3 }\n"
    ".closed, .harmless { stroke-dasharray: 5 4 }\n"
    "path { stroke-dasharray: none !important }\n"
    ".hatch { stroke-width: 3 }\n"
    "polygon { stroke: none !important }\n";

constexpr char kHatch[] =
    "<defs><pattern id=\"hatch\" width=\"10\" height=\"10\" patternUnits=\"userSpaceOnUse\" "
    "patternTransform=\"rotate(45)\"><line class=\"hatch\" x1=\"0\" y1=\"0\" x2=\"0\" y2=\"10\"/>"
    "</pattern></defs>\n";

// In the orders of the enumerations.
constexpr const char* kPenNames[] = {"axis",       "life",    "paused",   "lost",     "again",
                                     "duplicated", "swapped", "datagram", "verdict",  "broadcast",
                                     "tcp",        "board",   "closed",   "harmless", "group"};
constexpr const char* kPaintNames[] = {"page",    "hatched",    "band",       "inferred", "output",
                                       "call",    "lane",       "passed",     "failed",   "wrong",
                                       "neither", "passed-row", "failed-row", "wrong-row"};
constexpr const char* kFontClasses[] = {"", "bold", "output", "title", "sign", "passed", "failed", "wrong"};

const char* name_of(Pen pen) {
  return kPenNames[static_cast<std::size_t>(pen)];
}

// An attribute with a number.
std::string attribute(const char* name, double value) {
  return std::string(" ") + name + "=\"" + decimal(value, 1) + "\"";
}

std::string rectangle(const Box& box, const char* style) {
  return std::string("<rect class=\"") + style + "\"" + attribute("x", box.x) + attribute("y", box.y) +
         attribute("width", box.width) + attribute("height", box.height) + "/>\n";
}

std::string line(const Stroke& stroke) {
  return std::string("<line class=\"") + name_of(stroke.pen) + "\"" + attribute("x1", stroke.x1) +
         attribute("y1", stroke.y1) + attribute("x2", stroke.x2) + attribute("y2", stroke.y2) + "/>\n";
}

std::string half_circle(const Hop& hop) {
  const std::string radius = decimal(kHopRadius, 1);
  return std::string("<path class=\"") + name_of(hop.pen) + "\" d=\"M " + decimal(hop.x - kHopRadius, 1) +
         " " + decimal(hop.y, 1) + " A " + radius + " " + radius + " 0 0 1 " +
         decimal(hop.x + kHopRadius, 1) + " " + decimal(hop.y, 1) + "\"/>\n";
}

std::string triangle(const Head& head) {
  const double length = head.pen == Pen::kVerdict ? 15 : 10;
  const double half_width = head.pen == Pen::kVerdict ? 7 : 5;
  const double back = head.x + (head.to_the_right ? -length : length);
  const auto point = [](double x, double y) { return decimal(x, 1) + "," + decimal(y, 1) + " "; };
  return std::string("<polygon class=\"") + name_of(head.pen) + "\" points=\"" + point(head.x, head.y) +
         point(back, head.y - half_width) + point(back, head.y + half_width) + "\"/>\n";
}

std::string written(const Text& text) {
  const Box& box = text.box;
  const bool is_large = text.font == Font::kTitle || text.font == Font::kSign;
  const double y = box.y + box.height / 2 + (is_large ? kLargeBaselineBelowMiddle : kBaselineBelowMiddle);
  std::string place = attribute("x", box.x);
  if (text.align == Text::Align::kMiddle) {
    place = attribute("x", box.x + box.width / 2) + " text-anchor=\"middle\"";
  } else if (text.align == Text::Align::kRight) {
    place = attribute("x", box.right()) + " text-anchor=\"end\"";
  }
  const std::string font = kFontClasses[static_cast<std::size_t>(text.font)];
  return "<text" + (font.empty() ? "" : " class=\"" + font + "\"") + place + attribute("y", y) + ">" +
         frames::markup(text.text) + "</text>\n";
}

// What of it stands between two heights. A line that goes on is cut there.
Sheet part_of(const Sheet& whole, double top, double bottom) {
  const auto keep = [top, bottom](const auto& all, auto above, auto below, auto* kept) {
    std::copy_if(all.begin(), all.end(), std::back_inserter(*kept),
                 [&](const auto& one) { return above(one) < bottom && below(one) > top; });
  };
  Sheet part;
  const auto box_top = [](const auto& one) { return one.box.y; };
  const auto box_bottom = [](const auto& one) { return one.box.bottom(); };
  const auto at = [](const auto& one) { return one.y; };
  keep(whole.areas, box_top, box_bottom, &part.areas);
  keep(
      whole.strokes, [](const Stroke& one) { return std::min(one.y1, one.y2); },
      [](const Stroke& one) { return std::max(one.y1, one.y2) + 0.1; }, &part.strokes);
  keep(whole.hops, at, at, &part.hops);
  keep(whole.heads, at, at, &part.heads);
  keep(whole.texts, box_top, box_bottom, &part.texts);
  for (Stroke& stroke : part.strokes) {
    if (stroke.x1 != stroke.x2) continue;
    stroke.y1 = std::max(stroke.y1, top);
    stroke.y2 = std::min(stroke.y2, bottom);
  }
  return part;
}

std::string drawn(const Sheet& sheet) {
  std::string svg;
  for (const Area& area : sheet.areas)
    svg += rectangle(area.box, kPaintNames[static_cast<std::size_t>(area.paint)]);
  for (const Stroke& stroke : sheet.strokes) svg += line(stroke);
  for (const Hop& hop : sheet.hops) svg += half_circle(hop);
  for (const Head& head : sheet.heads) svg += triangle(head);
  for (const Text& text : sheet.texts) svg += written(text);
  return svg;
}

std::string size_of(const Box& box) {
  return attribute("width", box.width) + attribute("height", box.height) + " viewBox=\"" + decimal(box.x, 1) +
         " " + decimal(box.y, 1) + " " + decimal(box.width, 1) + " " + decimal(box.height, 1) + "\"";
}

}  // namespace

std::string style_sheet() {
  std::string light;
  std::string dark;
  for (const Tone& tone : kTones) {
    const std::string begin = std::string(tone.selector) + " { " + tone.property + ": ";
    light += begin + tone.light + " }\n";
    dark += begin + tone.dark + " }\n";
  }
  return kShapes + light + "@media (prefers-color-scheme: dark) {\n" + dark + "}\n";
}

std::string svg_of(const Sheet& sheet) {
  const Box whole{0, 0, sheet.width, sheet.height};
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<svg xmlns=\"http://www.w3.org/2000/svg\"" +
         size_of(whole) + " role=\"img\" aria-labelledby=\"title summary\">\n<title id=\"title\">" +
         frames::markup(sheet.title) + "</title>\n<desc id=\"summary\">" + frames::markup(sheet.summary) +
         "</desc>\n<style>\n" + style_sheet() + "</style>\n" + kHatch + rectangle(whole, "page") +
         drawn(sheet) + "</svg>\n";
}

std::string strip_of(const Sheet& sheet, const Box& part) {
  return "<svg" + size_of(part) + " aria-hidden=\"true\">\n" + drawn(part_of(sheet, part.y, part.bottom())) +
         "</svg>";
}

std::string shared_by_strips() {
  return std::string("<svg class=\"shared\" width=\"0\" height=\"0\" aria-hidden=\"true\">") + kHatch +
         "</svg>";
}

}  // namespace picture
