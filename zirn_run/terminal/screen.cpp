#include "terminal/screen.h"

#include <cwchar>

namespace terminal {

namespace {

constexpr std::string_view kCut = "...";

// Bytes of the letter that begins there; what is no UTF-8 is a letter of its own.
std::size_t letter_size(std::string_view text, std::size_t at) {
  const auto byte = static_cast<unsigned char>(text[at]);
  const std::size_t size = byte < 0xc0 ? 1 : byte < 0xe0 ? 2 : byte < 0xf0 ? 3 : 4;
  return at + size <= text.size() ? size : 1;
}

// Where the terminal's locale knows no width of a letter, it is shown in one column.
std::size_t letter_columns(std::string_view letter) {
  const auto lead = static_cast<unsigned char>(letter.front());
  auto code = static_cast<wchar_t>(letter.size() == 1 ? lead : lead & (0x7fU >> letter.size()));
  for (const char byte : letter.substr(1))
    code =
        static_cast<wchar_t>(static_cast<unsigned>(code) << 6 | (static_cast<unsigned char>(byte) & 0x3fU));
  const int width = wcwidth(code);
  return width < 0 ? 1 : static_cast<std::size_t>(width);
}

// Bytes of the text that fit into so many columns.
std::size_t fitting(std::string_view text, std::size_t columns) {
  std::size_t at = 0;
  for (std::size_t taken = 0; at < text.size();) {
    const std::size_t size = letter_size(text, at);
    taken += letter_columns(text.substr(at, size));
    if (taken > columns) break;
    at += size;
  }
  return at;
}

}  // namespace

std::size_t columns_of(std::string_view text) {
  std::size_t columns = 0;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t size = letter_size(text, at);
    columns += letter_columns(text.substr(at, size));
    at += size;
  }
  return columns;
}

std::string cut(std::string_view text, std::size_t columns) {
  if (fitting(text, columns) == text.size()) return std::string(text);
  if (columns <= kCut.size()) return std::string(kCut.substr(0, columns));
  return std::string(text.substr(0, fitting(text, columns - kCut.size()))).append(kCut);
}

void cut(Line* line, std::size_t columns) {
  for (Span& span : line->spans) {
    span.text.resize(fitting(span.text, columns));
    columns -= columns_of(span.text);
  }
}

std::string filled(std::string_view text, std::size_t columns) {
  std::string result = cut(text, columns);
  return result.append(columns - columns_of(result), ' ');
}

}  // namespace terminal
