#ifndef FRAMES_LINK_H
#define FRAMES_LINK_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "frames/packet.h"

namespace frames {

// What stands before the network layer, VLAN tags (802.1Q, 802.1ad) included.
struct LinkHeader {
  std::uint16_t type = 0;  // an EtherType, of what follows
  std::size_t size = 0;    // bytes
  std::optional<Mac> source;
  bool is_broadcast = false;
};

// Nothing for frames of a kind that is not known, and of those that are cut within the header.
std::optional<LinkHeader> link_header_in(std::string_view frame, std::uint16_t link_type);

}  // namespace frames

#endif
