#include "picture/sheet.h"

#include <algorithm>

#include "picture/words.h"

namespace picture {

namespace {

constexpr double kLabelPixels = 13;
constexpr double kTitlePixels = 22;
constexpr double kSignPixels = 26;
constexpr double kLargeHeight = 34;

bool is_large(Font font) {
  return font == Font::kTitle || font == Font::kSign;
}

}  // namespace

double width_in(Font font, const std::string& text) {
  if (font == Font::kLabel) return label_width(text);
  if (font == Font::kOutput) return output_width(text);
  const double pixels = font == Font::kTitle  ? kTitlePixels
                        : font == Font::kSign ? kSignPixels
                                              : kLabelPixels;
  return bold_label_width(text) * pixels / kLabelPixels;
}

double add_line(const std::string& line, Font font, double x, double y, Sheet* sheet, Text::Align align) {
  const double width = width_in(font, line);
  const double left = align == Text::Align::kLeft     ? x
                      : align == Text::Align::kMiddle ? x - width / 2
                                                      : x - width;
  sheet->texts.push_back({{left, y, width, is_large(font) ? kLargeHeight : kTextHeight}, line, font, align});
  return width;
}

void add_cross(double x, double y, Sheet* sheet) {
  constexpr double kR = kCrossRadius;
  sheet->strokes.push_back({x - kR, y - kR, x + kR, y + kR, Pen::kLost});
  sheet->strokes.push_back({x - kR, y + kR, x + kR, y - kR, Pen::kLost});
}

void put_beside(const Sheet& more, Sheet* sheet) {
  const double x = sheet->width;
  const auto moved = [x](const auto& all, auto move, auto* to) {
    for (auto one : all) {
      move(&one, x);
      to->push_back(one);
    }
  };
  const auto move_box = [](auto* one, double by) { one->box.x += by; };
  const auto move_point = [](auto* one, double by) { one->x += by; };
  const auto move_line = [](Stroke* one, double by) {
    one->x1 += by;
    one->x2 += by;
  };
  moved(more.areas, move_box, &sheet->areas);
  moved(more.strokes, move_line, &sheet->strokes);
  moved(more.hops, move_point, &sheet->hops);
  moved(more.heads, move_point, &sheet->heads);
  moved(more.texts, move_box, &sheet->texts);
  sheet->width += more.width;
  sheet->height = std::max(sheet->height, more.height);
  sheet->strokes.push_back({x, 0, x, sheet->height, Pen::kAxis});
  sheet->title += ", beside " + more.title;
  sheet->summary += "; on the right: " + more.summary;
}

}  // namespace picture
