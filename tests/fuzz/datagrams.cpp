#include <sys/select.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "fuzz/script.h"

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

}  // namespace

extern "C" {

int socket(int, int, int) noexcept {
  return Script::current->new_descriptor();
}

int bind(int, const sockaddr*, socklen_t) noexcept {
  return 0;
}

int setsockopt(int, int, int, const void*, socklen_t) noexcept {
  return 0;
}

int select(int, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* wait) {
  if (wait->tv_sec < 0) {
    if (++impossible_waits > kMaxImpossibleWaits) {
      impossible_waits = 0;
      throw EndlessWait();
    }
    return fails_with(EINVAL);
  }
  impossible_waits = 0;
  Script& script = *Script::current;
  // A failure that no send took is a failure of nothing.
  while (script.takes('S')) {
  }
  if (script.next() == 'D' || script.next() == 'R') return 1;
  if (script.takes('W')) return fails_with(EINTR);
  if (script.is_over()) script.counts_wait_after_end();
  script.take();
  clear(readable);
  clear(writable);
  clear(exceptional);
  return 0;
}

ssize_t recvfrom(int, void* bytes, size_t count, int, sockaddr*, socklen_t*) {
  Script& script = *Script::current;
  if (script.takes('R') || script.next() != 'D') return fails_with(ECONNREFUSED);
  const std::string datagram = script.take();
  const std::size_t received = std::min(count, datagram.size());
  // What lies behind the datagram is not touched, like by the kernel.
  std::memcpy(bytes, datagram.data(), received);
  return static_cast<ssize_t>(received);
}

ssize_t sendto(int, const void* bytes, size_t count, int, const sockaddr*, socklen_t) {
  Script& script = *Script::current;
  script.sent.emplace_back(static_cast<const char*>(bytes), count);
  if (script.takes('S')) return fails_with(ENETUNREACH);
  return static_cast<ssize_t>(count);
}

}  // extern "C"
