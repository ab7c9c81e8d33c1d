#ifndef IPV4_SOCKET_IPV4_SOCKET_H
#define IPV4_SOCKET_IPV4_SOCKET_H

#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>

#include <cstdint>

// An IPv4 socket address. address: network order. port: host order, its low 16 bits count.
inline sockaddr_in ipv4_address(in_addr_t address, int port) {
  sockaddr_in result = {};
  result.sin_family = AF_INET;
  result.sin_port = htons(static_cast<std::uint16_t>(port));
  result.sin_addr.s_addr = address;
  return result;
}

// The same address in the type that the socket calls take.
inline sockaddr* generic(sockaddr_in* address) {
  return reinterpret_cast<sockaddr*>(address);
}

// Whether a descriptor set has room for the descriptor; -1 and numbers of FD_SETSIZE (1024) and above have
// none.
inline bool fits_descriptor_set(int descriptor) {
  return descriptor >= 0 && descriptor < FD_SETSIZE;
}

#endif
