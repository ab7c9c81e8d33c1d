#include "picture/svg.h"

#include <string_view>

#include "picture/words.h"

namespace picture {

namespace {

constexpr double kBaselineBelowMiddle = 4.6;
constexpr double kTitleBaselineBelowMiddle = 9;

constexpr char kStyle[] =
    "<style>\n"
    "text { font: 13px 'DejaVu Sans', Verdana, Arial, sans-serif; fill: #111; white-space: pre }\n"
    ".bold { font-weight: bold }\n"
    ".title { font-size: 26px; font-weight: bold }\n"
    ".output { font-family: 'DejaVu Sans Mono', 'Liberation Mono', monospace }\n"
    "line, path { fill: none; stroke: #111; stroke-width: 1.6 }\n"
    ".axis { stroke: #555; stroke-width: 1 }\n"
    ".life { stroke: #555; stroke-width: 1.2 }\n"
    ".paused { stroke: #555; stroke-width: 1.2; stroke-dasharray: 2 5 }\n"
    ".lost { stroke: #a00000; stroke-width: 2 }\n"
    ".again { stroke: #111; stroke-width: 1.2 }\n"
    ".datagram { stroke: #14457a }\n"
    ".verdict { stroke: #111; stroke-width: 3.4 }\n"
    ".broadcast { stroke: #14457a; stroke-width: 2.2; stroke-dasharray: 2 4 }\n"
    ".tcp { stroke: #1d5c2e; stroke-dasharray: 10 4 }\n"
    ".board { stroke: #6b3a00; stroke-dasharray: 12 3 2 3 }\n"
    ".unreachable { stroke: #a00000; stroke-dasharray: 5 4 }\n"
    "polygon { fill: #111; stroke: none !important }\n"
    "polygon.datagram, polygon.broadcast { fill: #14457a }\n"
    "polygon.tcp { fill: #1d5c2e }\n"
    "polygon.board { fill: #6b3a00 }\n"
    "polygon.unreachable { fill: #a00000 }\n"
    "rect { stroke: #555; stroke-width: 1 }\n"
    ".white { fill: #fff; stroke: none }\n"
    ".note { fill: #fbf6e2 }\n"
    ".bundle { fill: #dce8f4; stroke: #14457a; stroke-width: 1.4 }\n"
    ".cut { fill: url(#hatch) }\n"
    ".lane { fill: #eee; stroke: #333; stroke-width: 1.4 }\n"
    ".foot { fill: #fff; stroke: #111; stroke-width: 1.6 }\n"
    "</style>\n"
    "<defs><pattern id=\"hatch\" width=\"10\" height=\"10\" patternUnits=\"userSpaceOnUse\" "
    "patternTransform=\"rotate(45)\"><line x1=\"0\" y1=\"0\" x2=\"0\" y2=\"10\" "
    "style=\"stroke: #999; stroke-width: 3\"/></pattern></defs>\n";

// In the orders of the enumerations.
constexpr const char* kPenNames[] = {"axis",    "life",      "paused", "lost",  "again",      "datagram",
                                     "verdict", "broadcast", "tcp",    "board", "unreachable"};
constexpr const char* kPaintNames[] = {"cut", "bundle", "note", "lane", "foot"};
constexpr const char* kFontClasses[] = {"", " class=\"bold\"", " class=\"output\"", " class=\"title\""};

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
  return std::string("<path class=\"") + name_of(hop.pen) + "\" style=\"stroke-dasharray: none\" d=\"M " +
         decimal(hop.x - kHopRadius, 1) + " " + decimal(hop.y, 1) + " A " + radius + " " + radius +
         " 0 0 1 " + decimal(hop.x + kHopRadius, 1) + " " + decimal(hop.y, 1) + "\"/>\n";
}

std::string triangle(const Head& head) {
  const double length = head.pen == Pen::kVerdict ? 17 : 10;
  const double half_width = head.pen == Pen::kVerdict ? 8 : 5;
  const double back = head.x + (head.to_the_right ? -length : length);
  const auto point = [](double x, double y) { return decimal(x, 1) + "," + decimal(y, 1) + " "; };
  return std::string("<polygon class=\"") + name_of(head.pen) + "\" points=\"" + point(head.x, head.y) +
         point(back, head.y - half_width) + point(back, head.y + half_width) + "\"/>\n";
}

std::string escaped(std::string_view text) {
  std::string result;
  for (const char letter : text) {
    switch (letter) {
      case '&':
        result += "&amp;";
        break;
      case '<':
        result += "&lt;";
        break;
      case '>':
        result += "&gt;";
        break;
      default:
        result += letter;
    }
  }
  return result;
}

std::string written(const Text& text) {
  const Box& box = text.box;
  const double middle = box.y + box.height / 2;
  const double y =
      middle + (text.font == Text::Font::kTitle ? kTitleBaselineBelowMiddle : kBaselineBelowMiddle);
  std::string place = attribute("x", box.x);
  if (text.align == Text::Align::kMiddle) {
    place = attribute("x", box.x + box.width / 2) + " text-anchor=\"middle\"";
  } else if (text.align == Text::Align::kRight) {
    place = attribute("x", box.x + box.width) + " text-anchor=\"end\"";
  }
  return (text.on_white ? rectangle(box, "white") : "") + "<text" +
         kFontClasses[static_cast<std::size_t>(text.font)] + place + attribute("y", y) + ">" +
         escaped(text.text) + "</text>\n";
}

}  // namespace

std::string svg_of(const Sheet& sheet) {
  std::string svg = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<svg xmlns=\"http://www.w3.org/2000/svg\"" +
                    attribute("width", kSheetWidth) + attribute("height", sheet.height) + " viewBox=\"0 0 " +
                    decimal(kSheetWidth, 0) + " " + decimal(sheet.height, 1) + "\">\n" + kStyle +
                    rectangle({0, 0, kSheetWidth, sheet.height}, "white");
  for (const Area& area : sheet.areas)
    svg += rectangle(area.box, kPaintNames[static_cast<std::size_t>(area.paint)]);
  for (const Stroke& stroke : sheet.strokes) svg += line(stroke);
  for (const Hop& hop : sheet.hops) svg += half_circle(hop);
  for (const Head& head : sheet.heads) svg += triangle(head);
  for (const Text& text : sheet.texts) svg += written(text);
  return svg + "</svg>\n";
}

}  // namespace picture
