#ifndef SUPPORT_UDP_PEER_H
#define SUPPORT_UDP_PEER_H

#include <netinet/in.h>

#include <chrono>
#include <optional>
#include <string>

// The other side of a UDP exchange, driven by the test: it sends what it is told and checks what it gets. It
// answers whoever wrote to it last, as TFTP peers do. Failures are reported to GoogleTest at once, with the
// exchange so far.
class UdpPeer {
 public:
  using Milliseconds = std::chrono::milliseconds;
  static constexpr Milliseconds kPatience = std::chrono::seconds(10);

  // Bound to the address and port; 0 lets the system choose the port. Throws when that is not possible.
  explicit UdpPeer(const std::string& ip = "127.0.0.1", int port = 0);
  ~UdpPeer();
  UdpPeer(UdpPeer&& other) noexcept;
  UdpPeer(const UdpPeer&) = delete;
  UdpPeer& operator=(const UdpPeer&) = delete;

  int port() const;
  int descriptor() const { return descriptor_; }

  // Where sends goes until the next datagram arrives.
  void aims_at(const std::string& ip, int port);
  void sends(const std::string& datagram);
  // The next datagram, or nothing when none came in time.
  std::optional<std::string> receives(Milliseconds patience = kPatience);
  // The next datagram has exactly these bytes. False, and a failure, when not.
  bool expects(const std::string& datagram, Milliseconds patience = kPatience);
  // No datagram comes in this time.
  void expects_nothing(Milliseconds time);
  // Port and address of whoever wrote last.
  int their_port() const;
  std::string their_ip() const;
  // Every datagram so far, in words and with times.
  const std::string& log() const { return log_; }

 private:
  void note(const char* arrow, const std::string& datagram);

  int descriptor_;
  sockaddr_in them_ = {};
  std::chrono::steady_clock::time_point start_;
  std::string log_;
};

// Reads a whole file by TFTP as a client would, and acknowledges everything. Options as sent; the block size
// is taken from the OACK. Nothing when the server sent an ERROR or went silent.
std::optional<std::string> read_by_tftp(UdpPeer& peer, const std::string& request);

#endif
