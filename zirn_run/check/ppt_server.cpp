#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/ip_icmp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <iomanip>
#include <optional>
#include <sstream>

#include "check/looks.h"
#include "station/addresses.h"

namespace check {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kPatience{1000};  // with each echo
constexpr int kEchoes = 2;

class Descriptor {
 public:
  explicit Descriptor(int number) : number_(number) {}
  ~Descriptor() {
    if (number_ >= 0) close(number_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int number() const { return number_; }

 private:
  const int number_;
};

std::optional<sockaddr_in> address_in(const std::string& text) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  if (inet_pton(AF_INET, text.c_str(), &address.sin_addr) != 1) return std::nullopt;
  return address;
}

std::uint16_t checksum_of(const icmphdr& header) {
  std::uint16_t words[sizeof header / 2];
  std::memcpy(words, &header, sizeof header);
  std::uint32_t sum = 0;
  for (const std::uint16_t word : words) sum += word;
  sum = (sum >> 16) + (sum & 0xFFFF);
  return static_cast<std::uint16_t>(~(sum + (sum >> 16)));
}

enum class Echo { kAnswered, kSilent, kNotAllowed };

// Whether the answer to the echo comes in time. The kernel hands a raw socket all ICMP of its peer, header of IP
// included.
bool is_answered(const Descriptor& raw, const icmphdr& echo) {
  const auto end = Clock::now() + kPatience;
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
    pollfd wait = {raw.number(), POLLIN, 0};
    if (left.count() <= 0 || poll(&wait, 1, static_cast<int>(left.count())) <= 0) return false;
    unsigned char packet[128] = {};
    const ssize_t count = recv(raw.number(), packet, sizeof packet, 0);
    const std::size_t header = std::size_t{4} * (packet[0] & 0xFU);
    icmphdr answer = {};
    if (count < static_cast<ssize_t>(header + sizeof answer)) continue;
    std::memcpy(&answer, packet + header, sizeof answer);
    if (answer.type == ICMP_ECHOREPLY && answer.un.echo.id == echo.un.echo.id) return true;
  }
}

Echo ask(const sockaddr_in& address) {
  const Descriptor raw(socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMP));
  if (raw.number() < 0) return Echo::kNotAllowed;
  if (connect(raw.number(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    return Echo::kSilent;
  for (int i = 1; i <= kEchoes; ++i) {
    icmphdr echo = {};
    echo.type = ICMP_ECHO;
    echo.un.echo.id = static_cast<std::uint16_t>(getpid());
    echo.un.echo.sequence = htons(static_cast<std::uint16_t>(i));
    echo.checksum = checksum_of(echo);
    static_cast<void>(send(raw.number(), &echo, sizeof echo, 0));
    if (is_answered(raw, echo)) return Echo::kAnswered;
  }
  return Echo::kSilent;
}

// What ARP has of the address: true: it is there; false: nobody answers for it; nothing: it was not asked, since the
// address is behind a router.
std::optional<bool> is_neighbour(const std::string& address) {
  std::ifstream table("/proc/net/arp");
  for (std::string line; std::getline(table, line);) {
    std::istringstream columns(line);
    std::string ip, kind;
    unsigned flags = 0;
    constexpr unsigned kComplete = 2;
    if (columns >> ip >> kind >> std::setbase(0) >> flags && ip == address) return (flags & kComplete) != 0;
  }
  return std::nullopt;
}

}  // namespace

Finding look_at_route(const Setup& setup) {
  const std::string& server = setup.station.ppt_server;
  const auto address = address_in(server);
  if (!address) return wrong("-s: expected an address, found \"" + server + "\"");
  const std::string way = station::way_to(server);
  return way.empty() ? wrong("no route to " + server) : ok("to " + server + " from " + way);
}

Finding look_at_ppt_server(const Setup& setup) {
  const std::string& server = setup.station.ppt_server;
  const auto address = address_in(server);
  if (!address || station::way_to(server).empty()) return not_known("there is no route to it");
  const Echo echo = ask(*address);
  if (echo == Echo::kNotAllowed) return not_known("to ask " + server + " for an echo needs CAP_NET_RAW");
  if (echo == Echo::kAnswered) return ok(server + " answers an echo; its ports are not tried");
  const std::optional<bool> is_there = is_neighbour(server);
  if (!is_there) return not_known(server + " is behind a router and answers no echo, which may be its habit");
  return *is_there ? ok(server + " is there by ARP, though it answers no echo; its ports are not tried")
                   : wrong("nobody answers for " + server);
}

}  // namespace check
