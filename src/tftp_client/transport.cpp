#include <arpa/inet.h>
#include <sys/select.h>
#include <unistd.h>

#include <cstring>
#include <iostream>

#include "ipv4_socket/ipv4_socket.h"
#include "tftp_client/tftp_client.h"

namespace {

// Error codes and their texts, RFC 1350. Code 0 carries its text in the packet.
constexpr const char* kErrorTexts[] = {
    nullptr,
    "File not found",
    "Access violation",
    "Disk full or allocation exceeded",
    "Illegal TFTP operation",
    "Unknown transfer ID",
    "File already exists",
    "No such user",
};
constexpr int kKnownErrors = sizeof kErrorTexts / sizeof kErrorTexts[0];
constexpr int kExpectedReplySize = 1024;
constexpr int kErrorCodeOffset = 2;
constexpr int kErrorTextOffset = 4;
constexpr int kErrorTextLength = 256;

}  // namespace

TFTPClient::TFTPClient(const std::string& address, int port)
    : server_ip(address),
      server_port(port),
      socket_fd(-1),
      server_address(),
      server_address_length(sizeof server_address),
      timeout(kDefaultTimeout),
      block_size(kDefaultBlockSize) {
  socket_fd = socket(AF_INET, SOCK_DGRAM, 0);
  if (!fits_descriptor_set(socket_fd)) {
    if (socket_fd != -1) close(socket_fd);
    throw new ETFTPSocketCreate;
  }
  server_address = ipv4_address(inet_addr(server_ip.c_str()), server_port);
}

TFTPClient::~TFTPClient() {
  if (socket_fd != -1) close(socket_fd);
}

int TFTPClient::sendBuffer(const char* text) {
  return static_cast<int>(
      sendto(socket_fd, text, std::strlen(text), 0, generic(&server_address), server_address_length));
}

int TFTPClient::sendPacket(TFTP_Packet* packet) {
  return static_cast<int>(sendto(socket_fd, packet->getData(0),
                                 static_cast<std::size_t>(packet->sendableSize()), 0,
                                 generic(&server_address), server_address_length));
}

int TFTPClient::waitForPacket(TFTP_Packet* packet, int wait_seconds) {
  int ready = -1;
  if (fits_descriptor_set(socket_fd)) {
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(socket_fd, &readable);
    timeval wait{wait_seconds, 0};
    ready = select(socket_fd + 1, &readable, nullptr, nullptr, &wait);
  }
  if (ready == -1) {
    std::cout << "Error in select(): " << std::endl;
    return kWaitFailed;
  }
  if (ready == 0) return kTimeOut;

  packet->clear();
  const ssize_t count =
      recvfrom(socket_fd, packet->getData(0), static_cast<std::size_t>(packet->receivableSize()), 0,
               generic(&server_address), &server_address_length);
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
  packet.setSize(kExpectedReplySize);  // not its capacity, which limits the receive; it is meant
  if (waitForPacket(&packet, wait_seconds) == kTimeOut) {
    std::cout << "We have an error in waitForPacket()" << std::endl;
    return 1;
  }
  // A failed wait or receive goes on too: the packet is judged as it stands. It is meant.
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
  const int code = packet->getWord(kErrorCodeOffset);
  std::cout << "Error! Error code: " << code << std::endl;
  std::cout << "Error message: ";
  if (code == 0) {
    char text[kErrorTextLength] = {};
    packet->getString(kErrorTextOffset, text, kErrorTextLength);
    std::cout << text;
  } else {
    std::cout << (code < kKnownErrors ? kErrorTexts[code] : "Not defined");
  }
  std::cout << std::endl;
}
