#include "bench/network.h"

#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>

#include "bench/waiting.h"

namespace {

constexpr double kPatienceSeconds = 10;
constexpr int kDescriptorOfThisNamespace = O_RDONLY | O_CLOEXEC;
constexpr char kThisNetwork[] = "/proc/self/ns/net";
constexpr int kOwnNamespaces = CLONE_NEWNS | CLONE_NEWNET | CLONE_NEWPID;

[[noreturn]] void refuse(const std::string& what) {
  throw NotAllowed(what + ": " + std::strerror(errno));
}

// Root of a user namespace of one's own where one is not root.
void unshare_namespaces() {
  const uid_t user = geteuid();
  const gid_t group = getegid();
  if (user == 0 && unshare(kOwnNamespaces) == 0) return;
  if (unshare(CLONE_NEWUSER | kOwnNamespaces) != 0) refuse("this machine gives no namespaces");
  std::ofstream("/proc/self/setgroups") << "deny";
  std::ofstream("/proc/self/uid_map") << "0 " << user << " 1";
  std::ofstream("/proc/self/gid_map") << "0 " << group << " 1";
}

[[noreturn]] void wait_for(pid_t child) {
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) continue;
  std::_Exit(WIFEXITED(status) ? WEXITSTATUS(status) : EXIT_FAILURE);
}

int open_this_network() {
  const int descriptor = open(kThisNetwork, kDescriptorOfThisNamespace);
  if (descriptor < 0) refuse(kThisNetwork);
  return descriptor;
}

int make_network() {
  const int before = open_this_network();
  if (unshare(CLONE_NEWNET) != 0) refuse("a network namespace");
  const int made = open_this_network();
  if (setns(before, CLONE_NEWNET) != 0) refuse("going back to the first network namespace");
  close(before);
  return made;
}

// IPv6 would fill the capture with frames that nobody asked for.
void quieten() {
  for (const char* which : {"all", "default"}) {
    std::ofstream(std::string("/proc/sys/net/ipv6/conf/") + which + "/disable_ipv6") << 1;
  }
}

void run(const Place& place, const std::string& command) {
  Process process({"/bin/sh", "-c", command + " 2>&1"}, [&] {
    place.enter();
    quieten();
  });
  const bool in_time = comes_true(kPatienceSeconds, [&] { return process.ended().has_value(); });
  if (!in_time || *process.ended() != 0) throw std::runtime_error(command + ": " + process.rest());
}

}  // namespace

void enter_namespaces() {
  unshare_namespaces();
  const pid_t child = fork();
  if (child < 0) refuse("fork");
  if (child > 0) wait_for(child);
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) refuse("private mounts");
  if (mount("proc", "/proc", "proc", 0, nullptr) != 0) refuse("/proc of one's own");
}

Place::Place() : descriptor_(make_network()) {}

Place::~Place() {
  close(descriptor_);
}

void Place::enter() const {
  if (setns(descriptor_, CLONE_NEWNET) != 0) refuse("entering a network namespace");
}

std::string Place::path() const {
  return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(descriptor_);
}

Network::Network(const std::string& wire, const std::string& capture, const std::string& fates,
                 const std::string& errors, int seed, const std::string& station_link)
    : station(open_this_network()) {
  const std::string test_link = station.path() + "=" + station_link + "," + unit.path() + "=lan0";
  const std::string ppt_link = station.path() + "=ppt0," + ppt_server.path() + "=ppt0";
  wire_ = std::make_unique<Process>(
      std::vector<std::string>{wire, capture, fates, std::to_string(seed), test_link, ppt_link}, [] {},
      errors);
  const auto ready = [&] { return wire_->next_line() == "ready" || wire_->ended().has_value(); };
  if (!comes_true(kPatienceSeconds, ready) || wire_->ended()) {
    std::ifstream file(errors);
    std::string reason;
    std::getline(file, reason);
    throw NotAllowed("no wire: " + reason);
  }
  run(station, "ip link set lo up && ip address add 172.40.0.1/24 broadcast 172.40.0.255 label " +
                   station_link + ":0 dev " + station_link + " && ip link set " + station_link +
                   " up && ip address add 172.30.0.1/24 dev ppt0 && ip link set ppt0 up");
  run(unit, "ip address add 172.40.0.2/24 broadcast 172.40.0.255 dev lan0 && ip link set lan0 up");
  run(ppt_server, "ip address add 172.30.0.254/24 dev ppt0 && ip link set ppt0 up");
}

Network::~Network() {
  wire_->signals(SIGTERM);
  comes_true(kPatienceSeconds, [&] { return wire_->ended().has_value(); });
}

void Network::orders(const std::string& order) {
  wire_->says(order);
  std::optional<std::string> answer;
  comes_true(kPatienceSeconds, [&] { return (answer = wire_->next_line()).has_value() || wire_->ended(); });
  if (answer != "ok") throw std::runtime_error("wire, " + order + ": " + answer.value_or("no answer"));
}
