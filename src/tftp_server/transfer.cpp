#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <iostream>
#include <memory>

#include "sockets/sockets.h"
#include "tftp_server/tftp_server.h"

namespace {

constexpr int kMaxRetries = 10;  // known behaviour 15

// Waits for one datagram and receives it, in one call: the limit of the wait is a property of the socket, set
// when it changes, and a block costs no select. Every failure is told apart as it would be there: no time
// left is the time-out, an interruption or a socket that is gone a failed wait, anything else a failed
// receive. read_set is left as select leaves it.
ServerClient::ReceiveStatus receive_in_time(ServerClient* client, ssize_t* count) {
  if (!fits_descriptor_set(client->socket_fd)) return ServerClient::kWaitFailed;
  FD_ZERO(&client->read_set);
  FD_SET(client->socket_fd, &client->read_set);
  if (!client->limitWait()) return ServerClient::kWaitFailed;
  // A datagram from any address or port is taken as the client's (known behaviour 14).
  sockaddr_in anyone;
  socklen_t anyone_length = sizeof anyone;
  TFTP_Packet& packet = client->received_packet;
  const int flags = client->timeout == 0 ? MSG_DONTWAIT : 0;  // as a limit, 0 would be none
  *count = recvfrom(client->socket_fd, packet.getData(0), static_cast<std::size_t>(packet.receivableSize()),
                    flags, as_sockaddr(&anyone), &anyone_length);
  if (*count >= 0) return ServerClient::kReceived;
  if (errno == EAGAIN) {
    FD_ZERO(&client->read_set);
    return ServerClient::kTimedOut;
  }
  const bool wait_failed = errno == EINTR || errno == EBADF || errno == ENOTSOCK;
  return wait_failed ? ServerClient::kWaitFailed : ServerClient::kReceiveFailed;
}

}  // namespace

int TFTPServer::sendPacket(TFTP_Packet* packet, ServerClient* client) {
  const ssize_t sent =
      sendto(client->socket_fd, packet->getData(0), static_cast<std::size_t>(packet->sendableSize()), 0,
             as_sockaddr(&client->client_address), client->client_address_length);
  return sent > 0 ? 1 : 0;
}

int TFTPServer::sendPacketData(ServerClient* client) {
  TFTP_Packet& packet = client->sent_packet;
  const int block_size = std::max(client->block_size, 0);
  // The block is read where the packet holds it; apart from it only when it may not fit.
  char* const room = packet.roomForData(block_size);
  const std::unique_ptr<char[]> apart(room != nullptr ? nullptr
                                                      : new char[static_cast<std::size_t>(block_size)]);
  client->input_file->read(room != nullptr ? room : apart.get(), block_size);
  const int count = static_cast<int>(client->input_file->gcount());
  // A file of whole blocks reaches its end only with an extra block of no bytes.
  if (client->input_file->eof()) client->last_block = true;
  client->block_number += 1;
  if (room != nullptr) {
    packet.createDataInPlace(client->block_number, count);
  } else {
    packet.createData(client->block_number, apart.get(), count);
  }
  if (client->block_number >= TFTP_Packet::kBlockNumbers) client->block_number = 0;
  return sendPacket(&packet, client);
}

int TFTPServer::sendError(ServerClient* client, int code, const std::string& message) {
  TFTP_Packet packet;
  packet.createError(code, message);
  return sendPacket(&packet, client);
}

// Known behaviour 19.
void TFTPServer::clientStatus(ServerClient* /*client*/, const std::string& /*status*/) {}

int TFTPServer::disconnectClient(ServerClient* client) {
  if (client == nullptr) return 0;
  clientStatus(client, "Disconnected");
  client->reset();
  return 1;
}

int TFTPServer::receivePacket(ServerClient* client) {
  ssize_t count = 0;
  const ServerClient::ReceiveStatus status = receive_in_time(client, &count);
  if (status == ServerClient::kReceived && count == 0) {
    clientStatus(client, "Client closed connection");
    disconnectClient(client);
    return client->receive_status = ServerClient::kNothing;
  }
  if (status == ServerClient::kWaitFailed) std::cout << "Error in select(): " << std::endl;
  if (status == ServerClient::kTimedOut) std::cout << "Client timeout" << std::endl;
  if (status == ServerClient::kWaitFailed || status == ServerClient::kTimedOut) client->retries += 1;
  if (status == ServerClient::kReceived) {
    client->retries = 0;
    client->received_packet.setSize(static_cast<int>(count));
  }
  return client->receive_status = status;
}

int TFTPServer::Receive(ServerClient* client) {
  if (client->request_type != ServerClient::kReadRequest) {
    return client->request_type == ServerClient::kWriteRequest ? 0 : 1;  // a write's thread ends at once
  }
  receivePacket(client);
  if (client->receive_status == ServerClient::kTimedOut) return 1;
  if (client->transfer_state != ServerClient::kMaySend &&
      client->transfer_state != ServerClient::kAwaitsAck) {
    return 1;
  }
  // After a failed wait or receive this judges the datagram before it once more (known behaviour 17).
  if (!client->received_packet.isACK()) {
    clientStatus(client, "Sent an unexpected packet");
    sendError(client, TFTP_Packet::kIllegalOperation,
              "Unexpected packet arrived, you have been disconnected");
    disconnectClient(client);
    return 0;
  }
  if (client->received_packet.getNumber() != client->block_number) {
    // At once, also for an ACK that is late or repeated (known behaviour 16).
    clientStatus(client, "Packet was not received, try to resend");
    sendPacket(&client->sent_packet, client);
    return 1;
  }
  client->transfer_state = ServerClient::kMaySend;
  if (!client->last_block) return 1;
  clientStatus(client, "Transfer finished, disconnected!");
  disconnectClient(client);
  return 0;
}

int TFTPServer::Send(ServerClient* client) {
  if (client->request_type != ServerClient::kReadRequest) return 1;
  if (client->retries > kMaxRetries) {
    clientStatus(client, "MAX transmit reached, closing connection");
    disconnectClient(client);
    return 0;
  }
  if (client->retries > 0) {
    clientStatus(client, "Transmit timeout, try to resend");
    sendPacket(&client->sent_packet, client);
    return 1;
  }
  if (client->transfer_state == ServerClient::kMaySend && sendPacketData(client) != 0) {
    client->transfer_state = ServerClient::kAwaitsAck;
  }
  return 1;
}
