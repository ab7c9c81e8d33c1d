#include "picture/words.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace picture {

namespace {

constexpr std::size_t kMaxBytes = 300;
constexpr double kFontPixels = 13;
constexpr double kMonospaceEm = 0.603;
constexpr double kBoldFactor = 1.13;
constexpr char kHexDigits[] = "0123456789abcdef";

std::string escaped(char letter) {
  const auto code = static_cast<unsigned char>(letter);
  if (code >= 0x20 && code < 0x7f) return std::string(1, letter);
  return std::string("\\x") + kHexDigits[code >> 4] + kHexDigits[code & 0xf];
}

std::string escaped_in_quotes(char letter) {
  switch (letter) {
    case '\0':
      return "\\0";
    case '\r':
      return "\\r";
    case '\n':
      return "\\n";
    default:
      return escaped(letter);
  }
}

std::string each(std::string_view bytes, std::string (*translate)(char)) {
  std::string text;
  for (const char letter : bytes.substr(0, kMaxBytes)) text += translate(letter);
  return bytes.size() > kMaxBytes ? text + "..." : text;
}

bool is_one_of(char letter, std::string_view letters) {
  return letters.find(letter) != std::string_view::npos;
}

double em_of(char letter) {
  if (is_one_of(letter, "mwMW@%")) return 1.0;
  if (is_one_of(letter, "ijlItfr.,:;'|!()[]/\\ ")) return 0.42;
  return letter >= 'A' && letter <= 'Z' ? 0.79 : 0.65;
}

// Where to break a line of which `fitting` letters fit: after the last blank, or in a word that fills it.
std::size_t break_in(const std::string& text, std::size_t fitting) {
  const std::size_t blank = text.rfind(' ', fitting);
  return blank == std::string::npos || blank == 0 ? fitting : blank;
}

}  // namespace

std::string printable(std::string_view bytes) {
  return each(bytes, escaped);
}

std::string quoted(std::string_view bytes) {
  return "\"" + each(bytes, escaped_in_quotes) + "\"";
}

std::string counted(std::size_t count, const std::string& thing) {
  return std::to_string(count) + " " + thing + (count == 1 ? "" : "s");
}

std::string decimal(double number, int decimals) {
  double scale = 1;
  for (int i = 0; i < decimals; ++i) scale *= 10;
  const long long scaled = std::llround(number * scale);
  std::string digits = std::to_string(std::llabs(scaled));
  const auto places = static_cast<std::size_t>(decimals);
  if (digits.size() <= places) digits.insert(0, places + 1 - digits.size(), '0');
  if (places > 0) digits.insert(digits.size() - places, ".");
  return (scaled < 0 ? "-" : "") + digits;
}

std::string seconds(Microseconds time, int decimals) {
  return decimal(static_cast<double>(time) / 1e6, decimals);
}

std::vector<std::string> wrapped(const std::string& text, double width,
                                 double (*width_of)(const std::string&), std::size_t max_lines) {
  std::vector<std::string> lines;
  std::string rest = text;
  while (width_of(rest) > width) {
    std::size_t fitting = 1;
    while (fitting < rest.size() && width_of(rest.substr(0, fitting + 1)) <= width) ++fitting;
    const std::size_t end = break_in(rest, fitting);
    lines.push_back(rest.substr(0, end));
    if (lines.size() == max_lines) {
      lines.back() = lines.back().substr(0, std::max<std::size_t>(end, 4) - 3) + "...";
      return lines;
    }
    rest.erase(0, end + (rest[end] == ' ' ? 1 : 0));
  }
  lines.push_back(rest);
  return lines;
}

double label_width(const std::string& text) {
  double ems = 0;
  for (const char letter : text) ems += em_of(letter);
  return ems * kFontPixels;
}

double bold_label_width(const std::string& text) {
  return label_width(text) * kBoldFactor;
}

double output_width(const std::string& text) {
  return static_cast<double>(text.size()) * kMonospaceEm * kFontPixels;
}

}  // namespace picture
