#include <arpa/inet.h>
#include <sched.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <iostream>

#include "message_server/message_server.h"
#include "message_server/relay_records.h"
#include "message_server/worker.h"
#include "sockets/sockets.h"

namespace {

constexpr int kRelayPort = 12345;  // on both sides, whatever the message port is (known behaviour 41)
constexpr int kWaitSeconds = 2;
constexpr std::size_t kMaxDatagram = 255;

// -1 after a failure, which was printed.
int listening_socket(sockaddr_in local) {
  const int listener = open_socket(SOCK_DGRAM);
  if (listener == -1) {
    std::cout << "ERROR opening socket" << std::endl;
    return -1;
  }
  const int on = 1;
  setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (bind(listener, as_sockaddr(&local), sizeof local) == -1) {
    print_with_reason("UDP: ERROR on binding. ");  // and the socket stays open
    return -1;
  }
  return listener;
}

// Passes one datagram on, as text up to its first NUL and that NUL. False when it could not be received.
bool relay_datagram(int listener, int forwarder, sockaddr_in* destination) {
  char text[kMaxDatagram + 1] = {};  // a datagram without NUL is ended by the last byte
  sockaddr_in source;
  socklen_t source_length = sizeof source;
  if (recvfrom(listener, text, kMaxDatagram, 0, as_sockaddr(&source), &source_length) < 0) {
    std::cout << "UDP: ERROR in recvfrom" << std::endl;
    return false;
  }
  if (sendto(forwarder, text, std::strlen(text) + 1, 0, as_sockaddr(destination), sizeof *destination) < 0) {
    print_with_reason("UDP:ERROR in sendto. ");
  }
  return true;
}

void relay_until_stopped(const RelayRecord& relay, int listener, int forwarder, sockaddr_in destination) {
  // Filled once: after the first full time-out the loop polls (known behaviour 33).
  timeval wait = {kWaitSeconds, 0};
  while (relay.is_to_run()) {
    fd_set readable;
    const int ready = wait_for_datagram(listener, &readable, &wait);
    if (ready < 0) {
      std::cout << "Error in UDP select(): " << std::endl;
      return;
    }
    if (ready == 0) sched_yield();  // a board has one core, and the transfers need it
    if (ready > 0 && !relay_datagram(listener, forwarder, &destination)) return;
  }
}

void run_relay(const RelayRecord& relay) {
  const int listener = listening_socket(ipv4_address(inet_addr(relay.local_ip.c_str()), kRelayPort));
  if (listener == -1) return;
  const int forwarder = open_socket(SOCK_DGRAM);  // never closed
  if (forwarder == -1) {
    std::cout << "ERROR opening sender socket" << std::endl;
    return;
  }
  relay_until_stopped(relay, listener, forwarder,
                      ipv4_address(inet_addr(relay.remote_ip.c_str()), kRelayPort));
  close(listener);
  relay.mark_ended();
  std::cout << "UDP Server exited..." << std::endl;
}

}  // namespace

void* UdpMessageServerProc(void* record) {
  run_relay(*take_relay(static_cast<MessageServer*>(record)));
  return nullptr;
}
