#ifndef RECORD_BYTE_ORDER_H
#define RECORD_BYTE_ORDER_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace record {

// The number of N bytes at the offset, in this machine's order of bytes.
template <typename Number>
Number number_at(std::string_view bytes, std::size_t offset) {
  Number number = 0;
  std::memcpy(&number, bytes.data() + offset, sizeof number);
  return number;
}

// The same number with its bytes in the other order.
template <typename Number>
Number turned(Number number) {
  Number result = 0;
  for (std::size_t i = 0; i < sizeof number; ++i) {
    result = static_cast<Number>(static_cast<Number>(result << 8U) | (number & 0xffU));
    number = static_cast<Number>(number >> 8U);
  }
  return result;
}

}  // namespace record

#endif
