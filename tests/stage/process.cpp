#include "stage/process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <set>
#include <stdexcept>

namespace {

constexpr int kCannotStart = 127;  // as a shell counts it
constexpr int kKilled = 128;       // likewise, plus the signal's number
constexpr mode_t kEverybodyReads = 0644;

// What the parent holds of its children: a forked one has them too, and would keep them open.
std::set<int>& descriptors_of_children() {
  static std::set<int> descriptors;
  return descriptors;
}

[[noreturn]] void fail(const std::string& what) {
  throw std::runtime_error(what + ": " + std::strerror(errno));
}

void exec(const Process::Arguments& arguments) {
  std::vector<char*> pointers;
  for (const std::string& argument : arguments) pointers.push_back(const_cast<char*>(argument.c_str()));
  pointers.push_back(nullptr);
  execvp(pointers[0], pointers.data());
  throw std::runtime_error(std::strerror(errno));
}

int result_of(const std::function<int()>& work) {
  try {
    return work();
  } catch (const std::exception& error) {
    std::cerr << error.what() << std::endl;
    return EXIT_FAILURE;
  }
}

// In the child: it does not return, whatever goes wrong. The reason goes to the parent.
[[noreturn]] void run_child(int reason, const std::function<void()>& become) {
  try {
    become();
  } catch (const std::exception& error) {
    const std::string text = error.what();
    [[maybe_unused]] const ssize_t written = write(reason, text.data(), text.size());
  }
  _exit(kCannotStart);
}

// All that comes until the other end is closed.
std::string read_all(int descriptor) {
  std::string text;
  std::array<char, 256> piece;
  for (ssize_t count; (count = read(descriptor, piece.data(), piece.size())) > 0;) {
    text.append(piece.data(), static_cast<std::size_t>(count));
  }
  return text;
}

}  // namespace

int ProcessEnd::shell_status() const {
  return signal == 0 ? status : kKilled + signal;
}

std::string ProcessEnd::text() const {
  return signal == 0 ? "exit status " + std::to_string(status) : "killed by signal " + std::to_string(signal);
}

Process::Process(const Arguments& arguments, const Prepare& prepare) {
  start(arguments.at(0), prepare, [&](int) { exec(arguments); });
}

Process::Process(const std::function<int()>& work, const Prepare& prepare) {
  std::cout.flush();
  std::fflush(stdout);
  start("the process", prepare, [&](int reason) {
    for (const int descriptor : descriptors_of_children()) close(descriptor);
    descriptors_of_children().clear();
    close(reason);
    const int status = result_of(work);
    std::cout.flush();
    std::fflush(stdout);
    _exit(status);
  });
}

Process::~Process() {
  finish();
}

void Process::start(const std::string& name, const Prepare& prepare, const std::function<void(int)>& become) {
  int input[2];   // the child's end, the parent's; no pipe, whose writer a signal would end
  int output[2];  // a pipe, which takes more small pieces than a socket
  int reason[2];  // closed without a word by a start that succeeds
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, input) != 0) fail("socketpair");
  if (pipe2(output, O_CLOEXEC) != 0 || pipe2(reason, O_CLOEXEC) != 0) fail("pipe");
  const bool dies_with_thread = gettid() == getpid();
  input_ = input[1];
  output_ = output[0];
  descriptors_of_children().insert({input_, output_});
  fcntl(output_, F_SETFL, O_NONBLOCK);
  pid_ = fork();
  if (pid_ < 0) fail("fork");
  if (pid_ == 0) {
    run_child(reason[1], [&] {
      if (dies_with_thread) prctl(PR_SET_PDEATHSIG, SIGKILL);
      dup2(input[0], STDIN_FILENO);
      dup2(output[1], STDOUT_FILENO);
      prepare();
      become(reason[1]);
    });
  }
  for (const int childs : {input[0], output[1], reason[1]}) close(childs);
  const std::string why = read_all(reason[0]);
  close(reason[0]);
  if (why.empty()) return;
  finish();
  throw std::runtime_error(name + " cannot be started: " + why);
}

void Process::finish() {
  if (!end_) {
    send_signal(SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  for (const int descriptor : {input_, output_}) {
    descriptors_of_children().erase(descriptor);
    close(descriptor);
  }
}

bool Process::write_text(const std::string& text) const {
  return send(input_, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
}

void Process::close_input() const {
  shutdown(input_, SHUT_WR);
}

std::optional<std::string> Process::read_line() {
  receive();
  const std::size_t end = unread_.find('\n');
  if (end == std::string::npos) return std::nullopt;
  std::string line = unread_.substr(0, end);
  unread_.erase(0, end + 1);
  return line;
}

std::string Process::read_text() {
  receive();
  return std::move(unread_);
}

std::optional<ProcessEnd> Process::end() {
  receive();  // or it might wait for room
  int status = 0;
  if (!end_ && waitpid(pid_, &status, WNOHANG) == pid_) {
    end_ = WIFSIGNALED(status) ? ProcessEnd{0, WTERMSIG(status)} : ProcessEnd{WEXITSTATUS(status), 0};
  }
  return end_;
}

std::optional<ProcessEnd> Process::wait_for_end(std::chrono::duration<double> patience) {
  wait_until([this] { return end().has_value(); }, patience);
  return end_;
}

void Process::send_signal(int number) const {
  if (!end_) kill(pid_, number);
}

void Process::receive() {
  std::array<char, 4096> piece;
  for (ssize_t count; (count = read(output_, piece.data(), piece.size())) > 0;) {
    unread_.append(piece.data(), static_cast<std::size_t>(count));
  }
}

void append_errors_to(const std::string& file) {
  const int descriptor = open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, kEverybodyReads);
  if (descriptor < 0) fail(file);
  dup2(descriptor, STDERR_FILENO);
  close(descriptor);
}
