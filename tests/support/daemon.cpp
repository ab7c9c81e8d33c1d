#include "support/daemon.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>
#include <thread>

#include "support/whole_file.h"

namespace {

constexpr std::chrono::milliseconds kPollInterval(5);

int output_file(const char* name) {
  const int descriptor = memfd_create(name, MFD_CLOEXEC);
  // Parent and child share one position unless every write goes to the end.
  fcntl(descriptor, F_SETFL, O_APPEND);
  return descriptor;
}

template <typename Condition>
bool wait_until(Condition condition, std::chrono::milliseconds patience) {
  const auto end = std::chrono::steady_clock::now() + patience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(kPollInterval);
  }
  return true;
}

}  // namespace

Daemon::Daemon(const std::vector<std::string>& arguments)
    : output_(output_file("output")), errors_(output_file("errors")) {
  std::vector<std::string> words = {TFTP_PROGRAM};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  pid_ = fork();
  if (pid_ == -1) throw std::runtime_error("cannot fork");
  if (pid_ == 0) {
    dup2(output_, STDOUT_FILENO);
    dup2(errors_, STDERR_FILENO);
    setenv("LSAN_OPTIONS", "suppressions=" LEAKS_THAT_ARE_MEANT ":print_suppressions=0", 1);
    execv(argv[0], argv.data());
    _exit(127);
  }
}

Daemon::~Daemon() {
  if (exit_status(Milliseconds(0)) == kStillRunning) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  if (testing::Test::HasFailure()) {
    std::fprintf(stderr, "the daemon's output:\n%s\nits errors:\n%s\n", output().c_str(), errors().c_str());
  }
  close(output_);
  close(errors_);
}

std::string Daemon::output() const {
  return whole_file(output_);
}

std::string Daemon::errors() const {
  return whole_file(errors_);
}

bool Daemon::prints(const std::string& piece, Milliseconds patience) const {
  return wait_until([&] { return output().find(piece) != std::string::npos; }, patience);
}

bool Daemon::serves() const {
  return prints("Server started , waiting for connections\n");
}

void Daemon::gets_signal(int signal_number) {
  got_signal_ = true;
  kill(pid_, signal_number);
}

int Daemon::exit_status(Milliseconds patience) {
  if (status_ != kStillRunning) return status_;
  int status = 0;
  if (!wait_until([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, patience)) return kStillRunning;
  return status_ = WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}
