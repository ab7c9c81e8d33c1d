#include <fstream>

#include "check/looks.h"

namespace check {

namespace {

struct Right {
  const char* name;
  int number;  // capabilities(7)
};
constexpr Right kLowPorts = {"cap_net_bind_service", 10};
constexpr Right kRawSockets = {"cap_net_raw", 13};

// Of this process; the program by hand has the same.
bool has_right(int number) {
  std::ifstream file("/proc/self/status");
  for (std::string word; file >> word;) {
    unsigned long long rights = 0;
    if (word == "CapEff:" && file >> std::hex >> rights) return (rights >> number & 1) != 0;
  }
  return false;
}

Finding look(const Right& right, const Setup& setup) {
  if (setup.rights) {
    const bool is_there = setup.rights->find(std::string(" ") + right.name + " ") != std::string::npos;
    return is_there ? ok() : wrong(std::string("the service has no right ") + right.name);
  }
  return has_right(right.number) ? ok() : wrong(std::string("this user has no right ") + right.name);
}

}  // namespace

Finding look_at_right_to_raw(const Setup& setup) {
  return look(kRawSockets, setup);
}

Finding look_at_right_to_low_ports(const Setup& setup) {
  int first_for_all = 1024;
  std::ifstream("/proc/sys/net/ipv4/ip_unprivileged_port_start") >> first_for_all;
  const auto is_free = [first_for_all](int port) { return port == 0 || port >= first_for_all; };
  if (is_free(setup.station.port) && is_free(setup.station.message_port)) return ok("no port is below 1024");
  return look(kLowPorts, setup);
}

}  // namespace check
