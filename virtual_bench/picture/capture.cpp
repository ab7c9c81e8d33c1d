#include "picture/capture.h"

#include "picture/byte_view.h"

namespace picture {

namespace {

constexpr std::uint32_t kMagic = 0xa1b2c3d4;
constexpr std::uint32_t kMagicOfOtherOrder = 0xd4c3b2a1;
constexpr std::uint32_t kEthernet = 1;
constexpr std::size_t kFileHeaderBytes = 24;
constexpr std::size_t kLinkTypeOffset = 20;
constexpr std::size_t kRecordHeaderBytes = 16;
constexpr std::uint32_t kMaxFrameBytes = 262144;
constexpr Microseconds kSecond = 1000000;

std::uint32_t swapped(std::uint32_t number) {
  return number << 24 | (number & 0xff00U) << 8 | (number >> 8 & 0xff00U) | number >> 24;
}

}  // namespace

Capture read_capture(std::string_view contents) {
  Capture capture;
  const std::uint32_t magic = number32_at(contents, 0);
  const bool big_endian = magic == kMagic;
  if (contents.size() < kFileHeaderBytes || (!big_endian && magic != kMagicOfOtherOrder)) return capture;
  const auto number_at = [contents, big_endian](std::size_t offset) {
    const std::uint32_t number = number32_at(contents, offset);
    return big_endian ? number : swapped(number);
  };
  if (number_at(kLinkTypeOffset) != kEthernet) return capture;

  std::size_t offset = kFileHeaderBytes;
  while (contents.size() - offset >= kRecordHeaderBytes) {
    const Microseconds at = number_at(offset) * kSecond + number_at(offset + 4);
    const std::uint32_t size = number_at(offset + 8);
    const std::size_t begin = offset + kRecordHeaderBytes;
    if (size > kMaxFrameBytes || size > contents.size() - begin) break;
    capture.frames.push_back({capture.frames.size() + 1, at, contents.substr(begin, size)});
    offset = begin + size;
  }
  capture.whole = offset == contents.size();
  return capture;
}

}  // namespace picture
