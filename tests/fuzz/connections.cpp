#include "fuzz/connections.h"

#include <sys/select.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "fuzz/script.h"

// These functions take the place of the system's: the connections of the script, and no network.

namespace {

constexpr char kOfAConnection[] = "DEGR";

int fails_with(int error) {
  errno = error;
  return -1;
}

int highest_connection(const fd_set& open) {
  for (int descriptor = FD_SETSIZE - 1; descriptor >= 0; --descriptor) {
    if (descriptor != connections::listener && FD_ISSET(descriptor, &open)) return descriptor;
  }
  return -1;
}

}  // namespace

int connections::listener = -1;

extern "C" {

int select(int, fd_set* readable, fd_set*, fd_set*, timeval* wait) {
  Script& script = *Script::current;
  script.waits.push_back(wait->tv_sec);
  const int connection = highest_connection(*readable);
  // What only a connection can bring does not come without one.
  while (connection == -1 && std::strchr(kOfAConnection, script.next()) != nullptr && !script.is_over())
    script.take();
  const char next = script.next();
  if (script.takes('W')) return fails_with(EINTR);
  FD_ZERO(readable);
  if (next == 'C') FD_SET(connections::listener, readable);
  if (next != '\0' && std::strchr(kOfAConnection, next) != nullptr) FD_SET(connection, readable);
  if (next != '\0' && std::strchr("CDEGR", next) != nullptr) return 1;
  if (script.is_over()) script.counts_wait_after_end();
  script.take();
  *wait = {0, 0};  // as on Linux, where the time that is left comes back
  return 0;
}

int accept4(int, sockaddr*, socklen_t*, int) {
  Script& script = *Script::current;
  if (script.takes('C')) return script.new_descriptor();
  return fails_with(script.takes('R') ? EMFILE : EAGAIN);
}

ssize_t recv(int, void* bytes, size_t count, int) {
  Script& script = *Script::current;
  if (script.takes('R')) return fails_with(ECONNRESET);
  if (script.takes('G')) return fails_with(EAGAIN);
  // A peer that says nothing more has ended its connection.
  if (script.next() != 'D') {
    script.takes('E');
    return 0;
  }
  const std::string text = script.take();
  const std::size_t received = std::min(count, text.size());
  std::memcpy(bytes, text.data(), received);
  return static_cast<ssize_t>(received);
}

ssize_t send(int, const void* bytes, size_t count, int) {
  Script& script = *Script::current;
  script.sent.emplace_back(static_cast<const char*>(bytes), count);
  if (script.takes('S')) return fails_with(ENOBUFS);
  return static_cast<ssize_t>(count);
}

}  // extern "C"
