#include <sys/select.h>
#include <sys/socket.h>

#include <algorithm>
#include <iostream>
#include <memory>

#include "ipv4_socket/ipv4_socket.h"
#include "tftp_server/tftp_server.h"

namespace {

constexpr int kMaxRetries = 10;
constexpr int kBlockNumbers = 65536;  // a block number has 16 bits
constexpr int kIllegalOperation = 4;  // RFC 1350

// Waits on the client's socket alone. Like select: negative on failure, 0 after the time-out.
int wait_for_datagram(ServerClient* client) {
  if (!fits_descriptor_set(client->socket_fd)) return -1;
  timeval wait{client->timeout, 0};
  FD_ZERO(&client->read_set);
  FD_SET(client->socket_fd, &client->read_set);
  return select(client->socket_fd + 1, &client->read_set, nullptr, nullptr, &wait);
}

}  // namespace

int TFTPServer::sendPacket(TFTP_Packet* packet, ServerClient* client) {
  const ssize_t sent =
      sendto(client->socket_fd, packet->getData(0), static_cast<std::size_t>(packet->sendableSize()), 0,
             generic(&client->client_address), client->client_address_length);
  return sent > 0 ? 1 : 0;
}

int TFTPServer::sendPacketData(ServerClient* client) {
  TFTP_Packet& packet = client->sent_packet;
  const int block_size = std::max(client->block_size, 0);
  // The block is read where the packet holds it; apart from it only when it may not fit.
  const bool fits = packet.roomForData(block_size) != nullptr;
  const std::unique_ptr<char[]> apart(fits ? nullptr : new char[static_cast<std::size_t>(block_size)]);
  char* const block = fits ? packet.roomForData(block_size) : apart.get();
  client->input_file->read(block, block_size);
  const int count = static_cast<int>(client->input_file->gcount());
  // A file of whole blocks reaches its end only with an extra block of no bytes.
  if (client->input_file->eof()) client->last_block = true;
  client->block_number += 1;
  packet.createData(client->block_number, block, count);
  if (client->block_number >= kBlockNumbers) client->block_number = 0;
  return sendPacket(&packet, client);
}

int TFTPServer::sendError(ServerClient* client, int code, const std::string& message) {
  TFTP_Packet packet;
  packet.createError(code, message);
  return sendPacket(&packet, client);
}

void TFTPServer::clientStatus(ServerClient* /*client*/, const std::string& /*status*/) {}

int TFTPServer::disconnectClient(ServerClient* client) {
  if (client == nullptr) return 0;
  clientStatus(client, "Disconnected");
  client->reset();
  return 1;
}

int TFTPServer::receivePacket(ServerClient* client) {
  const int ready = wait_for_datagram(client);
  if (ready < 0) {
    std::cout << "Error in select(): " << std::endl;
    client->retries += 1;
    return client->receive_status = ServerClient::kWaitFailed;
  }
  if (ready == 0) {
    std::cout << "Client timeout" << std::endl;
    client->retries += 1;
    return client->receive_status = ServerClient::kTimedOut;
  }
  if (!FD_ISSET(client->socket_fd, &client->read_set)) return 0;

  // A datagram from any address or port is taken as the client's. It is meant.
  sockaddr_in anyone;
  socklen_t anyone_length = sizeof anyone;
  TFTP_Packet& packet = client->received_packet;
  const ssize_t count =
      recvfrom(client->socket_fd, packet.getData(0), static_cast<std::size_t>(packet.receivableSize()), 0,
               generic(&anyone), &anyone_length);
  if (count == 0) {
    client->receive_status = ServerClient::kNothing;
    clientStatus(client, "Client closed connection");
    disconnectClient(client);
    return ServerClient::kNothing;
  }
  if (count < 0) return client->receive_status = ServerClient::kReceiveFailed;
  client->retries = 0;
  packet.setSize(static_cast<int>(count));
  return client->receive_status = ServerClient::kReceived;
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
  // After a failed wait or receive this judges the datagram before it once more. It is meant.
  if (!client->received_packet.isACK()) {
    clientStatus(client, "Sent an unexpected packet");
    sendError(client, kIllegalOperation, "Unexpected packet arrived, you have been disconnected");
    disconnectClient(client);
    return 0;
  }
  if (client->received_packet.getNumber() != client->block_number) {
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
