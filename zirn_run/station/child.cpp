#include "station/child.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

namespace station {

namespace {

constexpr int kNoSuchProgram = 127;
constexpr std::size_t kMostOutput = std::size_t{1} << 20;  // bytes

[[noreturn]] void become(const std::vector<std::string>& words, int output, int errors) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  setpgid(0, 0);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  signal(SIGPIPE, SIG_DFL);
  const int nothing = open("/dev/null", O_RDWR);
  dup2(nothing, STDIN_FILENO);
  dup2(output, STDOUT_FILENO);
  if (errors >= 0) dup2(errors, STDERR_FILENO);
  std::vector<char*> arguments;
  arguments.reserve(words.size() + 1);
  for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  execvp(arguments[0], arguments.data());
  _exit(kNoSuchProgram);
}

}  // namespace

Child::Child(const std::vector<std::string>& words, int its_errors) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw std::system_error(errno, std::generic_category(), "pipe");
  pid_ = fork();
  if (pid_ == 0) become(words, ends[1], its_errors);
  const int error = errno;
  close(ends[1]);
  output_ = ends[0];
  if (pid_ < 0) {
    close(output_);
    throw std::system_error(error, std::generic_category(), "fork");
  }
}

Child::~Child() {
  if (output_ < 0) return;
  close(output_);
  kill(-pid_, SIGKILL);
  kill(pid_, SIGKILL);  // it may have had no time to lead a group
  while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) continue;
}

Child::Child(Child&& other) noexcept
    : pid_(std::exchange(other.pid_, -1)), output_(std::exchange(other.output_, -1)) {}

Child& Child::operator=(Child&& other) noexcept {
  std::swap(pid_, other.pid_);
  std::swap(output_, other.output_);
  return *this;
}

std::string output_of(const std::vector<std::string>& words, std::chrono::milliseconds patience) {
  using Clock = std::chrono::steady_clock;
  const auto end = Clock::now() + patience;
  const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
  const Child child(words, nowhere);
  close(nowhere);
  std::string output;
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
    pollfd wait = {child.descriptor(), POLLIN, 0};
    const int ready = poll(&wait, 1, std::max(static_cast<int>(left.count()), 0));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0 || output.size() >= kMostOutput) return output;
    char buffer[4096];
    const ssize_t count = read(child.descriptor(), buffer, sizeof buffer);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return output;
    output.append(buffer, static_cast<std::size_t>(count));
  }
}

}  // namespace station
