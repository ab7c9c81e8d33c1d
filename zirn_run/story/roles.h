#ifndef STORY_ROLES_H
#define STORY_ROLES_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "frames/packet.h"
#include "frames/tftp_message.h"
#include "story/book.h"

namespace story {

// What the one who asks knows of the run. What is absent follows from the run itself.
struct Given {
  std::vector<std::uint32_t> station;  // its addresses, all of them
  std::optional<std::uint32_t> ppt_server;
  std::optional<std::uint16_t> tftp_port;
  std::optional<std::uint16_t> ppt_port;
  std::optional<std::uint16_t> message_port;
};

inline constexpr std::uint16_t kRelayPort = 12345;  // whatever the message port is

// Who is who. What was given counts; then what the run's command line says, or the station's line "Starting
// TFTP server on"; then what they do:
//
// - The station is who broadcasts the boot script, is asked for a file on the TFTP port, or asks for a verdict
//   by the name that only the station makes (query_for). For each of these three the first address counts,
//   so that a second station in the record is none.
// - The PPT server is whom the station asks so, or else the first one that is no unit and that the station
//   connects to on the message port.
// - As long as the station was not seen to talk to the PPT server, whoever does so on one of its ports, and is
//   no unit, is the station (it has an address on either network).
// - A unit is who sends anything to the station's TFTP port or relay, or connects to its message port.
// - All others are others.
//
// An address of which it turns out later that it is the station's becomes the station's in all that was told.
class Roles {
 public:
  Roles(const Given& given, Book* book);

  void read_command(const std::string& command);
  void read_line(std::string_view line);
  // To be told of every packet before its parties are asked for.
  void learn(const frames::Packet& packet, const frames::TftpMessage& message);

  std::size_t sender_of(const frames::Packet& packet);
  std::size_t receiver_of(const frames::Packet& packet);

  bool is_boot_script(const frames::Packet& packet) const;

 private:
  enum Evidence { kBroadcasts, kServes, kTalksToPpt, kEvidences };

  bool is(Role role, std::uint32_t address) const;
  std::size_t party_of(std::uint32_t address);
  void find_station(std::uint32_t address, Evidence evidence);
  void make_station(std::uint32_t address);
  void make_ppt_server(std::uint32_t address);
  void learn_from_ports(const frames::Packet& packet);
  void learn_unit(const frames::Packet& packet);

  const Given given_;
  Book* const book_;
  std::map<std::uint32_t, std::size_t> parties_;  // by address
  bool has_station_[kEvidences] = {};
  bool has_ppt_server_ = false;
};

}  // namespace story

#endif
