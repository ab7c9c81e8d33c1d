#ifndef FRAMES_BYTE_VIEW_H
#define FRAMES_BYTE_VIEW_H

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace frames {

// Numbers of a byte string, most significant byte first. Bytes beyond its end count as 0.
inline std::uint8_t byte_at(std::string_view bytes, std::size_t offset) {
  return offset < bytes.size() ? static_cast<std::uint8_t>(bytes[offset]) : std::uint8_t{0};
}

inline std::uint16_t number16_at(std::string_view bytes, std::size_t offset) {
  return static_cast<std::uint16_t>(byte_at(bytes, offset) << 8 | byte_at(bytes, offset + 1));
}

inline std::uint32_t number32_at(std::string_view bytes, std::size_t offset) {
  return static_cast<std::uint32_t>(number16_at(bytes, offset)) << 16 | number16_at(bytes, offset + 2);
}

// The bytes from `offset` on, at most `count`; none beyond the end.
inline std::string_view part_of(std::string_view bytes, std::size_t offset,
                                std::size_t count = std::string_view::npos) {
  return offset < bytes.size() ? bytes.substr(offset, count) : std::string_view();
}

}  // namespace frames

#endif
