#include "support/fault.h"

#include <dlfcn.h>
#include <netdb.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <initializer_list>
#include <stdexcept>
#include <vector>

#include "support/played_waits.h"

// The functions below take the place of the library's in a test program, and hand each call on to it.

namespace {

struct Plan {
  std::atomic<int> first{0};  // 0 = no fault planned
  std::atomic<int> last{0};
  std::atomic<int> calls{0};
  std::atomic<int> struck{0};
  std::atomic<int> error{0};
};

Plan plans[static_cast<int>(Call::kCount)];

Plan& plan_of(Call call) {
  return plans[static_cast<int>(call)];
}

bool strikes(Call call) {
  Plan& plan = plan_of(call);
  if (plan.first == 0) return false;
  const int number = ++plan.calls;
  if (number < plan.first || number > plan.last) return false;
  ++plan.struck;
  errno = plan.error;
  return true;
}

thread_local std::vector<long>* played_waits = nullptr;
std::atomic<int> raw_protocol{-1};

template <typename Function>
Function* real(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

Fault::Fault(Call call, int error, int nth, int times) : call_(call) {
  Plan& plan = plan_of(call);
  plan.calls = 0;
  plan.struck = 0;
  plan.error = error;
  plan.last = nth + times - 1;
  plan.first = nth;
}

Fault::~Fault() {
  plan_of(call_).first = 0;
}

int Fault::struck() const {
  return plan_of(call_).struck;
}

int last_raw_protocol() {
  return raw_protocol;
}

PlayedWaits::PlayedWaits() {
  if (played_waits != nullptr) throw std::logic_error("waits are played already");
  played_waits = &seconds_;
}

PlayedWaits::~PlayedWaits() {
  played_waits = nullptr;
}

extern "C" {

int socket(int domain, int type, int protocol) noexcept {
  static auto* const next = real<int(int, int, int)>("socket");
  if ((type & SOCK_RAW) == SOCK_RAW) raw_protocol = protocol;
  return strikes(Call::kSocket) ? -1 : next(domain, type, protocol);
}

int bind(int descriptor, const sockaddr* address, socklen_t length) noexcept {
  static auto* const next = real<int(int, const sockaddr*, socklen_t)>("bind");
  return strikes(Call::kBind) ? -1 : next(descriptor, address, length);
}

int listen(int descriptor, int backlog) noexcept {
  static auto* const next = real<int(int, int)>("listen");
  return strikes(Call::kListen) ? -1 : next(descriptor, backlog);
}

int connect(int descriptor, const sockaddr* address, socklen_t length) {
  static auto* const next = real<int(int, const sockaddr*, socklen_t)>("connect");
  return strikes(Call::kConnect) ? -1 : next(descriptor, address, length);
}

int accept4(int descriptor, sockaddr* address, socklen_t* length, int flags) {
  static auto* const next = real<int(int, sockaddr*, socklen_t*, int)>("accept4");
  return strikes(Call::kAccept) ? -1 : next(descriptor, address, length, flags);
}

int setsockopt(int descriptor, int level, int option, const void* value, socklen_t length) noexcept {
  static auto* const next = real<int(int, int, int, const void*, socklen_t)>("setsockopt");
  return strikes(Call::kSetsockopt) ? -1 : next(descriptor, level, option, value, length);
}

int ioctl(int descriptor, unsigned long request, ...) noexcept {
  static auto* const next = real<int(int, unsigned long, ...)>("ioctl");
  va_list arguments;
  va_start(arguments, request);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  return strikes(Call::kIoctl) ? -1 : next(descriptor, request, argument);
}

int select(int count, fd_set* read, fd_set* write, fd_set* except, timeval* wait) {
  static auto* const next = real<int(int, fd_set*, fd_set*, fd_set*, timeval*)>("select");
  if (!strikes(Call::kSelect)) {
    if (played_waits == nullptr || wait == nullptr) return next(count, read, write, except, wait);
    played_waits->push_back(wait->tv_sec);
    timeval none = {0, 0};
    return next(count, read, write, except, wait->tv_sec < 0 ? wait : &none);
  }
  if (errno != 0) return -1;
  for (fd_set* set : {read, write, except}) {
    if (set != nullptr) FD_ZERO(set);
  }
  return 1;
}

ssize_t sendto(int descriptor, const void* bytes, size_t count, int flags, const sockaddr* address,
               socklen_t length) {
  static auto* const next =
      real<ssize_t(int, const void*, size_t, int, const sockaddr*, socklen_t)>("sendto");
  if (strikes(Call::kSendto)) return errno == 0 ? 0 : -1;
  return next(descriptor, bytes, count, flags, address, length);
}

ssize_t recvfrom(int descriptor, void* bytes, size_t count, int flags, sockaddr* address, socklen_t* length) {
  static auto* const next = real<ssize_t(int, void*, size_t, int, sockaddr*, socklen_t*)>("recvfrom");
  if (strikes(Call::kRecvfrom)) return -1;
  timeval limit = {};
  socklen_t limit_length = sizeof limit;
  if (played_waits != nullptr && (flags & MSG_DONTWAIT) == 0 &&
      getsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &limit, &limit_length) == 0 && limit.tv_sec > 0) {
    played_waits->push_back(limit.tv_sec);
    flags |= MSG_DONTWAIT;
  }
  return next(descriptor, bytes, count, flags, address, length);
}

ssize_t send(int descriptor, const void* bytes, size_t count, int flags) {
  static auto* const next = real<ssize_t(int, const void*, size_t, int)>("send");
  return strikes(Call::kSend) ? -1 : next(descriptor, bytes, count, flags);
}

ssize_t recv(int descriptor, void* bytes, size_t count, int flags) {
  static auto* const next = real<ssize_t(int, void*, size_t, int)>("recv");
  return strikes(Call::kRecv) ? -1 : next(descriptor, bytes, count, flags);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                   void* argument) noexcept {
  static auto* const next =
      real<int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)>("pthread_create");
  return strikes(Call::kThread) ? plan_of(Call::kThread).error.load()
                                : next(thread, attributes, body, argument);
}

protoent* getprotobyname(const char* name) {
  static auto* const next = real<protoent*(const char*)>("getprotobyname");
  return strikes(Call::kProtocol) ? nullptr : next(name);
}

}  // extern "C"
