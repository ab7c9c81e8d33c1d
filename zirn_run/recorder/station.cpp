#include "recorder/station.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>

#include "station/addresses.h"

namespace recorder {

namespace {

bool is_address(const std::string& text) {
  in_addr address = {};
  return inet_pton(AF_INET, text.c_str(), &address) == 1;
}

}  // namespace

Words addresses_of(const Words& links) {
  Words addresses;
  for (const station::OwnAddress& own : station::own_addresses()) {
    const auto is_it = [link = station::link_of(own.label)](const std::string& one) {
      return one == "any" || one == link;
    };
    if (std::any_of(links.begin(), links.end(), is_it)) addresses.push_back(own.address);
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
