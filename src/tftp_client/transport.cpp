#include <arpa/inet.h>
#include <sys/select.h>
#include <unistd.h>

#include <cstring>
#include <iostream>

#include "signals/signals.h"
#include "sockets/sockets.h"
#include "tftp_client/tftp_client.h"

namespace {

constexpr int kExpectedReplySize = 1024;

int wait_letting_signals_in(int descriptor, fd_set* readable, timeval* wait) {
  const SignalsLetIn meanwhile;
  return wait_for_datagram(descriptor, readable, wait);
}

}  // namespace

TFTPClient::TFTPClient(const std::string& address, int port)
    : server_ip(address),
      server_port(port),
      socket_fd(-1),
      server_address(),
      server_address_length(sizeof server_address),
      timeout(kDefaultTimeout),
      block_size(TFTP_Packet::kDefaultBlockSize) {
  socket_fd = open_socket(SOCK_DGRAM);
  if (!fits_descriptor_set(socket_fd)) {
    if (socket_fd != -1) close(socket_fd);
    throw new ETFTPSocketCreate;
  }
  // A text that is no dotted quad is 255.255.255.255 (known behaviour 43).
  server_address = ipv4_address(inet_addr(server_ip.c_str()), server_port);
}

TFTPClient::~TFTPClient() {
  if (socket_fd != -1) close(socket_fd);
}

int TFTPClient::sendBuffer(const char* text) {
  return static_cast<int>(
      sendto(socket_fd, text, std::strlen(text), 0, as_sockaddr(&server_address), server_address_length));
}

int TFTPClient::sendPacket(TFTP_Packet* packet) {
  return static_cast<int>(sendto(socket_fd, packet->getData(0),
                                 static_cast<std::size_t>(packet->sendableSize()), 0,
                                 as_sockaddr(&server_address), server_address_length));
}

int TFTPClient::waitForPacket(TFTP_Packet* packet, int wait_seconds) {
  fd_set readable;
  timeval wait{wait_seconds, 0};
  const int ready = wait_letting_signals_in(socket_fd, &readable, &wait);
  if (ready < 0) {
    std::cout << "Error in select(): " << std::endl;
    return kWaitFailed;
  }
  if (ready == 0) return kTimeOut;

  packet->clear();
  const ssize_t count =
      recvfrom(socket_fd, packet->getData(0), static_cast<std::size_t>(packet->receivableSize()), 0,
               as_sockaddr(&server_address), &server_address_length);
  if (count == 0) {
    std::cout << "Connection was closed by server" << std::endl;
    return kEmptyDatagram;
  }
  if (count == -1) {
    std::cout << "recv() error in waitForPackage()" << std::endl;
    return kReceiveFailed;
  }
  packet->setSize(static_cast<int>(count));
  return kReceived;
}

int TFTPClient::waitForPacketData(int wait_seconds) {
  const int result = waitForPacket(&received_packet, wait_seconds);
  if (result != kReceived || !received_packet.isError()) return result;
  errorReceived(&received_packet);
  return kErrorPacket;
}

int TFTPClient::waitForPacketACK(int expected_block, int wait_seconds) {
  TFTP_Packet packet;
  packet.setSize(kExpectedReplySize);  // known behaviour 28
  if (waitForPacket(&packet, wait_seconds) == kTimeOut) {
    std::cout << "We have an error in waitForPacket()" << std::endl;
    return 1;
  }
  // A failed wait or receive goes on too: the packet is judged as it stands (known behaviour 29).
  if (packet.isError()) {
    std::cout << "ACK expected, but got Error" << std::endl;
    errorReceived(&packet);
    return 0;
  }
  if (packet.isACK() || packet.isData()) {
    std::cout << (packet.isACK() ? "ACK" : "DATAK") << " for packet " << packet.getNumber()
              << "(expected: " << expected_block << ")" << std::endl;
  } else {
    std::cout << "Unhandled packet" << std::endl;
  }
  return 1;
}

void TFTPClient::errorReceived(TFTP_Packet* packet) {
  std::cout << "Error! Error code: " << packet->errorCode() << std::endl;
  std::cout << "Error message: " << packet->errorText() << std::endl;
}
