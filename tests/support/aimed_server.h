#ifndef SUPPORT_AIMED_SERVER_H
#define SUPPORT_AIMED_SERVER_H

#include <sys/socket.h>

#include "message_server/message_server.h"
#include "support/descriptors.h"
#include "support/udp_peer.h"

// A message server whose sender aims at the peer over the loopback interface.
class AimedServer : public MessageServer {
 public:
  explicit AimedServer(const UdpPeer& peer) : MessageServer(peer.port()) {
    sender_socket = socket(AF_INET, SOCK_DGRAM, 0);
    sender_address = socket_address("127.0.0.1", peer.port());
  }
};

#endif
