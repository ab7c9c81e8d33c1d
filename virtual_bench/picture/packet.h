#ifndef PICTURE_PACKET_H
#define PICTURE_PACKET_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "picture/capture.h"
#include "picture/event.h"
#include "picture/record.h"

namespace picture {

// One UDP datagram, one TCP segment, or one ICMP "port unreachable".
struct Packet {
  enum class Protocol { kUdp, kTcp, kPortUnreachable };

  Microseconds at = 0;
  Fate fate;  // of all its frames
  Protocol protocol = Protocol::kUdp;
  std::uint32_t source = 0;  // IPv4 addresses, the first byte the most significant
  std::uint32_t destination = 0;
  Lane source_lane = Lane::kStation;
  Lane target_lane = Lane::kStation;
  std::uint16_t source_port = 0;       // kPortUnreachable: 0
  std::uint16_t destination_port = 0;  // kPortUnreachable: the port that nobody listens on
  std::string_view payload;            // what the first frame holds of it
  std::size_t payload_size = 0;        // of all frames

  // kTcp
  std::uint32_t sequence = 0;
  bool syn = false;
  bool ack = false;
  bool fin = false;
  bool rst = false;
};

// The packets, whose payloads are in the capture, between station, unit and PPT server, in the capture's order; everything else is left out. The
// fragments of a datagram are one packet, at the time of the first.
std::vector<Packet> packets_in(const Capture& capture, const Fates& fates);

// Whose address it is: the broadcast address counts as the unit's. Nothing for other networks.
std::optional<Lane> lane_of(std::uint32_t address);

bool is_broadcast(std::uint32_t address);

std::string dotted(std::uint32_t address);

}  // namespace picture

#endif
