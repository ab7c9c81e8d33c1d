#include "frames/link.h"

#include <algorithm>

#include "frames/byte_view.h"
#include "record/item.h"

namespace frames {

namespace {

constexpr std::size_t kMacBytes = 6;
constexpr std::size_t kEthernetBytes = 14;
constexpr std::size_t kCookedBytes = 16;
constexpr std::size_t kCooked2Bytes = 20;
constexpr std::size_t kTagBytes = 4;
constexpr std::size_t kMaxTags = 8;
constexpr unsigned kCookedBroadcast = 1;  // its packet type

bool is_tag(std::uint16_t type) {
  return type == 0x8100 || type == 0x88a8 || type == 0x9100;
}

Mac mac_at(std::string_view frame, std::size_t offset) {
  Mac mac{};
  for (std::size_t i = 0; i < kMacBytes; ++i) mac[i] = byte_at(frame, offset + i);
  return mac;
}

LinkHeader ethernet_in(std::string_view frame) {
  LinkHeader header;
  header.size = kEthernetBytes;
  header.type = number16_at(frame, 2 * kMacBytes);
  header.source = mac_at(frame, kMacBytes);
  const Mac destination = mac_at(frame, 0);
  header.is_broadcast =
      std::all_of(destination.begin(), destination.end(), [](std::uint8_t byte) { return byte == 0xff; });
  return header;
}

// Packet type, kind of link, length of the address, the address in eight bytes, EtherType.
LinkHeader cooked_in(std::string_view frame) {
  LinkHeader header;
  header.size = kCookedBytes;
  header.type = number16_at(frame, 14);
  if (number16_at(frame, 4) == kMacBytes) header.source = mac_at(frame, 6);
  header.is_broadcast = number16_at(frame, 0) == kCookedBroadcast;
  return header;
}

// EtherType, two bytes of nothing, interface in four, kind of link, packet type, length of the address, the
// address in eight bytes.
LinkHeader cooked2_in(std::string_view frame) {
  LinkHeader header;
  header.size = kCooked2Bytes;
  header.type = number16_at(frame, 0);
  if (byte_at(frame, 11) == kMacBytes) header.source = mac_at(frame, 12);
  header.is_broadcast = byte_at(frame, 10) == kCookedBroadcast;
  return header;
}

}  // namespace

std::optional<LinkHeader> link_header_in(std::string_view frame, std::uint16_t link_type) {
  LinkHeader header;
  if (link_type == record::kEthernet) {
    header = ethernet_in(frame);
  } else if (link_type == record::kLinuxCooked) {
    header = cooked_in(frame);
  } else if (link_type == record::kLinuxCooked2) {
    header = cooked2_in(frame);
  } else {
    return std::nullopt;
  }
  for (std::size_t tags = 0; is_tag(header.type) && tags < kMaxTags; ++tags) {
    header.type = number16_at(frame, header.size + 2);
    header.size += kTagBytes;
  }
  if (frame.size() < header.size) return std::nullopt;
  return header;
}

}  // namespace frames
