#ifndef FRAMES_PACKET_H
#define FRAMES_PACKET_H

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "record/item.h"

namespace frames {

using record::Nanoseconds;

// Which of a record's numbered items something comes from.
struct Numbers {
  std::uint64_t first = 0;  // 0: from none
  std::uint64_t last = 0;
  std::uint64_t count = 0;

  void add(const Numbers& more) {
    if (more.count == 0) return;
    first = count == 0 ? more.first : std::min(first, more.first);
    last = std::max(last, more.last);
    count += more.count;
  }
};

// What the wire did to a frame, or to any frame of a datagram, as far as the record says.
struct Fate {
  bool lost = false;
  bool nobody_took_it = false;  // lost, for that reason
  bool duplicated = false;
  bool swapped = false;
};

struct Endpoint {
  std::uint32_t address = 0;  // IPv4, the first byte the most significant
  std::uint16_t port = 0;

  bool operator==(const Endpoint& other) const { return address == other.address && port == other.port; }
  bool operator<(const Endpoint& other) const {
    return address != other.address ? address < other.address : port < other.port;
  }
};

using Mac = std::array<std::uint8_t, 6>;

// One UDP datagram, one TCP segment, or one ICMP "port unreachable", put together out of its frames.
struct Packet {
  enum class Protocol { kUdp, kTcp, kPortUnreachable };

  Nanoseconds at = 0;     // of the first frame
  Nanoseconds until = 0;  // of the last one
  Numbers frames;
  std::uint32_t interface = 0;
  Fate fate;
  bool is_whole = true;       // false: fragments are missing
  bool is_broadcast = false;  // to every machine of the link, or to 255.255.255.255
  std::optional<Mac> source_mac;

  Protocol protocol = Protocol::kUdp;
  Endpoint source;  // kPortUnreachable: without ports
  Endpoint destination;
  std::string_view payload;      // as far as it was kept, from its beginning
  std::size_t payload_size = 0;  // bytes that it had on the wire

  // kPortUnreachable: of the UDP datagram that came to the closed port
  Endpoint quoted_source;
  Endpoint quoted_destination;

  // kTcp
  std::uint32_t sequence = 0;
  bool syn = false;
  bool ack = false;
  bool fin = false;
  bool rst = false;
};

std::string dotted(std::uint32_t address);

// "172.40.0.1"; nothing for any other text.
std::optional<std::uint32_t> address_in(std::string_view text);

}  // namespace frames

#endif
