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
constexpr char kPptServerMac[] = "02:00:ac:1e:00:fe";
constexpr in_addr_t kPptNetwork = 0xac1e0000;  // 172.30.0.0/24
constexpr in_addr_t kNetworkMask = 0xffffff00;
constexpr in_addr_t kStationHost = 1;
constexpr in_addr_t kBroadcastHost = 255;
constexpr std::size_t kFirstUnitHost = 2;

void set_up(const NetworkNamespace& place, const std::string& device, const std::string& address) {
  ip(place, "address add " + address + " dev " + device);
  ip(place, "link set " + device + " up");
}

std::string address_of(std::size_t unit) {
  return "172.40.0." + std::to_string(kFirstUnitHost + unit) + "/24 broadcast 172.40.0.255";
}

Wire::Ends ends_of_test_network(const Wire::End& station, const std::list<NetworkNamespace>& units) {
  Wire::Ends ends = {station};
  for (const NetworkNamespace& unit : units) ends.push_back({unit, "lan0"});
  return ends;
}

bool is_for_ppt_server(const std::string& text) {
  in_addr address = {};
  if (inet_aton(text.c_str(), &address) == 0) return false;
  const in_addr_t host = ntohl(address.s_addr) & ~kNetworkMask;
  return (ntohl(address.s_addr) & kNetworkMask) == kPptNetwork && host > kStationHost &&
         host < kBroadcastHost;
}

}  // namespace

Network::Network(const std::string& record, std::uint64_t seed, const Link& link, std::size_t count)
    : station(NetworkNamespace::current()),
      units(count),
      wire_(record, seed,
            {ends_of_test_network({station, link.name}, units), {{station, "ppt0"}, {ppt_server, "ppt0"}}}),
      ppt_server_address_(kPptServerIp) {
  const std::string broadcast = link.has_broadcast_address ? "172.40.0.255" : "0.0.0.0";
  set_up(station, link.name, link.address + "/24 broadcast " + broadcast + " label " + link.name + ":0");
  set_up(station, "ppt0", "172.30.0.1/24");
  for (std::size_t unit = 0; unit < units.size(); ++unit) set_up(place_of(unit), "lan0", address_of(unit));
  ip(ppt_server, std::string("link set ppt0 address ") + kPptServerMac);
  set_up(ppt_server, "ppt0", ppt_server_address_ + "/24");
}

const NetworkNamespace& Network::place_of(std::size_t unit) const {
  return *std::next(units.begin(), static_cast<std::ptrdiff_t>(unit));
}

void Network::remove_unit(std::size_t unit) const {
  ip(place_of(unit), "address flush dev lan0");
}

void Network::restore_unit(std::size_t unit) const {
  set_up(place_of(unit), "lan0", address_of(unit));
}

void Network::move_ppt_server(const std::string& address) {
  if (address == ppt_server_address_ || !is_for_ppt_server(address)) return;
  ip(ppt_server, "address delete " + ppt_server_address_ + "/24 dev ppt0");
  ip(ppt_server, "address add " + address + "/24 dev ppt0");
  ppt_server_address_ = address;
}

void Network::remove_ppt_server() const {
  ip(ppt_server, "link set ppt0 down");
}

// The station needs no ARP for it any more.
void Network::drop_what_ppt_server_gets() const {
  ip(station,
     "neighbour replace " + ppt_server_address_ + " lladdr " + kPptServerMac + " dev ppt0 nud permanent");
  remove_ppt_server();
}

void Network::restore_ppt_server() const {
  ip(ppt_server, "link set ppt0 up");
}

void Network::forbid_ppt_server() const {
  ip(station, "route add prohibit " + ppt_server_address_);
}

TakenPort::TakenPort(const NetworkNamespace& place, int kind, int port) {
  const ScopedNamespace inside(place);
  socket_ = socket(AF_INET, kind | SOCK_CLOEXEC, 0);
  sockaddr_in all = ipv4_address(INADDR_ANY, port);
  const bool is_taken = socket_ >= 0 && bind(socket_, as_sockaddr(&all), sizeof all) == 0;
  if (is_taken && (kind == SOCK_DGRAM || listen(socket_, 1) == 0)) return;
  const std::string reason = std::strerror(errno);
  close(socket_);
  throw std::runtime_error("port " + std::to_string(port) + ": " + reason);
}

TakenPort::~TakenPort() {
  close(socket_);
}
