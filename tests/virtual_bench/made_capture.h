#ifndef VIRTUAL_BENCH_MADE_CAPTURE_H
#define VIRTUAL_BENCH_MADE_CAPTURE_H

#include <cstddef>
#include <cstdint>
#include <string>

// A capture file built frame by frame, at times in milliseconds of the run, without the code under test.
class MadeCapture {
 public:
  struct End {
    std::uint32_t address;
    std::uint16_t port;
  };
  enum Flag : std::uint8_t { kFin = 1, kSyn = 2, kRst = 4, kAck = 16 };

  static constexpr std::uint32_t kUnit = 0xac280002;
  static constexpr std::uint32_t kStation = 0xac280001;
  static constexpr std::uint32_t kBroadcast = 0xac2800ff;
  static constexpr std::uint32_t kStationAtPpt = 0xac1e0001;
  static constexpr std::uint32_t kPptServer = 0xac1e00fe;
  static constexpr std::uint32_t kStartSeconds = 1700000000;

  explicit MadeCapture(bool big_endian = false) : big_endian_(big_endian) {
    contents_ = in_order(0xa1b2c3d4, 4) + in_order(2, 2) + in_order(4, 2) + in_order(0, 4) + in_order(0, 4) +
                in_order(65535, 4) + in_order(1, 4);
  }

  const std::string& contents() const { return contents_; }
  std::size_t frames() const { return frames_; }

  void udp(unsigned milliseconds, End from, End to, const std::string& payload) {
    ip(milliseconds, from.address, to.address, 17, 0, udp_datagram(from, to, payload));
  }

  // The same in frames of at most `fragment_bytes`, a multiple of 8.
  void udp_in_fragments(unsigned milliseconds, End from, End to, const std::string& payload,
                        std::size_t fragment_bytes) {
    const std::string datagram = udp_datagram(from, to, payload);
    ++id_;
    for (std::size_t offset = 0; offset < datagram.size(); offset += fragment_bytes) {
      const bool more = offset + fragment_bytes < datagram.size();
      const unsigned fragment = static_cast<unsigned>(offset / 8) | (more ? 0x2000U : 0U);
      ip(milliseconds, from.address, to.address, 17, fragment, datagram.substr(offset, fragment_bytes));
    }
  }

  void tcp(unsigned milliseconds, End from, End to, unsigned flags, std::uint32_t sequence,
           const std::string& payload = "") {
    ip(milliseconds, from.address, to.address, 6, 0,
       big(from.port, 2) + big(to.port, 2) + big(sequence, 4) + big(0, 4) + big(0x5000U | flags, 2) +
           big(1024, 2) + big(0, 4) + payload);
  }

  // What the station says when nobody listens on the port that a datagram went to.
  void port_unreachable(unsigned milliseconds, End from, End to) {
    const std::string quoted =
        ip_header(28, from.address, to.address, 17, 0) + big(from.port, 2) + big(to.port, 2);
    ip(milliseconds, to.address, from.address, 1, 0, big(0x0303, 2) + big(0, 6) + quoted + big(0, 4));
  }

  void frame(unsigned milliseconds, const std::string& bytes) {
    const auto size = static_cast<std::uint32_t>(bytes.size());
    contents_ += in_order(kStartSeconds + milliseconds / 1000, 4) + in_order(milliseconds % 1000 * 1000, 4) +
                 in_order(size, 4) + in_order(size, 4) + bytes;
    ++frames_;
  }

 private:
  static std::string big(std::uint64_t number, std::size_t size) {
    std::string bytes(size, '\0');
    for (auto byte = bytes.rbegin(); byte != bytes.rend(); ++byte, number >>= 8) {
      *byte = static_cast<char>(number & 0xffU);
    }
    return bytes;
  }

  std::string in_order(std::uint32_t number, std::size_t size) const {
    const std::string bytes = big(number, size);
    return big_endian_ ? bytes : std::string(bytes.rbegin(), bytes.rend());
  }

  static std::string udp_datagram(End from, End to, const std::string& payload) {
    return big(from.port, 2) + big(to.port, 2) + big(payload.size() + 8, 2) + big(0, 2) + payload;
  }

  std::string ip_header(std::size_t total, std::uint32_t from, std::uint32_t to, unsigned protocol,
                        unsigned fragment) const {
    return big(0x4500, 2) + big(total, 2) + big(id_, 2) + big(fragment, 2) + big(64, 1) + big(protocol, 1) +
           big(0, 2) + big(from, 4) + big(to, 4);
  }

  void ip(unsigned milliseconds, std::uint32_t from, std::uint32_t to, unsigned protocol, unsigned fragment,
          const std::string& contents) {
    if (fragment == 0) ++id_;
    frame(milliseconds, big(0, 12) + big(0x0800, 2) +
                            ip_header(contents.size() + 20, from, to, protocol, fragment) + contents);
  }

  const bool big_endian_;
  std::string contents_;
  std::size_t frames_ = 0;
  std::uint16_t id_ = 0;
};

#endif
