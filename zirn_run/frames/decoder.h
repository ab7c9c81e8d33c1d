#ifndef FRAMES_DECODER_H
#define FRAMES_DECODER_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <string>
#include <string_view>
#include <tuple>

#include "frames/packet.h"
#include "record/item.h"

namespace frames {

// Finds packets in frames: behind Ethernet or either of the Linux cooked headers, any VLAN tags, and IPv4.
// Frames of any bytes may come; what is no such packet is left out.
//
// A datagram in fragments is one packet, handed over with the last of them. It is handed over unfinished, when
// its beginning is known at least, once the rest has not come for kPatience or the room is needed.
class Decoder {
 public:
  static constexpr Nanoseconds kPatience = 1000000000;
  static constexpr std::size_t kMaxUnfinished = 64;                // datagrams
  static constexpr std::size_t kMaxUnfinishedBytes = 1024 * 1024;  // that are kept of all of them
  static constexpr std::size_t kMaxFragments = 256;                // of a datagram

  // The packet and what it views is gone when the sink returns.
  using Sink = std::function<void(const Packet&)>;
  explicit Decoder(Sink sink) : sink_(std::move(sink)) {}

  void take(const record::Frame& frame);

  // No more frames come: hands over what is unfinished.
  void finish();

 private:
  struct Piece {
    std::size_t size = 0;  // bytes on the wire
    std::string kept;
  };
  // Interface, source, destination, identification, protocol.
  using Key = std::tuple<std::uint32_t, std::uint32_t, std::uint32_t, std::uint16_t, std::uint8_t>;
  struct Datagram {
    Key key;
    Packet packet;
    std::map<std::size_t, Piece> pieces;  // by their offset
    std::size_t total = 0;                // bytes; 0: the last fragment has not come
    std::size_t kept_bytes = 0;
  };
  struct Ip;

  static bool read_ip(std::string_view bytes, std::size_t wire_bytes, Ip* ip);
  void take_fragment(const Ip& ip, const Packet& frame);
  void add_piece(const Ip& ip, const Packet& frame, Datagram* datagram);
  void make_room(Nanoseconds now, std::size_t datagrams, std::size_t bytes);
  void hand_over(std::list<Datagram>::iterator datagram);
  static bool is_complete(const Datagram& datagram);

  const Sink sink_;
  std::list<Datagram> unfinished_;  // the oldest first
  std::map<Key, std::list<Datagram>::iterator> by_key_;
  std::size_t unfinished_bytes_ = 0;
};

}  // namespace frames

#endif
