#ifndef SOCKETS_SOCKETS_H
#define SOCKETS_SOCKETS_H

#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>

#include <cstdint>

// What all sockets of the program share: their addresses, the wait for one of them, and that a board's
// command never inherits them.

// An IPv4 socket address. address: network order. port: host order, its low 16 bits count.
inline sockaddr_in ipv4_address(in_addr_t address, int port) {
  sockaddr_in result = {};
  result.sin_family = AF_INET;
  result.sin_port = htons(static_cast<std::uint16_t>(port));
  result.sin_addr.s_addr = address;
  return result;
}

// The same address in the type that the socket calls take.
inline sockaddr* as_sockaddr(sockaddr_in* address) {
  return reinterpret_cast<sockaddr*>(address);
}

// A new IPv4 socket that is closed on exec, or -1 with errno set. The caller owns it.
inline int open_socket(int type, int protocol = 0) {
  return socket(AF_INET, type | SOCK_CLOEXEC, protocol);
}

// Whether a descriptor set has room for the descriptor; -1 and numbers of FD_SETSIZE (1024) and above have
// none.
inline bool fits_descriptor_set(int descriptor) {
  return descriptor >= 0 && descriptor < FD_SETSIZE;
}

// Waits until the one socket can be received from. Like select: positive when it can, 0 after the time-out,
// negative on failure, and so too for a descriptor that fits no set. The set is the caller's; what is left of
// the wait stands in *wait afterwards.
inline int wait_for_datagram(int descriptor, fd_set* readable, timeval* wait) {
  if (!fits_descriptor_set(descriptor)) return -1;
  FD_ZERO(readable);
  FD_SET(descriptor, readable);
  return select(descriptor + 1, readable, nullptr, nullptr, wait);
}

#endif
