#include "bench/process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace {

constexpr int kCannotStart = 127;  // as a shell says it
constexpr int kKilled = 128;       // likewise, plus the signal's number
constexpr mode_t kEverybodyReads = 0644;

struct Pipe {
  Pipe() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error(std::string("pipe: ") + std::strerror(errno));
    reading = ends[0];
    writing = ends[1];
  }
  int reading;
  int writing;
};

[[noreturn]] void become(const std::vector<std::string>& arguments) {
  std::vector<char*> pointers;
  pointers.reserve(arguments.size() + 1);
  for (const std::string& argument : arguments) pointers.push_back(const_cast<char*>(argument.c_str()));
  pointers.push_back(nullptr);
  execvp(pointers[0], pointers.data());
  throw std::runtime_error(std::strerror(errno));
}

// In the child: it does not return, whatever goes wrong. The reason goes to the parent.
[[noreturn]] void start(const std::function<void()>& become_program, int reason) {
  try {
    become_program();
  } catch (const std::exception& error) {
    const std::string text = error.what();
    [[maybe_unused]] const ssize_t written = write(reason, text.data(), text.size());
  }
  _exit(kCannotStart);
}

// All that comes out of the pipe until its other end is closed.
std::string all_of(int pipe) {
  std::string text;
  std::array<char, 256> piece;
  for (ssize_t count; (count = read(pipe, piece.data(), piece.size())) > 0;) {
    text.append(piece.data(), static_cast<std::size_t>(count));
  }
  return text;
}

int as_a_shell_says_it(int status) {
  return WIFSIGNALED(status) ? kKilled + WTERMSIG(status) : WEXITSTATUS(status);
}

}  // namespace

Process::Process(const std::vector<std::string>& arguments, const std::function<void()>& prepare,
                 const std::string& errors) {
  const Pipe to_child;
  const Pipe from_child;
  const Pipe reason;  // closed without a word by the program's start
  pid_ = fork();
  if (pid_ < 0) throw std::runtime_error(std::string("fork: ") + std::strerror(errno));
  if (pid_ == 0) {
    const auto become_program = [&] {
      prepare();
      dup2(to_child.reading, STDIN_FILENO);
      dup2(from_child.writing, STDOUT_FILENO);
      if (!errors.empty())
        dup2(open(errors.c_str(), O_WRONLY | O_CREAT | O_APPEND, kEverybodyReads), STDERR_FILENO);
      become(arguments);
    };
    start(become_program, reason.writing);
  }
  for (const int childs_end : {to_child.reading, from_child.writing, reason.writing}) close(childs_end);
  input_ = to_child.writing;
  output_ = from_child.reading;
  fcntl(output_, F_SETFL, O_NONBLOCK);
  const std::string why = all_of(reason.reading);
  close(reason.reading);
  if (why.empty()) return;
  end();
  throw std::runtime_error(arguments[0] + " cannot be started: " + why);
}

Process::~Process() {
  end();
}

void Process::end() {
  if (!end_) {
    signals(SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  close(input_);
  close(output_);
}

void Process::says(const std::string& line) {
  const std::string text = line + "\n";
  [[maybe_unused]] const ssize_t written = write(input_, text.data(), text.size());
}

std::optional<std::string> Process::next_line() {
  read_output();
  const std::size_t end = unread_.find('\n');
  if (end == std::string::npos) return std::nullopt;
  std::string line = unread_.substr(0, end);
  unread_.erase(0, end + 1);
  return line;
}

std::string Process::rest() {
  read_output();
  std::string text;
  text.swap(unread_);
  return text;
}

std::optional<int> Process::ended() {
  int status = 0;
  if (!end_ && waitpid(pid_, &status, WNOHANG) == pid_) end_ = as_a_shell_says_it(status);
  return end_;
}

void Process::signals(int number) const {
  kill(pid_, number);
}

void Process::read_output() {
  std::array<char, 4096> piece;
  for (ssize_t count; (count = read(output_, piece.data(), piece.size())) > 0;) {
    unread_.append(piece.data(), static_cast<std::size_t>(count));
  }
}
