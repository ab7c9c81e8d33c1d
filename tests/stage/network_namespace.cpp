#include "stage/network_namespace.h"

#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "stage/process.h"

namespace {

constexpr std::chrono::minutes kPatienceWithIp{1};  // all networks of a machine wait for one lock
constexpr int kKilled = 128;                        // plus the signal's number, as a shell counts it
constexpr char kThisNetwork[] = "/proc/thread-self/ns/net";
constexpr int kEndingSignals[] = {SIGHUP, SIGINT, SIGTERM};

volatile sig_atomic_t work_process = 0;  // 0: there is none yet
volatile sig_atomic_t signal_that_came = 0;

[[noreturn]] void refuse(const std::string& what) {
  throw NotAllowed(what + ": " + std::strerror(errno));
}

int open_namespace(const std::string& path) {
  const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) refuse("expected a namespace that can be opened, " + path);
  return descriptor;
}

void raise_loopback() {
  const int descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ifreq request = {};
  std::strcpy(request.ifr_name, "lo");
  request.ifr_flags = IFF_UP | IFF_RUNNING;
  const bool raised = ioctl(descriptor, SIOCSIFFLAGS, &request) == 0;
  close(descriptor);
  if (!raised) refuse("raising the loopback interface");
}

void set_up_new_network() {
  for (const char* which : {"all", "default"}) {
    std::ofstream(std::string("/proc/sys/net/ipv6/conf/") + which + "/disable_ipv6") << 1;
  }
  raise_loopback();
}

void unshare_namespaces(int kinds) {
  const uid_t user = geteuid();
  const gid_t group = getegid();
  if (user != 0 || unshare(kinds) != 0) {
    if (unshare(CLONE_NEWUSER | kinds) != 0) refuse("this machine gives no namespaces");
    std::ofstream("/proc/self/setgroups") << "deny";
    std::ofstream("/proc/self/uid_map") << "0 " << user << " 1";
    std::ofstream("/proc/self/gid_map") << "0 " << group << " 1";
  }
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) refuse("private mounts");
  set_up_new_network();
}

// The first process of a namespace takes the others with it.
void end_work(int signal_number) {
  signal_that_came = signal_number;
  if (work_process != 0) kill(work_process, SIGKILL);
}

void handle_ending_signals(void (*handler)(int)) {
  struct sigaction action = {};
  action.sa_handler = handler;
  for (const int number : kEndingSignals) sigaction(number, &action, nullptr);
}

int status_of(pid_t child) {
  work_process = child;
  if (signal_that_came != 0) kill(child, SIGKILL);  // it came before there was a child
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) continue;
  if (signal_that_came != 0) return kKilled + signal_that_came;
  return WIFEXITED(status) ? WEXITSTATUS(status) : EXIT_FAILURE;
}

}  // namespace

void enter_private_namespaces() {
  unshare_namespaces(CLONE_NEWNS | CLONE_NEWNET);
}

int run_in_private_namespaces(const std::function<int()>& work) {
  unshare_namespaces(CLONE_NEWNS | CLONE_NEWNET | CLONE_NEWPID);
  const pid_t child = fork();
  if (child < 0) refuse("fork");
  if (child > 0) return status_of(child);
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  handle_ending_signals(SIG_DFL);
  std::_Exit(work());
}

void mount_own_proc() {
  if (mount("proc", "/proc", "proc", 0, nullptr) != 0) refuse("/proc of one's own");
}

void end_work_on_signals() {
  handle_ending_signals(end_work);
}

NetworkNamespace::NetworkNamespace() {
  const ScopedNamespace back_at_the_end(kThisNetwork);
  if (unshare(CLONE_NEWNET) != 0) refuse("a network namespace");
  set_up_new_network();
  descriptor_ = open_namespace(kThisNetwork);
}

NetworkNamespace NetworkNamespace::current() {
  return NetworkNamespace(open_namespace(kThisNetwork));
}

NetworkNamespace::~NetworkNamespace() {
  close(descriptor_);
}

void NetworkNamespace::enter() const {
  if (setns(descriptor_, CLONE_NEWNET) != 0) refuse("entering a network namespace");
}

std::string NetworkNamespace::path() const {
  return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(descriptor_);
}

ScopedNamespace::ScopedNamespace(const std::string& path) : before_(open_namespace(kThisNetwork)) {
  try {
    const int there = open_namespace(path);
    const bool entered = setns(there, CLONE_NEWNET) == 0;
    const int error = errno;
    close(there);
    errno = error;
    if (!entered) refuse("expected a network namespace and the right to enter it, " + path);
  } catch (...) {
    close(before_);
    throw;
  }
}

// The thread came from there with the right to enter namespaces.
ScopedNamespace::~ScopedNamespace() {
  if (setns(before_, CLONE_NEWNET) != 0) std::abort();
  close(before_);
}

void ip(const std::string& words) {
  Process::Arguments command = {"ip"};
  std::istringstream in(words);
  for (std::string word; in >> word;) command.push_back(word);
  Process process(command, [] { dup2(STDOUT_FILENO, STDERR_FILENO); });
  const std::optional<ProcessEnd> end = process.wait_for_end(kPatienceWithIp);
  if (!end) throw std::runtime_error("ip " + words + ": it does not end");
  if (!end->succeeded()) throw std::runtime_error("ip " + words + ": " + process.read_text());
}

void ip(const NetworkNamespace& there, const std::string& words) {
  const ScopedNamespace scope(there);
  ip(words);
}
