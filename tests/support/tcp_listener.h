#ifndef SUPPORT_TCP_LISTENER_H
#define SUPPORT_TCP_LISTENER_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>

// A place that takes TCP connections and only looks at what comes over the last one.
class TcpListener {
 public:
  using Milliseconds = std::chrono::milliseconds;

  TcpListener(const std::string& ip, int port) : listening_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = inet_addr(ip.c_str());
    const int on = 1;
    setsockopt(listening_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (bind(listening_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        listen(listening_, 5) != 0) {
      throw std::runtime_error("cannot listen on " + ip + ": " + std::strerror(errno));
    }
  }
  ~TcpListener() {
    if (connection_ != -1) close(connection_);
    close(listening_);
  }
  TcpListener(const TcpListener&) = delete;
  TcpListener& operator=(const TcpListener&) = delete;

  // Waits for a connection and takes it. The address it came from, or nothing when none came in time.
  std::optional<std::string> accepts(Milliseconds patience = std::chrono::seconds(10)) {
    if (!readable(listening_, patience)) return std::nullopt;
    sockaddr_in address = {};
    socklen_t length = sizeof address;
    if (connection_ != -1) close(connection_);
    connection_ = accept(listening_, reinterpret_cast<sockaddr*>(&address), &length);
    return inet_ntoa(address.sin_addr);
  }
  // What comes next over the connection: empty when it was closed, nothing when it stayed silent.
  std::optional<std::string> receives(Milliseconds patience) const {
    if (!readable(connection_, patience)) return std::nullopt;
    char bytes[4096];
    const ssize_t count = recv(connection_, bytes, sizeof bytes, 0);
    return std::string(bytes, static_cast<std::size_t>(count > 0 ? count : 0));
  }

 private:
  static bool readable(int descriptor, Milliseconds patience) {
    pollfd waiting{descriptor, POLLIN, 0};
    return poll(&waiting, 1, static_cast<int>(patience.count())) > 0;
  }

  int listening_;
  int connection_ = -1;
};

#endif
