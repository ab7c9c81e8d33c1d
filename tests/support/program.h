#ifndef SUPPORT_PROGRAM_H
#define SUPPORT_PROGRAM_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/whole_file.h"

// A program of the distribution as a child process, found in PATH. It is in the place of the thread that
// makes it, and in its working directory. It is killed with the object if it still runs.
class Program {
 public:
  using Milliseconds = std::chrono::milliseconds;
  using Words = std::vector<std::string>;
  // What exit_status returns besides 0 to 255.
  static constexpr int kStillRunning = -1000;

  explicit Program(Words words) : output_(memfd_create("output", MFD_CLOEXEC)) {
    // Both streams share one position unless every write goes to the end.
    fcntl(output_, F_SETFL, O_APPEND);
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    pid_ = fork();
    if (pid_ == -1) throw std::runtime_error("cannot fork");
    if (pid_ != 0) return;
    dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
    dup2(output_, STDOUT_FILENO);
    dup2(output_, STDERR_FILENO);
    execvp(argv[0], argv.data());
    _exit(127);
  }
  ~Program() {
    if (exit_status(Milliseconds(0)) == kStillRunning) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    close(output_);
  }
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  // Standard output and standard error so far.
  std::string output() const { return whole_file(output_); }
  // Waits for its end: the exit status, minus the signal's number when a signal ended it, or kStillRunning.
  int exit_status(Milliseconds patience) {
    const auto end = std::chrono::steady_clock::now() + patience;
    int status = 0;
    while (status_ == kStillRunning) {
      if (waitpid(pid_, &status, WNOHANG) == pid_) {
        status_ = WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
      } else if (std::chrono::steady_clock::now() > end) {
        break;
      } else {
        std::this_thread::sleep_for(Milliseconds(2));
      }
    }
    return status_;
  }

  // Whether PATH has a program of that name.
  static bool exists(const std::string& name) {
    const char* const path = std::getenv("PATH");
    std::istringstream folders(path == nullptr ? "" : path);
    for (std::string folder; std::getline(folders, folder, ':');) {
      if (access((folder + "/" + name).c_str(), X_OK) == 0) return true;
    }
    return false;
  }

 private:
  pid_t pid_;
  int output_;
  int status_ = kStillRunning;
};

#define NEEDS_PROGRAM(name, package) \
  if (!Program::exists(name)) GTEST_SKIP() << "needs " << (name) << " (package " << (package) << ")"

#endif
