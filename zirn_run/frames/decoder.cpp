#include "frames/decoder.h"

#include <algorithm>
#include <string>
#include <utility>

#include "frames/byte_view.h"
#include "frames/link.h"
#include "record/run_entry.h"

namespace frames {

// One IPv4 packet, which may be a fragment.
struct Decoder::Ip {
  std::uint32_t source = 0;
  std::uint32_t destination = 0;
  std::uint16_t id = 0;
  std::uint8_t protocol = 0;
  std::size_t offset = 0;  // of the fragment, in bytes
  bool more_fragments = false;
  std::string_view kept;  // of what follows the header
  std::size_t size = 0;   // bytes that it had on the wire
};

namespace {

constexpr std::uint16_t kIpv4 = 0x0800;
constexpr std::size_t kWordBytes = 4;  // headers give their lengths in words
constexpr std::size_t kMinIpBytes = 20;
constexpr std::size_t kMaxIpBytes = 65535;
constexpr std::size_t kUdpBytes = 8;
constexpr std::size_t kMinTcpBytes = 20;
constexpr std::size_t kIcmpBytes = 8;
constexpr std::uint8_t kIcmp = 1;
constexpr std::uint8_t kTcp = 6;
constexpr std::uint8_t kUdp = 17;
constexpr std::uint16_t kPortUnreachable = 0x0303;  // ICMP type 3, code 3
constexpr std::uint32_t kEverybody = 0xffffffff;
constexpr Nanoseconds kLatest = INT64_MAX / 2;  // so that lengths of time can be reckoned

bool read_udp(std::string_view kept, std::size_t size, Packet* packet) {
  if (kept.size() < kUdpBytes) return false;
  packet->protocol = Packet::Protocol::kUdp;
  packet->source.port = number16_at(kept, 0);
  packet->destination.port = number16_at(kept, 2);
  const std::size_t told = number16_at(kept, 4);
  packet->payload_size = (told < kUdpBytes ? size : std::min(told, size)) - kUdpBytes;
  packet->payload = part_of(kept, kUdpBytes, packet->payload_size);
  return true;
}

bool read_tcp(std::string_view kept, std::size_t size, Packet* packet) {
  const std::size_t header_bytes = kWordBytes * (byte_at(kept, 12) >> 4U);
  if (kept.size() < kMinTcpBytes || header_bytes < kMinTcpBytes || size < header_bytes) return false;
  packet->protocol = Packet::Protocol::kTcp;
  packet->source.port = number16_at(kept, 0);
  packet->destination.port = number16_at(kept, 2);
  packet->sequence = number32_at(kept, 4);
  const std::uint8_t flags = byte_at(kept, 13);
  packet->fin = (flags & 0x01U) != 0;
  packet->syn = (flags & 0x02U) != 0;
  packet->rst = (flags & 0x04U) != 0;
  packet->ack = (flags & 0x10U) != 0;
  packet->payload = part_of(kept, header_bytes);
  packet->payload_size = size - header_bytes;
  return true;
}

// The message quotes the head of the datagram that came to the closed port.
bool read_unreachable(std::string_view kept, Packet* packet) {
  const std::string_view quoted = part_of(kept, kIcmpBytes);
  const std::size_t header_bytes = kWordBytes * (byte_at(quoted, 0) & 0xfU);
  const bool is_udp = byte_at(quoted, 9) == kUdp && header_bytes >= kMinIpBytes;
  if (number16_at(kept, 0) != kPortUnreachable || !is_udp || quoted.size() < header_bytes + 4) return false;
  packet->protocol = Packet::Protocol::kPortUnreachable;
  packet->quoted_source = {number32_at(quoted, 12), number16_at(quoted, header_bytes)};
  packet->quoted_destination = {number32_at(quoted, 16), number16_at(quoted, header_bytes + 2)};
  return true;
}

bool read_contents(std::uint8_t protocol, std::string_view kept, std::size_t size, Packet* packet) {
  switch (protocol) {
    case kUdp:
      return read_udp(kept, size, packet);
    case kTcp:
      return read_tcp(kept, size, packet);
    case kIcmp:
      return read_unreachable(kept, packet);
    default:
      return false;
  }
}

Fate fate_in(const record::Frame& frame) {
  Fate fate;
  for (const std::string& comment : frame.comments) {
    fate.lost |= comment == record::kLostByChance || comment == record::kLostAsOrdered ||
                 comment == record::kLostByCut || comment == record::kLostAtTheEnd;
    fate.nobody_took_it |= comment == record::kLostAtTheEnd;
    fate.duplicated |= comment == record::kDuplicated;
    fate.swapped |= comment == record::kSwapped;
  }
  return fate;
}

Packet packet_of(const record::Frame& frame, const LinkHeader& link) {
  Packet packet;
  packet.at = packet.until = std::clamp<Nanoseconds>(frame.at, 0, kLatest);
  packet.frames = {frame.number, frame.number, 1};
  packet.interface = frame.interface;
  packet.fate = fate_in(frame);
  packet.source_mac = link.source;
  packet.is_broadcast = link.is_broadcast;
  return packet;
}

}  // namespace

bool Decoder::read_ip(std::string_view bytes, std::size_t wire_bytes, Ip* ip) {
  const std::size_t header_bytes = kWordBytes * (byte_at(bytes, 0) & 0xfU);
  if (byte_at(bytes, 0) >> 4 != 4 || header_bytes < kMinIpBytes || bytes.size() < header_bytes) return false;
  std::size_t total = number16_at(bytes, 2);
  if (total == 0) total = wire_bytes;  // what a network card is to divide has no length yet
  if (total < header_bytes) return false;
  const std::uint16_t fragment = number16_at(bytes, 6);
  ip->id = number16_at(bytes, 4);
  ip->offset = (fragment & 0x1fffU) * std::size_t{8};
  ip->more_fragments = (fragment & 0x2000U) != 0;
  ip->protocol = byte_at(bytes, 9);
  ip->source = number32_at(bytes, 12);
  ip->destination = number32_at(bytes, 16);
  ip->size = total - header_bytes;
  ip->kept = part_of(bytes, header_bytes, ip->size);
  return true;
}

void Decoder::take(const record::Frame& frame) {
  const std::optional<LinkHeader> link = link_header_in(frame.bytes, frame.link_type);
  Ip ip;
  if (!link || link->type != kIpv4) return;
  const std::size_t wire_bytes = std::max<std::size_t>(frame.size, frame.bytes.size()) - link->size;
  if (!read_ip(part_of(frame.bytes, link->size), wire_bytes, &ip)) return;
  Packet packet = packet_of(frame, *link);
  packet.source.address = ip.source;
  packet.destination.address = ip.destination;
  packet.is_broadcast |= ip.destination == kEverybody;
  make_room(packet.at, kMaxUnfinished, kMaxUnfinishedBytes);
  if (ip.offset > 0 || ip.more_fragments) {
    take_fragment(ip, packet);
  } else if (read_contents(ip.protocol, ip.kept, ip.size, &packet)) {
    sink_(packet);
  }
}

void Decoder::take_fragment(const Ip& ip, const Packet& frame) {
  if (ip.size == 0 || ip.offset + ip.size > kMaxIpBytes) return;
  const Key key{frame.interface, ip.source, ip.destination, ip.id, ip.protocol};
  auto found = by_key_.find(key);
  if (found == by_key_.end()) {
    make_room(frame.at, kMaxUnfinished - 1, kMaxUnfinishedBytes);
    unfinished_.push_back({key, frame, {}, 0, 0});
    unfinished_.back().packet.frames = {};
    unfinished_.back().packet.fate = {};
    found = by_key_.emplace(key, std::prev(unfinished_.end())).first;
  }
  Datagram& datagram = *found->second;
  add_piece(ip, frame, &datagram);
  if (is_complete(datagram)) hand_over(found->second);
}

void Decoder::add_piece(const Ip& ip, const Packet& frame, Datagram* datagram) {
  Packet& packet = datagram->packet;
  packet.frames.add(frame.frames);
  packet.until = std::max(packet.until, frame.until);
  packet.fate.lost |= frame.fate.lost;
  packet.fate.nobody_took_it |= frame.fate.nobody_took_it;
  packet.fate.duplicated |= frame.fate.duplicated;
  packet.fate.swapped |= frame.fate.swapped;
  if (!ip.more_fragments) datagram->total = ip.offset + ip.size;
  if (datagram->pieces.size() >= kMaxFragments) return;
  if (!datagram->pieces.emplace(ip.offset, Piece{ip.size, std::string(ip.kept)}).second) return;
  datagram->kept_bytes += ip.kept.size();
  unfinished_bytes_ += ip.kept.size();
}

bool Decoder::is_complete(const Datagram& datagram) {
  std::size_t reached = 0;
  for (const auto& [offset, piece] : datagram.pieces) {
    if (offset > reached) return false;
    reached = std::max(reached, offset + piece.size);
  }
  return datagram.total > 0 && reached >= datagram.total;
}

void Decoder::make_room(Nanoseconds now, std::size_t datagrams, std::size_t bytes) {
  while (!unfinished_.empty() && (unfinished_.size() > datagrams || unfinished_bytes_ > bytes ||
                                  now - unfinished_.front().packet.until > kPatience)) {
    hand_over(unfinished_.begin());
  }
}

void Decoder::hand_over(std::list<Datagram>::iterator place) {
  Datagram datagram = std::move(*place);
  by_key_.erase(datagram.key);
  unfinished_.erase(place);
  unfinished_bytes_ -= datagram.kept_bytes;
  std::string kept;
  std::size_t reached = 0;
  for (const auto& [offset, piece] : datagram.pieces) {
    reached = std::max(reached, offset + piece.size);
    if (offset <= kept.size()) kept += part_of(piece.kept, kept.size() - offset);
  }
  Packet& packet = datagram.packet;
  packet.is_whole = is_complete(datagram);
  if (packet.is_whole) reached = datagram.total;
  // A datagram that is not whole tells by itself how long it is.
  const std::uint8_t protocol = std::get<4>(datagram.key);
  if (!packet.is_whole && protocol == kUdp) reached = std::max<std::size_t>(reached, number16_at(kept, 4));
  if (read_contents(protocol, std::string_view(kept).substr(0, reached), reached, &packet)) sink_(packet);
}

void Decoder::finish() {
  while (!unfinished_.empty()) hand_over(unfinished_.begin());
}

std::string dotted(std::uint32_t address) {
  return std::to_string(address >> 24) + "." + std::to_string(address >> 16 & 0xffU) + "." +
         std::to_string(address >> 8 & 0xffU) + "." + std::to_string(address & 0xffU);
}

std::optional<std::uint32_t> address_in(std::string_view text) {
  std::uint32_t address = 0;
  for (int part = 0; part < 4; ++part) {
    std::uint32_t number = 0;
    std::size_t digits = 0;
    while (digits < text.size() && digits < 3 && text[digits] >= '0' && text[digits] <= '9') {
      number = number * 10 + static_cast<std::uint32_t>(text[digits++] - '0');
    }
    if (digits == 0 || number > 255) return std::nullopt;
    text.remove_prefix(digits);
    if (part < 3) {
      if (text.empty() || text.front() != '.') return std::nullopt;
      text.remove_prefix(1);
    }
    address = address << 8 | number;
  }
  if (!text.empty()) return std::nullopt;
  return address;
}

}  // namespace frames
