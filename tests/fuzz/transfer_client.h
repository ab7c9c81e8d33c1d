#ifndef FUZZ_TRANSFER_CLIENT_H
#define FUZZ_TRANSFER_CLIENT_H

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <utility>

#include "fuzz/script.h"
#include "tftp_server/tftp_server.h"

// A server without message service: it would connect to the PPT server and start threads.
inline TFTPServer& server_under_fuzz() {
  static TFTPServer* const server = [] {
    auto* const made = new TFTPServer(69, "", 69, "127.0.0.1", 12345);
    delete std::exchange(made->message_server, nullptr);
    close(std::exchange(made->socket_fd, -1));
    return made;
  }();
  return *server;
}

constexpr int kRequestCapacity = 512;

// A record as the server's loop makes it of a datagram.
inline std::unique_ptr<ServerClient> record_of(const std::string& datagram) {
  auto client = std::make_unique<ServerClient>();
  client->received_packet.reSize(kRequestCapacity);
  client->sent_packet.reSize(kRequestCapacity);
  client->reset();
  const std::size_t count = std::min<std::size_t>(datagram.size(), kRequestCapacity);
  std::memcpy(client->received_packet.getData(0), datagram.data(), count);
  client->received_packet.setSize(static_cast<int>(count));
  client->socket_fd = Script::current->new_descriptor();
  client->connected = 1;
  return client;
}

// The name of a request, cut as the server cuts it; empty for anything else than a read request.
inline std::string name_of_read(const std::string& datagram) {
  if (datagram.size() < 3 || datagram[0] != 0 || datagram[1] != 1) return {};
  return datagram.substr(2, std::min<std::size_t>(datagram.find('\0', 2) - 2, 255));
}

// A verdict whose name has fewer than eight characters ends the program: it is meant, and has tests of its
// own.
inline bool is_short_verdict(const std::string& datagram) {
  const std::string name = name_of_read(datagram);
  return name.rfind("F_l_m_", 0) == 0 && name.size() < 8;
}

#endif
