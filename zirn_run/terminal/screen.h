#ifndef TERMINAL_SCREEN_H
#define TERMINAL_SCREEN_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace terminal {

// How a part of a line is meant; display.cpp says how it looks.
enum class Style { kPlain, kFaint, kHeading, kVerdict, kPassed, kFailed };

// Printable text in UTF-8.
struct Span {
  std::string text;
  Style style = Style::kPlain;
};

struct Line {
  std::vector<Span> spans;
  bool is_chosen = false;

  std::string text() const {
    std::string all;
    for (const Span& span : spans) all += span.text;
    return all;
  }
};

// Columns that the text takes.
std::size_t columns_of(std::string_view text);

// The text, or its beginning and "...", in so many columns at the most.
std::string cut(std::string_view text, std::size_t columns);

// What is further right than that is taken away.
void cut(Line* line, std::size_t columns);

// The text, cut or filled up to so many columns.
std::string filled(std::string_view text, std::size_t columns);

}  // namespace terminal

#endif
