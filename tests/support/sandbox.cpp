#include "support/sandbox.h"

#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <stdexcept>

namespace sandbox {
namespace {

bool is_entered = false;
std::string why_not = "never tried";

bool refused(const char* step) {
  why_not = std::string(step) + ": " + std::strerror(errno);
  return false;
}

void write_file(const char* path, const std::string& text) {
  std::ofstream(path) << text;
}

bool unshare_namespaces() {
  const uid_t user = geteuid();
  const gid_t group = getegid();
  if (user == 0 && unshare(CLONE_NEWNET | CLONE_NEWNS) == 0) return true;
  if (unshare(CLONE_NEWUSER | CLONE_NEWNET | CLONE_NEWNS) != 0) return refused("unshare");
  write_file("/proc/self/setgroups", "deny");
  write_file("/proc/self/uid_map", "0 " + std::to_string(user) + " 1");
  write_file("/proc/self/gid_map", "0 " + std::to_string(group) + " 1");
  return true;
}

bool raise_loopback() {
  const int descriptor = socket(AF_INET, SOCK_DGRAM, 0);
  ifreq request = {};
  std::strcpy(request.ifr_name, "lo");
  request.ifr_flags = IFF_UP | IFF_RUNNING;
  const bool raised = ioctl(descriptor, SIOCSIFFLAGS, &request) == 0;
  const bool result = raised || refused("raising the loopback interface");
  close(descriptor);
  return result;
}

}  // namespace

void enter() {
  is_entered = unshare_namespaces() &&
               (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 || refused("mount")) &&
               raise_loopback();
}

bool entered() {
  return is_entered;
}

const std::string& refusal() {
  return why_not;
}

void run(const std::string& command_line) {
  FILE* pipe = popen((command_line + " 2>&1").c_str(), "r");
  if (pipe == nullptr) throw std::runtime_error("cannot start: " + command_line);
  std::string output;
  char piece[256];
  while (std::fgets(piece, sizeof piece, pipe) != nullptr) output += piece;
  const int status = pclose(pipe);
  if (status != 0) throw std::runtime_error(command_line + ": " + output);
}

}  // namespace sandbox
