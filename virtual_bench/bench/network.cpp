#include "bench/network.h"

#include <signal.h>

#include <fstream>
#include <optional>
#include <sstream>
#include <stdexcept>

namespace {

std::string content(const std::string& file) {
  std::ostringstream text;
  text << std::ifstream(file).rdbuf();
  return text.str();
}

std::string link(const NetworkNamespace& one, const std::string& name, const NetworkNamespace& other,
                 const std::string& other_name) {
  return one.path() + "=" + name + "," + other.path() + "=" + other_name;
}

void ip_up(const NetworkNamespace& there, const std::string& device, const std::string& address) {
  ip(there, "address add " + address + " dev " + device);
  ip(there, "link set " + device + " up");
}

}  // namespace

Network::Network(const std::string& wire, const std::string& capture, const std::string& fates,
                 const std::string& errors, int seed, const std::string& station_link)
    : station(NetworkNamespace::current()),
      wire_({wire, capture, fates, std::to_string(seed), link(station, station_link, unit, "lan0"),
             link(station, "ppt0", ppt_server, "ppt0")},
            [&] { append_errors_to(errors); }) {
  const auto ready = [&] { return wire_.read_line() == "ready" || wire_.end().has_value(); };
  if (!wait_until(ready) || wire_.end()) throw std::runtime_error("no wire: " + content(errors));
  ip_up(station, station_link, "172.40.0.1/24 broadcast 172.40.0.255 label " + station_link + ":0");
  ip_up(station, "ppt0", "172.30.0.1/24");
  ip_up(unit, "lan0", "172.40.0.2/24 broadcast 172.40.0.255");
  ip_up(ppt_server, "ppt0", "172.30.0.254/24");
}

Network::~Network() {
  wire_.send_signal(SIGTERM);
  wire_.wait_for_end();
}

void Network::orders(const std::string& order) {
  wire_.write_line(order);
  std::optional<std::string> answer;
  wait_until([&] { return (answer = wire_.read_line()).has_value() || wire_.end(); });
  if (answer != "ok") throw std::runtime_error("wire, " + order + ": " + answer.value_or("no answer"));
}
