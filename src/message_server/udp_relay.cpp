#include <arpa/inet.h>
#include <sched.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <iostream>

#include "ipv4_socket/ipv4_socket.h"
#include "message_server/message_server.h"
#include "message_server/print_with_reason.h"
#include "worker_thread/worker_thread.h"

namespace {

constexpr int kRelayPort = 12345;  // on both sides, whatever the message port is
constexpr int kWaitSeconds = 2;
constexpr std::size_t kMaxDatagram = 255;

// -1 after a failure, which was printed.
int listening_socket(sockaddr_in local) {
  const int listener = socket(AF_INET, SOCK_DGRAM, 0);
  if (listener == -1) {
    std::cout << "ERROR opening socket" << std::endl;
    return -1;
  }
  const int on = 1;
  setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (bind(listener, generic(&local), sizeof local) == -1) {
    print_with_reason("UDP: ERROR on binding. ");  // and the socket stays open
    return -1;
  }
  return listener;
}

int wait_for_datagram(int listener, timeval* wait) {
  if (!fits_descriptor_set(listener)) return -1;
  fd_set readable;
  FD_ZERO(&readable);
  FD_SET(listener, &readable);
  return select(listener + 1, &readable, nullptr, nullptr, wait);
}

// Passes one datagram on, as text up to its first NUL and that NUL. False when it could not be received.
bool relay_datagram(int listener, int forwarder, sockaddr_in* destination) {
  char text[kMaxDatagram + 1] = {};  // a datagram without NUL is ended by the last byte
  sockaddr_in source;
  socklen_t source_length = sizeof source;
  if (recvfrom(listener, text, kMaxDatagram, 0, generic(&source), &source_length) < 0) {
    std::cout << "UDP: ERROR in recvfrom" << std::endl;
    return false;
  }
  if (sendto(forwarder, text, std::strlen(text) + 1, 0, generic(destination), sizeof *destination) < 0) {
    print_with_reason("UDP:ERROR in sendto. ");
  }
  return true;
}

void relay_until_stopped(const MessageServer& record, int listener, int forwarder, sockaddr_in destination) {
  // Filled once: after the first full time-out the loop polls. It is meant.
  timeval wait = {kWaitSeconds, 0};
  while (record.udp_running) {
    const int ready = wait_for_datagram(listener, &wait);
    if (ready < 0) {
      std::cout << "Error in UDP select(): " << std::endl;
      return;
    }
    if (ready == 0) sched_yield();  // a board has one core, and the transfers need it
    if (ready > 0 && !relay_datagram(listener, forwarder, &destination)) return;
  }
}

}  // namespace

void* UdpMessageServerProc(void* argument) {
  auto* const record = static_cast<MessageServer*>(argument);
  const sockaddr_in local = ipv4_address(inet_addr(record->udp_local_ip.c_str()), kRelayPort);
  const sockaddr_in destination = ipv4_address(inet_addr(record->udp_remote_ip.c_str()), kRelayPort);
  record->udp_addresses_read = true;

  const int listener = listening_socket(local);
  if (listener == -1) return nullptr;
  const int forwarder = socket(AF_INET, SOCK_DGRAM, 0);  // never closed
  if (forwarder == -1) {
    std::cout << "ERROR opening sender socket" << std::endl;
    return nullptr;
  }
  relay_until_stopped(*record, listener, forwarder, destination);
  close(listener);
  say_goodbye(&record->udp_thread);
  std::cout << "UDP Server exited..." << std::endl;
  return nullptr;
}
