#include "picture/sheet.h"

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

}  // namespace picture
