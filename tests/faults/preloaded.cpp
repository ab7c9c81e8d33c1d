#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <new>

// A library that is loaded into the program before all others, and makes one of its calls fail or moves its
// clock:
//
//   FAIL="CALL N ERRNO"   the N-th CALL fails with this error. CALL: socket.dgram, socket.raw, bind, sendto,
//                         recvfrom, recvfrom.limited (of a client's socket), open (of a file in the working
//                         directory) or pthread_create
//   SECOND=MILLISECONDS   a second of a wait, or of a receive with a limit, lasts so long
//   CLOCK_STEP=SECONDS    the time of day moves by so much at every look at it, forward or back
//   ALLOCATIONS=FILE      "THREAD N FATE" in the file says what becomes of the main thread's ("main") or all
//                         others' ("others") N-th allocation from then on: it "fails", "fails-on" with all
//                         that follow, or is "interrupted" by SIGTERM while it holds the heap; "throws"
//                         counts and strikes operator new alone. The file is gone as soon as it was obeyed,
//                         but for "fails-on".
//
// What the program starts does not inherit it.

namespace {

char failing_call[32];
int failing_number = 0;
int error = 0;
std::atomic<int> calls{0};
long milliseconds_of_a_second = 1000;
long clock_step = 0;
std::atomic<long> looks{0};
const char* allocations = nullptr;

__attribute__((constructor)) void read_environment() {
  if (const char* const fault = std::getenv("FAIL")) {
    if (std::sscanf(fault, "%31s %d %d", failing_call, &failing_number, &error) != 3) std::abort();
  }
  if (const char* const second = std::getenv("SECOND")) {
    milliseconds_of_a_second = std::strtol(second, nullptr, 10);
  }
  if (const char* const step = std::getenv("CLOCK_STEP")) clock_step = std::strtol(step, nullptr, 10);
  allocations = std::getenv("ALLOCATIONS");
  unsetenv("LD_PRELOAD");
}

bool fails(const char* call) {
  if (std::strcmp(call, failing_call) != 0 || ++calls != failing_number) return false;
  errno = error;
  return true;
}

template <typename Function>
Function* real(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

struct Fate {
  char thread[8] = "";
  int number = 0;
  char name[12] = "";

  bool is_for_this_thread() const {
    return std::strcmp(thread, gettid() == getpid() ? "main" : "others") == 0;
  }
  bool is(const char* text) const { return std::strcmp(name, text) == 0; }
};

// Without a call that allocates, or that this library plays. False when there is no file.
bool read_fate(Fate* fate) {
  const auto file = static_cast<int>(syscall(SYS_openat, AT_FDCWD, allocations, O_RDONLY | O_CLOEXEC));
  if (file < 0) return false;
  char text[64] = {};
  const ssize_t length = read(file, text, sizeof text - 1);
  close(file);
  return length > 0 && std::sscanf(text, "%7s %d %11s", fate->thread, &fate->number, fate->name) == 3;
}

// As the library's heap: held by one thread at a time.
std::recursive_mutex heap;
int allocations_of_the_fate = 0;

// Whether this allocation fails. It may be interrupted here.
bool meets_its_fate(bool by_operator_new) {
  Fate fate;
  if (!read_fate(&fate)) {
    allocations_of_the_fate = 0;
    return false;
  }
  if (fate.is("throws") != by_operator_new || !fate.is_for_this_thread()) return false;
  if (++allocations_of_the_fate < fate.number) return false;
  if (fate.is("fails-on")) return true;
  unlink(allocations);
  allocations_of_the_fate = 0;
  if (fate.is("interrupted")) raise(SIGTERM);
  return !fate.is("interrupted");
}

timeval stretched(const timeval& time, long numerator, long denominator) {
  const long long microseconds = (time.tv_sec * 1000000LL + time.tv_usec) * numerator / denominator;
  return {static_cast<time_t>(microseconds / 1000000), static_cast<suseconds_t>(microseconds % 1000000)};
}

time_t moved(time_t seconds) {
  return seconds + clock_step * ++looks;
}

}  // namespace

void* operator new(size_t size) {
  if (allocations != nullptr) {
    const std::lock_guard<std::recursive_mutex> lock(heap);
    if (meets_its_fate(true)) throw std::bad_alloc();
  }
  if (void* const storage = std::malloc(size)) return storage;
  throw std::bad_alloc();
}

void operator delete(void* storage) noexcept {
  std::free(storage);
}

void operator delete(void* storage, size_t) noexcept {
  std::free(storage);
}

extern "C" {

void* __libc_malloc(size_t size);  // NOLINT(bugprone-reserved-identifier): the library's own

void* malloc(size_t size) noexcept {
  if (allocations == nullptr) return __libc_malloc(size);
  const int error_before = errno;
  const std::lock_guard<std::recursive_mutex> lock(heap);
  if (meets_its_fate(false)) {
    errno = ENOMEM;
    return nullptr;
  }
  errno = error_before;
  return __libc_malloc(size);
}

int socket(int domain, int type, int protocol) noexcept {
  static auto* const next = real<int(int, int, int)>("socket");
  constexpr int kFlags = SOCK_CLOEXEC | SOCK_NONBLOCK;
  if ((type & ~kFlags) == SOCK_DGRAM && fails("socket.dgram")) return -1;
  if ((type & ~kFlags) == SOCK_RAW && fails("socket.raw")) return -1;
  return next(domain, type, protocol);
}

int bind(int descriptor, const sockaddr* address, socklen_t length) noexcept {
  static auto* const next = real<int(int, const sockaddr*, socklen_t)>("bind");
  return fails("bind") ? -1 : next(descriptor, address, length);
}

ssize_t sendto(int descriptor, const void* bytes, size_t count, int flags, const sockaddr* address,
               socklen_t length) {
  static auto* const next =
      real<ssize_t(int, const void*, size_t, int, const sockaddr*, socklen_t)>("sendto");
  return fails("sendto") ? -1 : next(descriptor, bytes, count, flags, address, length);
}

ssize_t recvfrom(int descriptor, void* bytes, size_t count, int flags, sockaddr* address, socklen_t* length) {
  static auto* const next = real<ssize_t(int, void*, size_t, int, sockaddr*, socklen_t*)>("recvfrom");
  timeval limit = {};
  socklen_t limit_length = sizeof limit;
  getsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &limit, &limit_length);
  const bool is_limited = limit.tv_sec != 0 || limit.tv_usec != 0;
  return fails(is_limited ? "recvfrom.limited" : "recvfrom")
             ? -1
             : next(descriptor, bytes, count, flags, address, length);
}

int select(int count, fd_set* read, fd_set* write, fd_set* except, timeval* wait) {
  static auto* const next = real<int(int, fd_set*, fd_set*, fd_set*, timeval*)>("select");
  if (wait == nullptr || wait->tv_sec < 0) return next(count, read, write, except, wait);
  timeval played = stretched(*wait, milliseconds_of_a_second, 1000);
  const int ready = next(count, read, write, except, &played);
  *wait = stretched(played, 1000, milliseconds_of_a_second);
  return ready;
}

int setsockopt(int descriptor, int level, int option, const void* value, socklen_t length) noexcept {
  static auto* const next = real<int(int, int, int, const void*, socklen_t)>("setsockopt");
  if (level != SOL_SOCKET || option != SO_RCVTIMEO) return next(descriptor, level, option, value, length);
  const timeval limit = stretched(*static_cast<const timeval*>(value), milliseconds_of_a_second, 1000);
  return next(descriptor, level, option, &limit, sizeof limit);
}

int open(const char* path, int flags, ...) {
  static auto* const next = real<int(const char*, int, ...)>("open");
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  return path[0] != '/' && fails("open") ? -1 : next(path, flags, mode);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                   void* argument) noexcept {
  static auto* const next =
      real<int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)>("pthread_create");
  return fails("pthread_create") ? error : next(thread, attributes, body, argument);
}

time_t time(time_t* result) noexcept {
  static auto* const next = real<time_t(time_t*)>("time");
  const time_t now = moved(next(nullptr));
  if (result != nullptr) *result = now;
  return now;
}

int gettimeofday(timeval* now, void* zone) noexcept {
  static auto* const next = real<int(timeval*, void*)>("gettimeofday");
  const int result = next(now, zone);
  now->tv_sec = moved(now->tv_sec);
  return result;
}

int clock_gettime(clockid_t clock, timespec* now) noexcept {
  static auto* const next = real<int(clockid_t, timespec*)>("clock_gettime");
  const int result = next(clock, now);
  if (clock == CLOCK_REALTIME) now->tv_sec = moved(now->tv_sec);
  return result;
}

}  // extern "C"
