#ifndef BENCHMARK_WIRE_H
#define BENCHMARK_WIRE_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <string_view>

// What the load program and the two floors share: just enough of the wire format, and nothing of the program
// that is measured.

constexpr std::uint16_t kReadRequest = 1;
constexpr std::uint16_t kData = 3;
constexpr std::uint16_t kAck = 4;
constexpr std::uint16_t kOptionAck = 6;

constexpr std::size_t kHeaderSize = 4;
constexpr std::size_t kPlainBlockSize = 512;
constexpr std::size_t kLargestDatagram = 65536;

// Prints the text and the reason of the last failure of the system, and ends the process.
[[noreturn]] inline void give_up(const std::string& what) {
  std::perror(what.c_str());
  std::exit(1);
}

inline std::uint16_t word_at(const char* bytes) {
  std::uint16_t word;
  std::memcpy(&word, bytes, sizeof word);
  return ntohs(word);
}

inline void put_word(char* bytes, std::uint16_t word) {
  word = htons(word);
  std::memcpy(bytes, &word, sizeof word);
}

inline std::string with_opcode(std::uint16_t opcode, std::string_view rest) {
  std::string packet(2, '\0');
  put_word(packet.data(), opcode);
  return packet.append(rest);
}

inline std::string ack(std::uint16_t number) {
  std::string packet = with_opcode(kAck, {"\0\0", 2});
  put_word(packet.data() + 2, number);
  return packet;
}

// The number that follows "blksize" in a packet's options; 0 when the packet has no such option.
inline std::size_t block_size_in(std::string_view packet) {
  constexpr std::string_view kName("blksize\0", 8);
  const std::size_t found = packet.find(kName);
  if (found == std::string_view::npos) return 0;
  const std::string value(packet.substr(found + kName.size()));
  return std::strtoul(value.c_str(), nullptr, 10);
}

inline std::string contents_of(const std::string& path) {
  std::ifstream file(path, std::ios::binary | std::ios::ate);
  if (!file) give_up(path);
  std::string contents(static_cast<std::size_t>(file.tellg()), '\0');
  file.seekg(0);
  file.read(contents.data(), static_cast<std::streamsize>(contents.size()));
  return contents;
}

inline sockaddr_in ipv4(const char* address, const char* port) {
  sockaddr_in result = {};
  result.sin_family = AF_INET;
  result.sin_port = htons(static_cast<std::uint16_t>(std::strtoul(port, nullptr, 10)));
  if (inet_pton(AF_INET, address, &result.sin_addr) != 1) {
    std::fprintf(stderr, "%s is no dotted quad\n", address);
    std::exit(1);
  }
  return result;
}

inline const sockaddr* generic(const sockaddr_in& address) {
  return reinterpret_cast<const sockaddr*>(&address);
}

inline sockaddr* generic(sockaddr_in& address) {
  return reinterpret_cast<sockaddr*>(&address);
}

#endif
