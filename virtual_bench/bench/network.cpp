#include "bench/network.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "sockets/sockets.h"

namespace {

constexpr char kPptServerIp[] = "172.30.0.254";
constexpr in_addr_t kPptNetwork = 0xac1e0000;  // 172.30.0.0/24
constexpr in_addr_t kNetworkMask = 0xffffff00;
constexpr in_addr_t kStationHost = 1;
constexpr in_addr_t kBroadcastHost = 255;

void set_up(const NetworkNamespace& place, const std::string& device, const std::string& address) {
  ip(place, "address add " + address + " dev " + device);
  ip(place, "link set " + device + " up");
}

bool is_for_ppt_server(const std::string& text) {
  in_addr address = {};
  if (inet_aton(text.c_str(), &address) == 0) return false;
  const in_addr_t host = ntohl(address.s_addr) & ~kNetworkMask;
  return (ntohl(address.s_addr) & kNetworkMask) == kPptNetwork && host > kStationHost &&
         host < kBroadcastHost;
}

}  // namespace

Network::Network(const std::string& record, std::uint64_t seed, const std::string& station_link)
    : station(NetworkNamespace::current()),
      wire_(record, seed,
            {{{{station, station_link}, {unit, "lan0"}}}, {{{station, "ppt0"}, {ppt_server, "ppt0"}}}}),
      ppt_server_address_(kPptServerIp) {
  set_up(station, station_link, "172.40.0.1/24 broadcast 172.40.0.255 label " + station_link + ":0");
  set_up(station, "ppt0", "172.30.0.1/24");
  set_up(unit, "lan0", "172.40.0.2/24 broadcast 172.40.0.255");
  set_up(ppt_server, "ppt0", ppt_server_address_ + "/24");
}

void Network::move_ppt_server(const std::string& address) {
  if (address == ppt_server_address_ || !is_for_ppt_server(address)) return;
  ip(ppt_server, "address delete " + ppt_server_address_ + "/24 dev ppt0");
  ip(ppt_server, "address add " + address + "/24 dev ppt0");
  ppt_server_address_ = address;
}

TakenPort::TakenPort(const NetworkNamespace& place, int port) {
  const ScopedNamespace inside(place);
  socket_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in all = ipv4_address(INADDR_ANY, port);
  if (socket_ >= 0 && bind(socket_, as_sockaddr(&all), sizeof all) == 0) return;
  const std::string reason = std::strerror(errno);
  close(socket_);
  throw std::runtime_error("port " + std::to_string(port) + ": " + reason);
}

TakenPort::~TakenPort() {
  close(socket_);
}
