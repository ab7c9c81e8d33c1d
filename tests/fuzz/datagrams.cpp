#include <sys/select.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "fuzz/script.h"
#include "sockets/sockets.h"

// These functions take the place of the system's: the datagrams of the script, and no network.

namespace {

constexpr int kMaxImpossibleWaits = 100;
int impossible_waits = 0;  // in a row

int fails_with(int error) {
  errno = error;
  return -1;
}

void clear(fd_set* set) {
  if (set != nullptr) FD_ZERO(set);
}

timeval receive_limit = {};  // of a receive that waits by itself
bool is_ready = false;       // the last wait promised a datagram

// Like select.
int wait_played(long seconds) {
  Script& script = *Script::current;
  script.waits.push_back(seconds);
  if (seconds < 0) {
    if (++impossible_waits > kMaxImpossibleWaits) {
      impossible_waits = 0;
      throw EndlessWait();
    }
    return fails_with(EINVAL);
  }
  impossible_waits = 0;
  // What no send took has no effect.
  while (script.takes('S') || script.takes('O') || script.takes('Z')) {
  }
  const char next = script.next();
  if (next == 'D' || next == 'R' || next == 'Q') return 1;
  if (script.takes('W')) return fails_with(EINTR);
  if (script.takes('V')) return fails_with(EBADF);
  if (script.is_over()) script.counts_wait_after_end();
  script.take();
  return 0;
}

}  // namespace

extern "C" {

int socket(int, int, int) noexcept {
  return Script::current->new_descriptor();
}

int bind(int, const sockaddr*, socklen_t) noexcept {
  return 0;
}

int setsockopt(int, int level, int option, const void* value, socklen_t) noexcept {
  if (level == SOL_SOCKET && option == SO_RCVTIMEO) receive_limit = *static_cast<const timeval*>(value);
  return 0;
}

int select(int, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* wait) {
  const int result = wait_played(wait->tv_sec);
  is_ready = result > 0;
  if (result != 0) return result;
  // As on Linux, where the time that is left comes back.
  *wait = {0, 0};
  clear(readable);
  clear(writable);
  clear(exceptional);
  return 0;
}

ssize_t recvfrom(int, void* bytes, size_t count, int, sockaddr* address, socklen_t* length) {
  Script& script = *Script::current;
  if (!std::exchange(is_ready, false)) {  // it is the wait as well
    const int result = wait_played(receive_limit.tv_sec);
    if (result <= 0) return result < 0 ? -1 : fails_with(EAGAIN);
  }
  if (script.takes('Q')) return fails_with(EAGAIN);
  if (script.takes('R') || script.next() != 'D') return fails_with(ECONNREFUSED);
  const std::string datagram = script.take();
  const std::size_t received = std::min(count, datagram.size());
  // What lies behind the datagram is not touched, like by the kernel.
  std::memcpy(bytes, datagram.data(), received);
  const sockaddr_in sender = ipv4_address(htonl(INADDR_LOOPBACK), script.sender_port);
  std::memcpy(address, &sender, sizeof sender);
  *length = sizeof sender;
  return static_cast<ssize_t>(received);
}

ssize_t sendto(int descriptor, const void* bytes, size_t count, int, const sockaddr* address, socklen_t) {
  Script& script = *Script::current;
  if (!script.has_open(descriptor)) return fails_with(EBADF);
  script.sent.emplace_back(static_cast<const char*>(bytes), count);
  script.destinations.push_back(ntohs(reinterpret_cast<const sockaddr_in*>(address)->sin_port));
  if (script.takes('S')) return fails_with(ENETUNREACH);
  if (script.takes('Z')) return 0;
  script.takes('O');
  return static_cast<ssize_t>(count);
}

}  // extern "C"
