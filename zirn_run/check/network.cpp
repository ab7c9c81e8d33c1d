#include <arpa/inet.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <optional>

#include "check/looks.h"
#include "station/addresses.h"

namespace check {

namespace {

constexpr char kLink[] = "lan0";
constexpr char kLabel[] = "lan0:0";
constexpr char kNoLink[] = "there is no lan0";

// What the kernel says of a link, or of an address by its label, as the station's program asks it. Nothing where there
// is no such thing.
std::optional<ifreq> asked(const char* name, unsigned long what) {
  const int descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ifreq request = {};
  std::strncpy(request.ifr_name, name, IFNAMSIZ - 1);
  request.ifr_addr.sa_family = AF_INET;
  const bool is_answered = ioctl(descriptor, what, &request) == 0;
  close(descriptor);
  return is_answered ? std::optional<ifreq>(request) : std::nullopt;
}

// 0: there is none.
in_addr_t address_asked(const char* name, unsigned long what) {
  const auto answer = asked(name, what);
  if (!answer) return 0;
  sockaddr_in address = {};
  std::memcpy(&address, &answer->ifr_addr, sizeof address);
  return address.sin_addr.s_addr;
}

std::string text_of(in_addr_t address) {
  in_addr it = {address};
  char text[INET_ADDRSTRLEN] = {};
  inet_ntop(AF_INET, &it, text, sizeof text);
  return text;
}

bool has_link() {
  return if_nametoindex(kLink) != 0;
}

bool link_has(int flag) {
  const auto answer = asked(kLink, SIOCGIFFLAGS);
  return answer && (answer->ifr_flags & flag) != 0;
}

// The label of an address of the board; the link's name where it has none. Nothing: the board has no such address.
std::optional<std::string> label_of(const std::string& address) {
  for (const station::OwnAddress& own : station::own_addresses()) {
    if (own.address == address) return own.label;
  }
  return std::nullopt;
}

}  // namespace

Finding look_at_link(const Setup&) {
  return has_link() ? ok() : wrong(kNoLink);
}

Finding look_at_link_up(const Setup&) {
  if (!has_link()) return not_known(kNoLink);
  return link_has(IFF_UP) ? ok() : wrong("lan0 is down");
}

Finding look_at_carrier(const Setup&) {
  if (!has_link()) return not_known(kNoLink);
  if (!link_has(IFF_UP)) return not_known("lan0 is down");
  return link_has(IFF_RUNNING) ? ok() : wrong("lan0 has no carrier");
}

Finding look_at_label(const Setup&) {
  if (!has_link()) return not_known(kNoLink);
  if (asked(kLabel, SIOCGIFADDR)) return ok();
  const auto label = label_of(station::kFixedAddress);
  return wrong(label ? std::string("nothing has the label lan0:0; ") + station::kFixedAddress + " is on " +
                           *label
                     : "nothing has the label lan0:0");
}

Finding look_at_fixed_address(const Setup&) {
  const auto label = label_of(station::kFixedAddress);
  if (label) return ok();
  return has_link() ? wrong(std::string("the board has no address ") + station::kFixedAddress)
                    : not_known(kNoLink);
}

Finding look_at_broadcast_address(const Setup&) {
  const in_addr_t address = address_asked(kLabel, SIOCGIFADDR);
  if (address == 0) return not_known("nothing has the label lan0:0");
  const in_addr_t found = address_asked(kLabel, SIOCGIFBRDADDR);
  if (found == 0) return wrong("lan0:0 has no broadcast address");
  const in_addr_t expected = address | ~address_asked(kLabel, SIOCGIFNETMASK);
  if (found == expected) return ok("lan0:0 has " + text_of(found));
  return wrong("lan0:0 has " + text_of(found) + ", expected " + text_of(expected));
}

Finding look_at_protocols(const Setup&) {
  return getprotobyname("udp") != nullptr ? ok() : wrong("there is no udp in /etc/protocols");
}

// The units know no other address than the fixed one.
Finding look_at_served_address(const Setup& setup) {
  const std::string& address = setup.station.address;
  if (address.empty() || address == "0.0.0.0") return ok("it serves on every address");
  if (address != station::kFixedAddress) return wrong("it serves on " + address);
  return label_of(address) ? ok("it serves on " + address) : not_known("the board has no address " + address);
}

std::string broadcast_address() {
  const in_addr_t address = address_asked(kLabel, SIOCGIFBRDADDR);
  return address == 0 ? "" : text_of(address);
}

}  // namespace check
