#include "support/udp_peer.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <utility>
#include <vector>

#include "support/descriptors.h"
#include "support/tftp_bytes.h"

namespace {

constexpr std::size_t kLargestDatagram = 65536;

int acknowledged_block_size(const std::string& oack) {
  const std::size_t name = oack.find(tftp::bytes("blksize\0"));
  return name == std::string::npos ? 512 : std::atoi(oack.c_str() + name + sizeof "blksize");
}

}  // namespace

UdpPeer::UdpPeer(const std::string& ip, int port)
    : descriptor_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)), start_(std::chrono::steady_clock::now()) {
  sockaddr_in address = socket_address(ip, port);
  const int on = 1;
  setsockopt(descriptor_, SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
  if (bind(descriptor_, as_sockaddr(&address), sizeof address) != 0) {
    throw std::runtime_error("cannot bind " + ip + ":" + std::to_string(port) + ": " + std::strerror(errno));
  }
}

UdpPeer::~UdpPeer() {
  if (descriptor_ != -1) close(descriptor_);
}

UdpPeer::UdpPeer(UdpPeer&& other) noexcept
    : descriptor_(std::exchange(other.descriptor_, -1)),
      them_(other.them_),
      start_(other.start_),
      log_(std::move(other.log_)) {}

int UdpPeer::port() const {
  sockaddr_in address = {};
  socklen_t length = sizeof address;
  getsockname(descriptor_, as_sockaddr(&address), &length);
  return ntohs(address.sin_port);
}

void UdpPeer::aims_at(const std::string& ip, int port) {
  them_ = socket_address(ip, port);
}

void UdpPeer::sends(const std::string& datagram) {
  note("->", datagram);
  const ssize_t sent =
      sendto(descriptor_, datagram.data(), datagram.size(), 0, as_sockaddr(&them_), sizeof them_);
  ASSERT_EQ(sent, static_cast<ssize_t>(datagram.size())) << std::strerror(errno);
}

std::optional<std::string> UdpPeer::receives(Milliseconds patience) {
  pollfd waiting{descriptor_, POLLIN, 0};
  if (poll(&waiting, 1, static_cast<int>(patience.count())) <= 0) return std::nullopt;
  std::vector<char> buffer(kLargestDatagram);
  socklen_t length = sizeof them_;
  const ssize_t count = recvfrom(descriptor_, buffer.data(), buffer.size(), 0, as_sockaddr(&them_), &length);
  if (count < 0) return std::nullopt;
  std::string datagram(buffer.data(), static_cast<std::size_t>(count));
  note("<-", datagram);
  return datagram;
}

bool UdpPeer::expects(const std::string& datagram, Milliseconds patience) {
  const std::optional<std::string> received = receives(patience);
  if (!received) {
    ADD_FAILURE() << "nothing came; expected " << tftp::in_words(datagram) << "\nso far:\n" << log_;
    return false;
  }
  EXPECT_EQ(tftp::in_words(*received), tftp::in_words(datagram)) << "so far:\n" << log_;
  // Long datagrams are not shown whole.
  EXPECT_TRUE(*received == datagram) << "so far:\n" << log_;
  return *received == datagram;
}

void UdpPeer::expects_nothing(Milliseconds time) {
  const std::optional<std::string> received = receives(time);
  EXPECT_FALSE(received.has_value()) << "so far:\n" << log_;
}

int UdpPeer::their_port() const {
  return ntohs(them_.sin_port);
}

std::string UdpPeer::their_ip() const {
  return inet_ntoa(them_.sin_addr);
}

void UdpPeer::note(const char* arrow, const std::string& datagram) {
  const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start_;
  char head[64];
  std::snprintf(head, sizeof head, "%8.3f s %s port %d ", time.count(), arrow, their_port());
  log_ += head + tftp::in_words(datagram) + "\n";
}

std::optional<std::string> read_by_tftp(UdpPeer& peer, const std::string& request) {
  peer.sends(request);
  std::optional<std::string> datagram = peer.receives();
  std::size_t block_size = 512;
  if (datagram && datagram->size() >= 2 && (*datagram)[1] == 6) {
    block_size = static_cast<std::size_t>(acknowledged_block_size(*datagram));
    peer.sends(tftp::ack(0));
    datagram = peer.receives();
  }
  std::string contents;
  for (int block = 1; datagram; ++block, datagram = peer.receives()) {
    const std::string head = tftp::data(block, "");
    if (datagram->substr(0, head.size()) != head) break;
    contents += datagram->substr(head.size());
    peer.sends(tftp::ack(block));
    if (datagram->size() - head.size() < block_size) return contents;
  }
  return std::nullopt;
}
