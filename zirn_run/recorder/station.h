#ifndef RECORDER_STATION_H
#define RECORDER_STATION_H

#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace recorder {

using Words = std::vector<std::string>;

// What the station's command line says of its frames. The defaults are those of the station's program.
struct Station {
  std::string address = "127.0.0.1";  // where it serves; empty: everywhere
  std::string ppt_server = "172.30.0.254";
  std::uint16_t port = 69;
  std::uint16_t ppt_port = 69;
  std::uint16_t message_port = 12345;
};

// Reads the options, as the station's program does; other words are passed over.
Station station_of(const Words& options);

// The options of a systemd unit's command line, with the variables of its environment files in their places. Empty
// where systemd does not know the unit.
Words options_of_unit(const std::string& unit);

// The IPv4 addresses of the links; "any" is all links.
Words addresses_of(const Words& links);

// A filter expression for the station's own frames: to and from its addresses, with UDP, ICMP, and TCP on its message
// port. `own_addresses` are those that it has where it serves everywhere.
std::string expression_for(const Station& station, const Words& own_addresses);

// The ports whose datagrams are no contents of files.
std::set<std::uint16_t> ports_without_files(const Station& station);

}  // namespace recorder

#endif
