#ifndef ZIRN_RUN_MADE_RECORD_H
#define ZIRN_RUN_MADE_RECORD_H

#include <cstdint>
#include <cstring>
#include <string>

// The blocks of a pcapng file and the parts of a pcap file, put together without the code under test, in either order
// of bytes.
class MadeRecord {
 public:
  explicit MadeRecord(bool big_endian) : big_endian_(big_endian) {}

  static MadeRecord in_order_of_this_machine() {
    const std::uint16_t one = 1;
    char first = 0;
    std::memcpy(&first, &one, 1);
    return MadeRecord(first == 0);
  }

  std::string u16(std::uint64_t number) const { return in_order(number, 2); }
  std::string u32(std::uint64_t number) const { return in_order(number, 4); }
  std::string u64(std::uint64_t number) const { return in_order(number, 8); }

  static std::string filled_up(std::string bytes) {
    while (bytes.size() % 4 != 0) bytes += '\0';
    return bytes;
  }

  std::string block(std::uint32_t type, const std::string& contents) const {
    const std::string length = u32(contents.size() + 12);
    return u32(type) + length + contents + length;
  }
  std::string option(std::uint16_t code, const std::string& value) const {
    return u16(code) + u16(value.size()) + filled_up(value);
  }
  std::string end_of_options() const { return u32(0); }

  std::string section(const std::string& options = "") const {
    return block(0x0a0d0d0a, u32(0x1a2b3c4d) + u16(1) + u16(0) + u64(~std::uint64_t{0}) + options);
  }
  std::string interface(std::uint16_t link_type, std::uint32_t snap_length,
                        const std::string& options = "") const {
    return block(1, u16(link_type) + u16(0) + u32(snap_length) + options);
  }
  std::string enhanced(std::uint32_t interface, std::uint64_t ticks, const std::string& bytes,
                       std::uint32_t size, const std::string& options = "") const {
    return block(6, u32(interface) + u32(ticks >> 32U) + u32(ticks & 0xffffffffU) + u32(bytes.size()) +
                        u32(size) + filled_up(bytes) + options);
  }
  std::string obsolete(std::uint16_t interface, std::uint64_t ticks, const std::string& bytes,
                       std::uint32_t size, const std::string& options = "") const {
    return block(2, u16(interface) + u16(3) + u32(ticks >> 32U) + u32(ticks & 0xffffffffU) +
                        u32(bytes.size()) + u32(size) + filled_up(bytes) + options);
  }
  std::string simple(const std::string& bytes, std::uint32_t size) const {
    return block(3, u32(size) + filled_up(bytes));
  }
  std::string journal(const std::string& text) const { return block(9, filled_up(text)); }
  std::string statistics(std::uint32_t interface, std::uint64_t ticks, const std::string& options) const {
    return block(5, u32(interface) + u32(ticks >> 32U) + u32(ticks & 0xffffffffU) + options);
  }

  std::string pcap_header(std::uint32_t magic, std::uint32_t link_type,
                          std::uint32_t snap_length = 65535) const {
    return u32(magic) + u16(2) + u16(4) + u32(0) + u32(0) + u32(snap_length) + u32(link_type);
  }
  std::string pcap_frame(std::uint32_t seconds, std::uint32_t fraction, const std::string& bytes,
                         std::uint32_t size) const {
    return u32(seconds) + u32(fraction) + u32(bytes.size()) + u32(size) + bytes;
  }

 private:
  std::string in_order(std::uint64_t number, std::size_t size) const {
    std::string bytes;
    for (; size > 0; --size, number >>= 8U) {
      bytes.insert(big_endian_ ? 0 : bytes.size(), 1, static_cast<char>(number & 0xffU));
    }
    return bytes;
  }

  const bool big_endian_;
};

#endif
