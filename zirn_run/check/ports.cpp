#include <arpa/inet.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <sstream>

#include "check/looks.h"

namespace check {

namespace {

namespace fs = std::filesystem;

constexpr int kListens = 10;  // in /proc/net/tcp
constexpr char kEverywhere[] = "0.0.0.0";

struct Socket {
  std::string address;  // IPv4's; 0.0.0.0: all
  std::uint16_t port = 0;
  int state = 0;
  std::string inode;
};

// Addresses are in words of the machine's order, as the kernel has them. What is IPv6 alone is taken for all addresses
// only where it is bound to all: such a socket may take IPv4 too.
std::string address_in(const std::string& hexadecimal) {
  constexpr std::size_t kWord = 8;  // digits
  const std::string last = hexadecimal.size() < kWord ? "0" : hexadecimal.substr(hexadecimal.size() - kWord);
  in_addr address = {static_cast<in_addr_t>(std::strtoul(last.c_str(), nullptr, 16))};
  char text[INET_ADDRSTRLEN] = {};
  inet_ntop(AF_INET, &address, text, sizeof text);
  return text;
}

bool takes_ipv4(const std::string& hexadecimal) {
  constexpr std::size_t kDigits = 8;
  const bool is_ipv4 = hexadecimal.size() == kDigits;
  const bool is_all = hexadecimal.find_first_not_of('0') == std::string::npos;
  std::ostringstream mapped;
  mapped << std::uppercase << std::hex << htonl(0xFFFF);
  const std::string word = std::string(kDigits - mapped.str().size(), '0') + mapped.str();
  return is_ipv4 || is_all ||
         (hexadecimal.size() == 4 * kDigits && hexadecimal.substr(2 * kDigits, kDigits) == word);
}

// The first socket of the protocol, "udp" or "tcp", that is wanted.
std::optional<Socket> find_socket(const std::string& protocol,
                                  const std::function<bool(const Socket&)>& is_wanted) {
  for (const char* version : {"", "6"}) {
    std::ifstream file("/proc/net/" + protocol + version);
    std::string line;
    std::getline(file, line);  // the heads of the columns
    while (std::getline(file, line)) {
      std::istringstream columns(line);
      std::string number, local, remote, state, queues, timer, repeated, user, timeout;
      Socket socket;
      columns >> number >> local >> remote >> state >> queues >> timer >> repeated >> user >> timeout >>
          socket.inode;
      const std::size_t colon = local.find(':');
      if (colon == std::string::npos || !takes_ipv4(local.substr(0, colon))) continue;
      socket.address = address_in(local.substr(0, colon));
      socket.port = static_cast<std::uint16_t>(std::strtoul(local.c_str() + colon + 1, nullptr, 16));
      socket.state = static_cast<int>(std::strtol(state.c_str(), nullptr, 16));
      if (is_wanted(socket)) return socket;
    }
  }
  return std::nullopt;
}

bool has_open(const fs::path& process, const std::string& what) {
  std::error_code error;
  for (fs::directory_iterator it(process / "fd", error), end; !error && it != end; it.increment(error)) {
    std::error_code gone;
    if (fs::read_symlink(it->path(), gone) == what) return true;
  }
  return false;
}

std::string name_of(const fs::path& process) {
  std::string name;
  std::ifstream file(process / "comm");
  std::getline(file, name);
  return name;
}

// Whose the socket is, as far as this user may see.
std::string holder_of(const Socket& socket) {
  const std::string what = "socket:[" + socket.inode + "]";
  std::error_code error;
  for (fs::directory_iterator it("/proc", error), end; !error && it != end; it.increment(error)) {
    const std::string pid = it->path().filename();
    if (pid.find_first_not_of("0123456789") != std::string::npos || !has_open(it->path(), what)) continue;
    return "process " + pid + " (" + name_of(it->path()) + ")";
  }
  return "a process that this user cannot see";
}

Finding look(const std::string& protocol, const std::string& address, std::uint16_t port) {
  const bool is_tcp = protocol == "tcp";
  const auto holder = find_socket(protocol, [&](const Socket& socket) {
    const bool is_at_it =
        address == kEverywhere || socket.address == kEverywhere || socket.address == address;
    return socket.port == port && is_at_it && (!is_tcp || socket.state == kListens);
  });
  const std::string what = (is_tcp ? "TCP port " : "UDP port ") + std::to_string(port) + " of " +
                           (address == kEverywhere ? "all addresses" : address);
  return holder ? wrong(what + " is held by " + holder_of(*holder)) : ok(what + " is free");
}

}  // namespace

Finding look_at_tftp_port(const Setup& setup) {
  const std::string& address = setup.station.address;
  return look("udp", address.empty() ? kEverywhere : address, setup.station.port);
}

Finding look_at_boot_script_port(const Setup& setup) {
  const std::string address = broadcast_address();
  if (address.empty()) return not_known("lan0:0 has no broadcast address");
  return look("udp", address, setup.station.message_port);
}

Finding look_at_relay_port(const Setup&) {
  return look("udp", station::kFixedAddress, station::kRelayPort);
}

Finding look_at_command_port(const Setup& setup) {
  return look("tcp", station::kFixedAddress, setup.station.message_port);
}

}  // namespace check
