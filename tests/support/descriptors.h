#ifndef SUPPORT_DESCRIPTORS_H
#define SUPPORT_DESCRIPTORS_H

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>

#include "sockets/sockets.h"

// What a test asks about descriptors and the sockets behind them.

inline bool is_open(int descriptor) {
  return fcntl(descriptor, F_GETFD) != -1;
}

// How many descriptors the process has open.
inline int open_descriptors() {
  int count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    static_cast<void>(entry);
    ++count;
  }
  return count;
}

// An integer option of a socket, or -1.
inline int socket_option(int descriptor, int level, int option) {
  int value = -1;
  socklen_t length = sizeof value;
  return getsockopt(descriptor, level, option, &value, &length) == 0 ? value : -1;
}

inline sockaddr_in socket_address(const std::string& ip, int port) {
  return ipv4_address(inet_addr(ip.c_str()), port);
}

// All 16 bytes as text; "172.40.0.1:69" when they are an IPv4 address with nothing else in them.
inline std::string in_words(const sockaddr_in& address) {
  const std::string ip = inet_ntoa(address.sin_addr);
  const int port = ntohs(address.sin_port);
  const sockaddr_in plain = socket_address(ip, port);
  const bool is_plain = std::memcmp(&plain, &address, sizeof plain) == 0;
  return ip + ":" + std::to_string(port) + (is_plain ? "" : " and something else");
}

// What a socket is bound to.
inline std::string bound_to(int descriptor) {
  sockaddr_in address = {};
  socklen_t length = sizeof address;
  getsockname(descriptor, as_sockaddr(&address), &length);
  return in_words(address);
}

// A descriptor to give away, and the knowledge of whether it was closed.
class WatchedDescriptor {
 public:
  WatchedDescriptor() {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
      throw std::runtime_error(std::string("socketpair: ") + std::strerror(errno));
    }
    given_ = ends[0];
    kept_ = ends[1];
  }
  ~WatchedDescriptor() { ::close(kept_); }
  WatchedDescriptor(const WatchedDescriptor&) = delete;
  WatchedDescriptor& operator=(const WatchedDescriptor&) = delete;

  // Whoever is given it closes it.
  int number() const { return given_; }
  bool is_closed() const {
    pollfd state{kept_, POLLIN, 0};
    return poll(&state, 1, 0) == 1 && (state.revents & POLLHUP) != 0;
  }

 private:
  int given_;
  int kept_;
};

// Makes a descriptor number 0 while it lives.
class InPlaceOfStandardInput {
 public:
  explicit InPlaceOfStandardInput(int descriptor) : saved_(dup(STDIN_FILENO)) {
    dup2(descriptor, STDIN_FILENO);
    close(descriptor);
  }
  ~InPlaceOfStandardInput() {
    if (saved_ == -1) {
      close(STDIN_FILENO);
      return;
    }
    dup2(saved_, STDIN_FILENO);
    close(saved_);
  }
  InPlaceOfStandardInput(const InPlaceOfStandardInput&) = delete;
  InPlaceOfStandardInput& operator=(const InPlaceOfStandardInput&) = delete;

 private:
  int saved_;
};

// A TCP address that the test holds. Listening, it takes connections; otherwise they are refused.
class TcpAddress {
 public:
  // Port 0 lets the system choose.
  explicit TcpAddress(const std::string& ip, int port = 0, bool listening = true)
      : descriptor_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address = socket_address(ip, port);
    const int on = 1;
    setsockopt(descriptor_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (bind(descriptor_, as_sockaddr(&address), sizeof address) != 0 ||
        (listening && listen(descriptor_, 5) != 0)) {
      throw std::runtime_error("cannot hold " + ip + ":" + std::to_string(port) + ": " +
                               std::strerror(errno));
    }
  }
  ~TcpAddress() {
    if (connection_ != -1) close(connection_);
    close(descriptor_);
  }
  TcpAddress(const TcpAddress&) = delete;
  TcpAddress& operator=(const TcpAddress&) = delete;

  std::uint16_t port() const {
    sockaddr_in address = {};
    socklen_t length = sizeof address;
    getsockname(descriptor_, as_sockaddr(&address), &length);
    return ntohs(address.sin_port);
  }
  // Takes the next connection; the address that it comes from, or "nobody" after the patience.
  std::string takes_connection_from(int patience_milliseconds = 10000) {
    return accepts(std::chrono::milliseconds(patience_milliseconds)).value_or("nobody");
  }
  // The same, in the place of the connection taken before; nothing after the patience.
  std::optional<std::string> accepts(std::chrono::milliseconds patience = std::chrono::seconds(10)) {
    if (!readable(descriptor_, patience)) return std::nullopt;
    sockaddr_in address = {};
    socklen_t length = sizeof address;
    if (connection_ != -1) close(connection_);
    connection_ = accept(descriptor_, as_sockaddr(&address), &length);
    return inet_ntoa(address.sin_addr);
  }
  // The next bytes on the connection taken, at most this many, or nothing after the patience.
  std::string reads(std::size_t count, int patience_milliseconds = 10000) const {
    return receives(std::chrono::milliseconds(patience_milliseconds), count).value_or("");
  }
  // The same; empty when it was closed, nothing after the patience.
  std::optional<std::string> receives(std::chrono::milliseconds patience, std::size_t count = 4096) const {
    if (!readable(connection_, patience)) return std::nullopt;
    std::string bytes(count, '\0');
    const ssize_t received = recv(connection_, bytes.data(), count, 0);
    bytes.resize(received < 0 ? 0 : static_cast<std::size_t>(received));
    return bytes;
  }

 private:
  static bool readable(int descriptor, std::chrono::milliseconds patience) {
    pollfd waiting{descriptor, POLLIN, 0};
    return poll(&waiting, 1, static_cast<int>(patience.count())) > 0;
  }

  int descriptor_;
  int connection_ = -1;
};

#endif
