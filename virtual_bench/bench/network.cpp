#include "bench/network.h"

#include <fcntl.h>
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
#include <sstream>
#include <stdexcept>

#include "bench/waiting.h"

namespace {

constexpr double kPatienceSeconds = 10;
constexpr int kKilled = 128;  // plus the signal's number, as a shell says it
constexpr char kTunDevice[] = "/dev/net/tun";
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

constexpr int kEndingSignals[] = {SIGHUP, SIGINT, SIGTERM};
volatile sig_atomic_t inner_process = 0;  // 0: there is none yet
volatile sig_atomic_t signal_that_came = 0;

// The first process of a namespace takes the others with it.
void end_inner_process(int signal_number) {
  signal_that_came = signal_number;
  if (inner_process != 0) kill(inner_process, SIGKILL);
}

void handle_ending_signals(void (*handler)(int)) {
  struct sigaction action = {};
  action.sa_handler = handler;
  for (const int number : kEndingSignals) sigaction(number, &action, nullptr);
}

int status_of(pid_t child) {
  inner_process = child;
  if (signal_that_came != 0) kill(child, SIGKILL);  // it came before there was a child
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) continue;
  if (signal_that_came != 0) return kKilled + signal_that_came;
  return WIFEXITED(status) ? WEXITSTATUS(status) : EXIT_FAILURE;
}

int open_this_network() {
  const int descriptor = open(kThisNetwork, O_RDONLY | O_CLOEXEC);
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

std::string content(const std::string& file) {
  std::ostringstream text;
  text << std::ifstream(file).rdbuf();
  return text.str();
}

// IPv6 would fill the capture with frames that nobody asked for.
void quieten() {
  for (const char* which : {"all", "default"}) {
    std::ofstream(std::string("/proc/sys/net/ipv6/conf/") + which + "/disable_ipv6") << 1;
  }
}

// Runs "ip" with these words.
void ip(const Place& place, const std::string& words) {
  std::vector<std::string> command = {"ip"};
  std::istringstream in(words);
  for (std::string word; in >> word;) command.push_back(word);
  Process process(command, [&] {
    place.enter();
    quieten();
    dup2(STDOUT_FILENO, STDERR_FILENO);
  });
  const bool in_time = comes_true(kPatienceSeconds, [&] { return process.ended().has_value(); });
  if (!in_time || *process.ended() != 0) throw std::runtime_error("ip " + words + ": " + process.rest());
}

void ip_up(const Place& place, const std::string& device, const std::string& address) {
  ip(place, "address add " + address + " dev " + device);
  ip(place, "link set " + device + " up");
}

}  // namespace

void be_ended_by_signals() {
  handle_ending_signals(end_inner_process);
}

int in_namespaces(const std::function<int()>& work) {
  if (access(kTunDevice, R_OK | W_OK) != 0) refuse(kTunDevice);
  unshare_namespaces();
  const pid_t child = fork();
  if (child < 0) refuse("fork");
  if (child > 0) return status_of(child);
  handle_ending_signals(SIG_DFL);
  std::_Exit(work());
}

void become_station() {
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
  if (!comes_true(kPatienceSeconds, ready) || wire_->ended())
    throw std::runtime_error("no wire: " + content(errors));
  ip(station, "link set lo up");
  ip_up(station, station_link, "172.40.0.1/24 broadcast 172.40.0.255 label " + station_link + ":0");
  ip_up(station, "ppt0", "172.30.0.1/24");
  ip_up(unit, "lan0", "172.40.0.2/24 broadcast 172.40.0.255");
  ip_up(ppt_server, "ppt0", "172.30.0.254/24");
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
