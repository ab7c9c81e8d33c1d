#ifndef PICTURE_CONNECTIONS_H
#define PICTURE_CONNECTIONS_H

#include <cstdint>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "picture/event.h"
#include "picture/packet.h"

namespace picture {

// Tells TCP connections: how they are opened, what is said, how they end. Bare ACKs are left out.
class Connections {
 public:
  void take(const Packet& packet);

  const std::vector<Event>& events() const { return events_; }

 private:
  // Sender's and receiver's address and port.
  using Direction = std::tuple<std::uint32_t, std::uint16_t, std::uint32_t, std::uint16_t>;

  struct Talk {
    std::uint32_t next_sequence = 0;  // of the first byte not sent yet
    bool began = false;
    bool told = false;
    std::size_t last_event = 0;  // in events_, if told
  };

  static std::string words_for(const Packet& packet, const Talk& talk, const Talk& other);

  std::map<Direction, Talk> talks_;
  std::vector<Event> events_;
};

}  // namespace picture

#endif
