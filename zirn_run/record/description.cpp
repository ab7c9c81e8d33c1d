#include "record/description.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace record {

namespace {

constexpr std::size_t kShownBytes = 4;
constexpr std::string_view kPcapng = "\n\r\r\n";

bool is_text(std::string_view bytes) {
  const auto fits = [](char c) { return static_cast<unsigned char>(c) >= 0x20 || (c >= '\t' && c <= '\r'); };
  return std::all_of(bytes.begin(), bytes.end(), fits);
}

}  // namespace

std::string description_of(std::string_view beginning) {
  beginning = beginning.substr(0, kDescribedBytes);
  if (beginning.empty()) return "an empty file";
  if (beginning.substr(0, 2) == "\x1f\x8b") return "gzip data";
  if (beginning.substr(0, kPcapng.size()) == kPcapng) return "a pcapng file";
  if (is_text(beginning)) return "text";
  std::string described = beginning.size() < kShownBytes ? "no more than the bytes" : "the bytes";
  for (const char c : beginning.substr(0, kShownBytes)) {
    std::array<char, 4> hex = {};
    std::snprintf(hex.data(), hex.size(), " %02x", static_cast<unsigned>(static_cast<unsigned char>(c)));
    described += hex.data();
  }
  return described;
}

}  // namespace record
