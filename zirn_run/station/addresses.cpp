#include "station/addresses.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>

namespace station {

namespace {

std::string text_of(in_addr address) {
  char text[INET_ADDRSTRLEN] = {};
  inet_ntop(AF_INET, &address, text, sizeof text);
  return text;
}

}  // namespace

std::vector<OwnAddress> own_addresses() {
  ifaddrs* all = nullptr;
  if (getifaddrs(&all) != 0) return {};
  const std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> owner(all, freeifaddrs);
  std::vector<OwnAddress> addresses;
  for (const ifaddrs* it = all; it != nullptr; it = it->ifa_next) {
    if (it->ifa_addr == nullptr || it->ifa_addr->sa_family != AF_INET) continue;
    addresses.push_back(
        {it->ifa_name, text_of(reinterpret_cast<const sockaddr_in*>(it->ifa_addr)->sin_addr)});
  }
  return addresses;
}

std::string link_of(const std::string& label) {
  return label.substr(0, label.find(':'));
}

// A connected socket of UDP asks the kernel and sends nothing.
std::string way_to(const std::string& other) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  constexpr std::uint16_t kAnyPort = 69;
  address.sin_port = htons(kAnyPort);
  if (inet_pton(AF_INET, other.c_str(), &address.sin_addr) != 1) return "";
  const int udp = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (udp < 0) return "";
  socklen_t size = sizeof address;
  const bool has_way = connect(udp, reinterpret_cast<const sockaddr*>(&address), size) == 0 &&
                       getsockname(udp, reinterpret_cast<sockaddr*>(&address), &size) == 0;
  close(udp);
  return has_way ? text_of(address.sin_addr) : "";
}

}  // namespace station
