#include "record/journal_text.h"

#include <algorithm>
#include <charconv>
#include <limits>

namespace record::journal_text {

namespace {

constexpr std::string_view kTime = "__REALTIME_TIMESTAMP";
constexpr Nanoseconds kMicrosecond = 1000;
constexpr std::size_t kLengthBytes = 8;

bool is_name(std::string_view name) {
  const auto fits = [](char c) { return (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_'; };
  return !name.empty() && std::all_of(name.begin(), name.end(), fits);
}

// How many bytes the character has that begins there; 0: none does.
std::size_t character_at(std::string_view text, std::size_t offset) {
  const auto byte = [text, offset](std::size_t i) {
    return offset + i < text.size() ? static_cast<unsigned char>(text[offset + i]) : 0U;
  };
  const unsigned first = byte(0);
  if (first < 0x80) return first >= 0x20 || first == '\t' ? 1 : 0;
  const std::size_t size = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
  if (first < 0xc2 || first > 0xf4) return 0;
  for (std::size_t i = 1; i < size; ++i) {
    if ((byte(i) & 0xc0U) != 0x80) return 0;
  }
  const bool has_shorter_form = (first == 0xe0 && byte(1) < 0xa0) || (first == 0xf0 && byte(1) < 0x90);
  const bool is_no_character = (first == 0xed && byte(1) > 0x9f) || (first == 0xf4 && byte(1) > 0x8f);
  return has_shorter_form || is_no_character ? 0 : size;
}

bool is_plain(std::string_view value) {
  for (std::size_t offset = 0; offset < value.size();) {
    const std::size_t size = character_at(value, offset);
    if (size == 0) return false;
    offset += size;
  }
  return true;
}

std::string in_bytes(std::uint64_t length) {
  std::string bytes;
  for (std::size_t i = 0; i < kLengthBytes; ++i, length >>= 8U) bytes += static_cast<char>(length & 0xffU);
  return bytes;
}

std::uint64_t length_in(std::string_view bytes) {
  std::uint64_t length = 0;
  for (std::size_t i = kLengthBytes; i-- > 0;) length = length << 8U | static_cast<unsigned char>(bytes[i]);
  return length;
}

void put(std::string_view name, std::string_view value, Entry* entry) {
  if (name != kTime) {
    entry->fields.emplace_back(name, value);
    return;
  }
  constexpr std::uint64_t kMost = std::numeric_limits<Nanoseconds>::max() / kMicrosecond;
  std::uint64_t microseconds = kMost;
  const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), microseconds);
  if (error == std::errc::invalid_argument) return;
  entry->at = static_cast<Nanoseconds>(std::min(microseconds, kMost)) * kMicrosecond;
}

}  // namespace

void append(const Entry& entry, std::string* text) {
  const std::size_t begin = text->size();
  text->append(kTime).append("=").append(std::to_string(std::max<Nanoseconds>(entry.at, 0) / kMicrosecond));
  text->append("\n");
  std::size_t count = 0;
  for (const auto& [name, whole] : entry.fields) {
    if (!is_name(name) || name == kTime) continue;
    const std::size_t used =
        text->size() - begin + name.size() + kLengthBytes + 2;  // more than '=' and newline
    if (used > kMostBytesWritten || ++count > kMostFields) return;
    const std::string_view value = std::string_view(whole).substr(0, kMostBytesWritten - used);
    text->append(name);
    if (is_plain(value)) {
      text->append("=").append(value).append("\n");
    } else {
      text->append("\n").append(in_bytes(value.size())).append(value).append("\n");
    }
    if (value.size() < whole.size()) return;
  }
}

Taken take_field(std::string_view* text, std::size_t most_bytes, Entry* entry) {
  const std::size_t line_bytes = text->find('\n');
  if (line_bytes == std::string_view::npos) return text->size() < most_bytes ? Taken::kMore : Taken::kWrong;
  if (line_bytes == 0) {
    text->remove_prefix(1);
    return Taken::kEntryEnd;
  }
  const std::string_view line = text->substr(0, line_bytes);
  const std::size_t name_bytes = std::min(line.find('='), line.size());
  const std::string_view name = line.substr(0, name_bytes);
  if (!is_name(name) || entry->fields.size() == kMostFields) return Taken::kWrong;
  if (name_bytes < line.size()) {
    put(name, line.substr(name_bytes + 1), entry);
    text->remove_prefix(line_bytes + 1);
    return Taken::kField;
  }
  const std::size_t begin = line_bytes + 1 + kLengthBytes;
  if (text->size() < begin) return Taken::kMore;
  const std::uint64_t length = length_in(text->substr(line_bytes + 1));
  if (length >= most_bytes) return Taken::kWrong;
  const auto size = static_cast<std::size_t>(length);
  if (text->size() <= begin + size) return Taken::kMore;
  if ((*text)[begin + size] != '\n') return Taken::kWrong;
  put(name, text->substr(begin, size), entry);
  text->remove_prefix(begin + size + 1);
  return Taken::kField;
}

}  // namespace record::journal_text
