#include "support/tftp_bytes.h"

#include <cstdio>

namespace tftp {
namespace {

std::string word(int number) {
  return {static_cast<char>((number >> 8) & 0xFF), static_cast<char>(number & 0xFF)};
}

std::string text(const std::string& characters) {
  return characters + '\0';
}

std::string pairs(const Options& options) {
  std::string result;
  for (const auto& [name, value] : options) result += text(name) + text(value);
  return result;
}

int word_at(const std::string& datagram, std::size_t offset) {
  if (datagram.size() < offset + 2) return -1;
  return static_cast<unsigned char>(datagram[offset]) << 8 | static_cast<unsigned char>(datagram[offset + 1]);
}

}  // namespace

std::string rrq(const std::string& name, const Options& options, const std::string& mode) {
  return word(1) + text(name) + text(mode) + pairs(options);
}

std::string wrq(const std::string& name, const Options& options, const std::string& mode) {
  return word(2) + text(name) + text(mode) + pairs(options);
}

std::string data(int block, const std::string& contents) {
  return word(3) + word(block) + contents;
}

std::string ack(int block) {
  return word(4) + word(block);
}

std::string error(int code, const std::string& message) {
  return word(5) + word(code) + text(message) + '\0';
}

std::string oack(const Options& options) {
  return word(6) + pairs(options);
}

std::string in_words(const std::string& datagram) {
  static const char* const kinds[] = {"?", "RRQ", "WRQ", "DATA", "ACK", "ERROR", "OACK"};
  const int opcode = word_at(datagram, 0);
  std::string words = opcode >= 1 && opcode <= 6 ? kinds[opcode] : "no packet";
  if (opcode >= 3 && opcode <= 5) words += " " + std::to_string(word_at(datagram, 2));
  words += ", " + std::to_string(datagram.size()) + " bytes:";
  constexpr std::size_t kShown = 96;
  for (std::size_t i = 0; i < datagram.size() && i < kShown; ++i) {
    char hex[4];
    std::snprintf(hex, sizeof hex, " %02x", static_cast<unsigned>(static_cast<unsigned char>(datagram[i])));
    words += hex;
  }
  return datagram.size() > kShown ? words + " ..." : words;
}

}  // namespace tftp
