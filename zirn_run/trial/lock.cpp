#include "trial/lock.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <ctime>
#include <fstream>
#include <optional>
#include <sstream>
#include <string_view>
#include <system_error>

namespace trial {

namespace {

// Behind a NUL, which keeps it out of the file system.
constexpr std::string_view name_of(Lock::Of what) {
  return what == Lock::Of::kStation ? "zirn-run test" : "zirn-run test, its record";
}

constexpr int kKind = SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK;
constexpr int kWaiting = 128;  // that are not answered yet

struct Address {
  sockaddr_un text = {};
  socklen_t size = 0;
  explicit Address(Lock::Of what) {
    const std::string_view name = name_of(what);
    text.sun_family = AF_UNIX;
    name.copy(text.sun_path + 1, name.size());
    size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
  }
  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&text); }
};

// Whoever made the socket; 0: not to be seen from here.
pid_t holder(Lock::Of what) {
  const int socket = ::socket(AF_UNIX, kKind, 0);
  const Address address(what);
  ucred about = {};
  socklen_t size = sizeof about;
  if (connect(socket, address.get(), address.size) == 0)
    getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &about, &size);
  close(socket);
  return about.pid;
}

// When the process began, as a time of day; nothing where there is no such process any more.
std::optional<std::string> beginning_of(pid_t process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/stat");
  std::string text;
  if (!std::getline(file, text, '\0')) return std::nullopt;
  std::istringstream fields(text.substr(std::min(text.rfind(')') + 1, text.size())));
  std::string passed_over;
  constexpr int kFieldsBefore = 19;  // between the name and the start (proc(5))
  for (int i = 0; i < kFieldsBefore; ++i) fields >> passed_over;
  long long ticks = 0;  // since the boot
  fields >> ticks;
  timespec since_boot = {};
  clock_gettime(CLOCK_BOOTTIME, &since_boot);
  const std::time_t start = std::time(nullptr) - since_boot.tv_sec + ticks / sysconf(_SC_CLK_TCK);
  std::tm parts = {};
  localtime_r(&start, &parts);
  std::array<char, 40> time = {};
  std::strftime(time.data(), time.size(), "%H:%M:%S", &parts);
  return time.data();
}

std::string who_has_it(Lock::Of what) {
  const pid_t process = holder(what);
  if (process == 0) return "another process tests a unit here";
  const auto since = beginning_of(process);
  const std::string name = "process " + std::to_string(process);
  return since ? name + " tests a unit here since " + *since
               : name + " tested a unit here and was killed; the run is being ended";
}

}  // namespace

Lock::Lock(Of what) : socket_(socket(AF_UNIX, kKind, 0)) {
  const Address address(what);
  if (socket_ >= 0 && bind(socket_, address.get(), address.size) == 0 && listen(socket_, kWaiting) == 0)
    return;
  const int error = errno;
  close(socket_);
  if (error == EADDRINUSE) throw Held(who_has_it(what));
  throw std::system_error(error, std::generic_category(), "the lock of the station");
}

Lock::~Lock() {
  close(socket_);
}

bool Lock::is_held(Of what) {
  return holder(what) != 0;
}

void Lock::answer() const {
  for (int who; (who = accept4(socket_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) close(who);
}

}  // namespace trial
