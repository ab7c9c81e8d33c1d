#ifndef SUPPORT_TCP_PEER_H
#define SUPPORT_TCP_PEER_H

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>
#include <string>
#include <utility>

#include "support/descriptors.h"

// The other side of a TCP connection that the program takes, driven by the test. Failures are reported to
// GoogleTest at once. Its own calls are none that a Fault counts.
class TcpPeer {
 public:
  using Milliseconds = std::chrono::milliseconds;
  static constexpr Milliseconds kPatience = std::chrono::seconds(10);

  // Connects; throws when that is refused.
  TcpPeer(const std::string& ip, int port) : descriptor_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address = socket_address(ip, port);
    if (connect(descriptor_, as_sockaddr(&address), sizeof address) != 0) {
      const std::string reason = std::strerror(errno);
      close(descriptor_);
      throw std::runtime_error("cannot connect to " + ip + ":" + std::to_string(port) + ": " + reason);
    }
  }
  ~TcpPeer() { closes(); }
  TcpPeer(TcpPeer&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
  TcpPeer(const TcpPeer&) = delete;
  TcpPeer& operator=(const TcpPeer&) = delete;

  // In one segment.
  void sends(std::string text) const {
    iovec segment{text.data(), text.size()};
    msghdr message = {};
    message.msg_iov = &segment;
    message.msg_iovlen = 1;
    ASSERT_EQ(sendmsg(descriptor_, &message, MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
  }
  // What comes next is exactly this text.
  void expects(const std::string& text, Milliseconds patience = kPatience) const {
    std::string received;
    while (received.size() < text.size() && readable(patience)) {
      char bytes[4096];
      const ssize_t count = read(descriptor_, bytes, sizeof bytes);
      if (count <= 0) break;
      received.append(bytes, static_cast<std::size_t>(count));
    }
    EXPECT_EQ(received, text);
  }
  // What comes next, empty at the end of the connection.
  std::string reads(Milliseconds patience = kPatience) const {
    char bytes[4096];
    const ssize_t count = readable(patience) ? read(descriptor_, bytes, sizeof bytes) : 0;
    return {bytes, static_cast<std::size_t>(count > 0 ? count : 0)};
  }
  void asks(const std::string& text, const std::string& reply) const {
    SCOPED_TRACE("asking " + text);
    sends(text);
    expects(reply);
  }
  // Neither text nor the end of the connection comes in this time.
  void expects_nothing(Milliseconds time = Milliseconds(150)) const { EXPECT_FALSE(readable(time)); }
  // The connection is ended by the other side.
  void expects_end(Milliseconds patience = kPatience) const {
    ASSERT_TRUE(readable(patience)) << "still open";
    char byte;
    EXPECT_LE(read(descriptor_, &byte, 1), 0);
  }

  void closes() {
    if (descriptor_ != -1) close(std::exchange(descriptor_, -1));
  }
  void ends_its_texts() const { shutdown(descriptor_, SHUT_WR); }
  void resets() {
    const linger at_once{1, 0};
    setsockopt(descriptor_, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    closes();
  }

 private:
  bool readable(Milliseconds patience) const {
    pollfd waiting{descriptor_, POLLIN, 0};
    return poll(&waiting, 1, static_cast<int>(patience.count())) > 0;
  }

  int descriptor_;
};

#endif
