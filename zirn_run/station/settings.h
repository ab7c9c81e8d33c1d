#ifndef STATION_SETTINGS_H
#define STATION_SETTINGS_H

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace station {

using Words = std::vector<std::string>;

// The relay and the command port have this address, and the relay this port, whatever the command line says.
inline constexpr char kFixedAddress[] = "172.40.0.1";
inline constexpr std::uint16_t kRelayPort = 12345;

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

// How the system runs the station's program.
struct Service {
  bool is_known = false;  // to the system
  bool is_unit = false;   // systemd's; else an init script
  Words options;          // with the variables of its files in their places
  std::string folder;     // where it serves files from
  std::string path;       // its PATH
  std::string rights;     // its capabilities, as cap_net_raw, between blanks
  std::string state;      // as "active"; empty: no run is under way
  pid_t process = 0;      // 0: none
};

// A systemd unit. Not known, and empty, where systemd does not know it.
Service service_of(const std::string& unit);

// The same of an init script, with its settings in /etc/default. Its rights are those of root.
Service init_script_of(const std::string& name);

}  // namespace station

#endif
