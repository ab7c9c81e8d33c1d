#include "picture/packet.h"

#include <algorithm>
#include <map>
#include <tuple>

#include "picture/byte_view.h"

namespace picture {

namespace {

constexpr std::size_t kEthernetBytes = 14;
constexpr std::uint16_t kIpv4 = 0x0800;
constexpr std::size_t kWordBytes = 4;  // headers give their lengths in words
constexpr std::size_t kMinIpBytes = 20;
constexpr std::size_t kUdpBytes = 8;
constexpr std::size_t kMinTcpBytes = 20;
constexpr std::size_t kIcmpBytes = 8;
constexpr std::uint8_t kIcmp = 1;
constexpr std::uint8_t kTcp = 6;
constexpr std::uint8_t kUdp = 17;
constexpr std::uint16_t kPortUnreachable = 0x0303;  // ICMP type 3, code 3

constexpr std::uint32_t kTestNetwork = 0xac280000;  // 172.40.0.0
constexpr std::uint32_t kPptNetwork = 0xac1e0000;   // 172.30.0.0
constexpr std::uint32_t kStationHost = 1;
constexpr std::uint32_t kBroadcastHost = 255;

struct IpDatagram {
  std::uint32_t source = 0;
  std::uint32_t destination = 0;
  std::uint16_t id = 0;
  std::uint8_t protocol = 0;
  bool is_first_fragment = true;
  bool more_fragments = false;
  std::string_view contents;
};

std::optional<IpDatagram> ip_in(std::string_view frame) {
  const std::string_view header = part_of(frame, kEthernetBytes);
  if (number16_at(frame, kEthernetBytes - 2) != kIpv4 || header.size() < kMinIpBytes) return std::nullopt;
  const std::size_t header_bytes = kWordBytes * (byte_at(header, 0) & 0xfU);
  const std::size_t total_bytes = number16_at(header, 2);
  if (byte_at(header, 0) >> 4 != 4 || header_bytes < kMinIpBytes || total_bytes < header_bytes)
    return std::nullopt;
  const std::uint16_t fragment = number16_at(header, 6);
  IpDatagram ip;
  ip.id = number16_at(header, 4);
  ip.is_first_fragment = (fragment & 0x1fffU) == 0;
  ip.more_fragments = (fragment & 0x2000U) != 0;
  ip.protocol = byte_at(header, 9);
  ip.source = number32_at(header, 12);
  ip.destination = number32_at(header, 16);
  ip.contents = part_of(header, header_bytes, total_bytes - header_bytes);
  return ip;
}

bool take_udp(const IpDatagram& ip, Packet* packet) {
  if (ip.contents.size() < kUdpBytes) return false;
  packet->protocol = Packet::Protocol::kUdp;
  packet->source_port = number16_at(ip.contents, 0);
  packet->destination_port = number16_at(ip.contents, 2);
  packet->payload = part_of(ip.contents, kUdpBytes);
  return true;
}

bool take_tcp(const IpDatagram& ip, Packet* packet) {
  const std::size_t header_bytes = kWordBytes * (byte_at(ip.contents, 12) >> 4U);
  if (ip.contents.size() < kMinTcpBytes || header_bytes < kMinTcpBytes) return false;
  packet->protocol = Packet::Protocol::kTcp;
  packet->source_port = number16_at(ip.contents, 0);
  packet->destination_port = number16_at(ip.contents, 2);
  packet->sequence = number32_at(ip.contents, 4);
  const std::uint8_t flags = byte_at(ip.contents, 13);
  packet->fin = (flags & 0x01U) != 0;
  packet->syn = (flags & 0x02U) != 0;
  packet->rst = (flags & 0x04U) != 0;
  packet->ack = (flags & 0x10U) != 0;
  packet->payload = part_of(ip.contents, header_bytes);
  return true;
}

// The message quotes the head of the datagram that came to the closed port.
bool take_unreachable(const IpDatagram& ip, Packet* packet) {
  const std::string_view quoted = part_of(ip.contents, kIcmpBytes);
  const std::size_t header_bytes = kWordBytes * (byte_at(quoted, 0) & 0xfU);
  if (number16_at(ip.contents, 0) != kPortUnreachable || quoted.size() < header_bytes + 4) return false;
  packet->protocol = Packet::Protocol::kPortUnreachable;
  packet->destination_port = number16_at(quoted, header_bytes + 2);
  return true;
}

bool take_contents(const IpDatagram& ip, Packet* packet) {
  switch (ip.protocol) {
    case kUdp:
      return take_udp(ip, packet);
    case kTcp:
      return take_tcp(ip, packet);
    case kIcmp:
      return take_unreachable(ip, packet);
    default:
      return false;
  }
}

std::optional<Packet> packet_in(const IpDatagram& ip) {
  const std::optional<Lane> source = lane_of(ip.source);
  const std::optional<Lane> target = lane_of(ip.destination);
  if (!source || !target || *source == *target) return std::nullopt;
  Packet packet;
  packet.source = ip.source;
  packet.destination = ip.destination;
  packet.source_lane = *source;
  packet.target_lane = *target;
  if (!take_contents(ip, &packet)) return std::nullopt;
  packet.payload_size = packet.payload.size();
  return packet;
}

void add_fate(const Fate& more, Fate* fate) {
  fate->lost = fate->lost || more.lost;
  fate->duplicated = fate->duplicated || more.duplicated;
  fate->swapped = fate->swapped || more.swapped;
}

}  // namespace

std::vector<Packet> packets_in(const Capture& capture, const Fates& fates) {
  std::vector<Packet> packets;
  // The packet whose further fragments may follow, by what the fragments have in common.
  std::map<std::tuple<std::uint32_t, std::uint32_t, std::uint16_t, std::uint8_t>, std::size_t> unfinished;
  for (const Frame& frame : capture.frames) {
    const std::optional<IpDatagram> ip = ip_in(frame.bytes);
    if (!ip) continue;
    const auto entry = fates.of_frame.find(frame.number);
    const Fate fate = entry == fates.of_frame.end() ? Fate() : entry->second;
    const auto key = std::make_tuple(ip->source, ip->destination, ip->id, ip->protocol);
    if (!ip->is_first_fragment) {
      const auto first = unfinished.find(key);
      if (first == unfinished.end()) continue;
      packets[first->second].payload_size += ip->contents.size();
      add_fate(fate, &packets[first->second].fate);
      if (!ip->more_fragments) unfinished.erase(first);
      continue;
    }
    std::optional<Packet> packet = packet_in(*ip);
    if (!packet) continue;
    packet->at = frame.at;
    packet->fate = fate;
    if (ip->more_fragments) unfinished[key] = packets.size();
    packets.push_back(*packet);
  }
  return packets;
}

std::optional<Lane> lane_of(std::uint32_t address) {
  const std::uint32_t network = address & 0xffffff00U;
  if (network != kTestNetwork && network != kPptNetwork) return std::nullopt;
  if ((address & 0xffU) == kStationHost) return Lane::kStation;
  return network == kTestNetwork ? Lane::kUnit : Lane::kPptServer;
}

bool is_broadcast(std::uint32_t address) {
  return (address & 0xffU) == kBroadcastHost;
}

std::string dotted(std::uint32_t address) {
  return std::to_string(address >> 24) + "." + std::to_string(address >> 16 & 0xffU) + "." +
         std::to_string(address >> 8 & 0xffU) + "." + std::to_string(address & 0xffU);
}

}  // namespace picture
