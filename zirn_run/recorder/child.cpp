#include "recorder/child.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace recorder {

namespace {

constexpr int kNoSuchProgram = 127;

[[noreturn]] void become(const std::vector<std::string>& words, int output) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  setpgid(0, 0);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  signal(SIGPIPE, SIG_DFL);
  const int nothing = open("/dev/null", O_RDWR);
  dup2(nothing, STDIN_FILENO);
  dup2(output, STDOUT_FILENO);
  std::vector<char*> arguments;
  arguments.reserve(words.size() + 1);
  for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  execvp(arguments[0], arguments.data());
  _exit(kNoSuchProgram);
}

}  // namespace

Child::Child(const std::vector<std::string>& words) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw std::system_error(errno, std::generic_category(), "pipe");
  pid_ = fork();
  if (pid_ == 0) become(words, ends[1]);
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
  kill(pid_, SIGKILL);
  while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) continue;
}

Child::Child(Child&& other) noexcept
    : pid_(std::exchange(other.pid_, -1)), output_(std::exchange(other.output_, -1)) {}

Child& Child::operator=(Child&& other) noexcept {
  std::swap(pid_, other.pid_);
  std::swap(output_, other.output_);
  return *this;
}

std::string output_of(const std::vector<std::string>& words) {
  const Child child(words);
  std::string output;
  char buffer[4096];
  ssize_t count = 0;
  while ((count = read(child.descriptor(), buffer, sizeof buffer)) > 0 || (count < 0 && errno == EINTR)) {
    if (count > 0) output.append(buffer, static_cast<std::size_t>(count));
  }
  return output;
}

}  // namespace recorder
