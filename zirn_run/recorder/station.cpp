#include "recorder/station.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>

#include <algorithm>
#include <memory>

namespace recorder {

namespace {

bool is_address(const std::string& text) {
  in_addr address = {};
  return inet_pton(AF_INET, text.c_str(), &address) == 1;
}

}  // namespace

Words addresses_of(const Words& links) {
  ifaddrs* all = nullptr;
  if (getifaddrs(&all) != 0) return {};
  const std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> owner(all, freeifaddrs);
  Words addresses;
  for (const ifaddrs* it = all; it != nullptr; it = it->ifa_next) {
    if (it->ifa_addr == nullptr || it->ifa_addr->sa_family != AF_INET) continue;
    const std::string name = it->ifa_name;
    const std::string link = name.substr(0, name.find(':'));  // without a label
    const auto is_it = [&link](const std::string& one) { return one == "any" || one == link; };
    if (std::none_of(links.begin(), links.end(), is_it)) continue;
    char text[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(it->ifa_addr)->sin_addr, text, sizeof text);
    addresses.emplace_back(text);
  }
  return addresses;
}

std::string expression_for(const Station& station, const Words& own_addresses) {
  std::set<std::string> hosts = {station::kFixedAddress, station.ppt_server};
  if (is_address(station.address) && station.address != "0.0.0.0") {
    hosts.insert(station.address);
  } else {
    hosts.insert(own_addresses.begin(), own_addresses.end());
  }
  const std::string port = std::to_string(station.message_port);
  std::string expression = "(udp or icmp or tcp port " + port + ") and (udp dst port " + port;
  for (const std::string& host : hosts) {
    if (is_address(host)) expression += " or host " + host;
  }
  return expression + ")";
}

std::set<std::uint16_t> ports_without_files(const Station& station) {
  return {station.port, station.ppt_port, station.message_port, station::kRelayPort};
}

}  // namespace recorder
