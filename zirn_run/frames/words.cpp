#include "frames/words.h"

#include <algorithm>
#include <charconv>
#include <cstdint>

namespace frames {

namespace {

struct Character {
  std::uint32_t code = 0;
  std::size_t size = 0;  // bytes; 0: no UTF-8
};

Character character_at(std::string_view bytes) {
  const auto byte = [bytes](std::size_t i) {
    return i < bytes.size() ? static_cast<std::uint8_t>(bytes[i]) : std::uint8_t{0};
  };
  const std::uint8_t lead = byte(0);
  if (lead < 0x80) return {lead, 1};
  const std::size_t size = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
  if (lead < 0xc2 || lead > 0xf4) return {};
  std::uint32_t code = lead & (0x7fU >> size);
  for (std::size_t i = 1; i < size; ++i) {
    if ((byte(i) & 0xc0U) != 0x80) return {};
    code = code << 6 | (byte(i) & 0x3fU);
  }
  const bool is_too_long = (size == 3 && code < 0x800) || (size == 4 && code < 0x10000);
  const bool is_surrogate = code >= 0xd800 && code < 0xe000;
  if (is_too_long || is_surrogate || code > 0x10ffff) return {};
  return {code, size};
}

// Control characters, soft hyphen, what joins, separates or turns the direction, private and unassigned ends.
bool is_shown(std::uint32_t code) {
  if (code < 0x20 || (code >= 0x7f && code < 0xa0) || code == 0xad || code == 0x61c) return false;
  if ((code >= 0x200b && code < 0x2010) || (code >= 0x2028 && code < 0x202f)) return false;
  if ((code >= 0x2060 && code < 0x2070) || (code >= 0xe000 && code < 0xf900)) return false;
  return code != 0xfeff && !(code >= 0xfff0 && code < 0x10000) && code < 0xe0000;
}

void add_escaped(std::string_view bytes, std::string* text) {
  for (const char letter : bytes) *text += "\\x" + hexadecimal({&letter, 1});
}

// Adds some letters in words of its own, and says whether this is one.
using Named = bool (*)(char letter, std::string* text);

bool add_nothing(char, std::string*) {
  return false;
}

bool add_backslash(char letter, std::string* text) {
  if (letter == '\\') add_escaped("\\", text);
  return letter == '\\';
}

bool add_controls(char letter, std::string* text) {
  switch (letter) {
    case '\0':
      *text += "\\0";
      return true;
    case '\r':
      *text += "\\r";
      return true;
    case '\n':
      *text += "\\n";
      return true;
    default:
      return false;
  }
}

std::string each(std::string_view bytes, std::size_t most, const Named& add_named) {
  std::string text;
  std::size_t i = 0;
  while (i < bytes.size() && i < most) {
    const Character character = character_at(bytes.substr(i));
    const std::size_t size = character.size == 0 ? 1 : character.size;
    const std::string_view part = bytes.substr(i, size);
    i += size;
    if (size == 1 && add_named(part[0], &text)) continue;
    if (character.size > 0 && is_shown(character.code)) {
      text += part;
    } else {
      add_escaped(part, &text);
    }
  }
  return i < bytes.size() ? text + "..." : text;
}

}  // namespace

std::string printable(std::string_view bytes, std::size_t most) {
  return each(bytes, most, add_nothing);
}

std::string escaped(std::string_view bytes) {
  return each(bytes, bytes.size(), add_backslash);
}

std::string unescaped(std::string_view text) {
  std::string bytes;
  for (std::size_t i = 0; i < text.size(); ++i) {
    std::uint8_t byte = 0;
    const std::string_view digits = text.substr(std::min(i + 2, text.size()), 2);
    const char* const end = digits.data() + digits.size();
    const bool is_escaped = text.substr(i, 2) == "\\x" && digits.size() == 2 &&
                            std::from_chars(digits.data(), end, byte, 16).ptr == end;
    bytes += is_escaped ? static_cast<char>(byte) : text[i];
    if (is_escaped) i += 3;
  }
  return bytes;
}

std::string printable_sentence(std::string_view bytes) {
  return each(bytes, bytes.size(), add_nothing);
}

std::string quoted(std::string_view bytes) {
  return "\"" + each(bytes, kMostBytesOfAName, add_controls) + "\"";
}

std::string markup(std::string_view text) {
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
      case '"':
        result += "&quot;";
        break;
      case '\'':
        result += "&#39;";
        break;
      default:
        result += letter;
    }
  }
  return result;
}

std::string hexadecimal(std::string_view bytes, std::string_view between) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (const char letter : bytes) {
    const auto byte = static_cast<std::uint8_t>(letter);
    if (!text.empty()) text += between;
    text += {kDigits[byte >> 4], kDigits[byte & 0xf]};
  }
  return text;
}

std::string counted(std::uint64_t count, const std::string& thing) {
  return std::to_string(count) + " " + thing + (count == 1 ? "" : "s");
}

}  // namespace frames
