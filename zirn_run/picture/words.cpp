#include "picture/words.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <string_view>

namespace picture {

namespace {

constexpr double kLabelPixels = 13;
constexpr double kOutputPixels = 12;
constexpr double kMonospaceEm = 0.603;
constexpr double kKibibyte = 1024;

bool continues_letter(char byte) {
  return (static_cast<unsigned char>(byte) & 0xc0U) == 0x80;
}

// Letters of about the same width, and that, in ems.
struct Letters {
  std::string_view letters;
  double regular;
  double bold;
};
constexpr Letters kWidths[] = {{"'ijl", 0.28, 0.35},     {"IJ ,.", 0.32, 0.38},     {"/:;\\|", 0.34, 0.4},
                               {"f-", 0.37, 0.44},       {"()[]", 0.39, 0.46},      {"t!r", 0.42, 0.5},
                               {"\"*_`", 0.5, 0.53},     {"szcLFkvxy?", 0.6, 0.69}, {"KAVXZBRC", 0.7, 0.78},
                               {"UNHDGOQ&", 0.79, 0.88}, {"w#+<=>^~", 0.84, 0.93},  {"M%", 0.95, 1.01},
                               {"mW@", 1.0, 1.11}};
constexpr Letters kOther = {"", 0.64, 0.74};

// Of a letter beyond ASCII its first byte counts.
double em_of(char letter, double Letters::*weight) {
  const auto code = static_cast<unsigned char>(letter);
  if (code >= 0x80) return code >= 0xf0 ? 1.4 : code >= 0xc0 ? 1.05 : 0;
  for (const Letters& group : kWidths) {
    if (group.letters.find(letter) != std::string_view::npos) return group.*weight;
  }
  return kOther.*weight;
}

double width_of(const std::string& text, double Letters::*weight) {
  double ems = 0;
  for (const char letter : text) ems += em_of(letter, weight);
  return ems * kLabelPixels;
}

// Where to break a line of which `fitting` bytes fit: after the last blank, or in a word that fills it, but in no
// letter.
std::size_t break_in(const std::string& text, std::size_t fitting) {
  const std::size_t blank = text.rfind(' ', fitting);
  if (blank != std::string::npos && blank != 0) return blank;
  std::size_t end = fitting;
  while (end > 0 && continues_letter(text[end])) --end;
  if (end > 0) return end;
  for (end = 1; end < text.size() && continues_letter(text[end]);) ++end;
  return end;
}

}  // namespace

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

std::string seconds(Nanoseconds time, int decimals) {
  return decimal(static_cast<double>(time) / 1e9, decimals);
}

std::string size_in_words(double bytes) {
  if (bytes < kKibibyte) return decimal(bytes, 0) + (decimal(bytes, 0) == "1" ? " byte" : " bytes");
  const double kibibytes = bytes / kKibibyte;
  return kibibytes < kKibibyte ? decimal(kibibytes, 1) + " KiB" : decimal(kibibytes / kKibibyte, 1) + " MiB";
}

void add_words(std::string* text, const std::string& words) {
  if (!words.empty()) *text += (text->empty() ? "" : ", ") + words;
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
    rest.erase(0, end + (rest[end] == ' ' ? 1 : 0));
    if (lines.size() < max_lines || rest.empty()) continue;
    std::string& last = lines.back();
    while (!last.empty() && width_of(last + "...") > width) {
      while (continues_letter(last.back())) last.pop_back();
      last.pop_back();
    }
    last += "...";
    return lines;
  }
  if (!rest.empty() || lines.empty()) lines.push_back(rest);
  return lines;
}

double label_width(const std::string& text) {
  return width_of(text, &Letters::regular);
}

double bold_label_width(const std::string& text) {
  return width_of(text, &Letters::bold);
}

double output_width(const std::string& text) {
  double ems = 0;
  for (const char letter : text) {
    const bool is_ascii = static_cast<unsigned char>(letter) < 0x80;
    ems += is_ascii ? kMonospaceEm : em_of(letter, &Letters::regular);
  }
  return ems * kOutputPixels;
}

}  // namespace picture
