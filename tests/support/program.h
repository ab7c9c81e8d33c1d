#ifndef SUPPORT_PROGRAM_H
#define SUPPORT_PROGRAM_H

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <sstream>
#include <string>

#include "stage/process.h"

// What exit_status of a Program and of the Daemon returns: the exit status, minus the signal's number when a
// signal ended it, or kStillRunning.
inline constexpr int kStillRunningStatus = -1000;
inline int status_number(const std::optional<ProcessEnd>& end) {
  if (!end) return kStillRunningStatus;
  return end->signal == 0 ? end->status : -end->signal;
}

// A program of the distribution as a child process, found in PATH. It is in the place of the thread that
// makes it, and in its working directory. It is killed with the object if it still runs.
class Program {
 public:
  using Words = Process::Arguments;
  static constexpr int kStillRunning = kStillRunningStatus;

  explicit Program(const Words& words) : process_(words, [] { dup2(STDOUT_FILENO, STDERR_FILENO); }) {
    process_.close_input();
  }

  // Standard output and standard error so far.
  std::string output() { return output_ += process_.read_text(); }
  int exit_status(std::chrono::milliseconds patience) {
    return status_number(process_.wait_for_end(patience));
  }

  // Whether PATH has a program of that name, or it is the file of one.
  static bool exists(const std::string& name) {
    if (name[0] == '/') return access(name.c_str(), X_OK) == 0;
    const char* const path = std::getenv("PATH");
    std::istringstream folders(path == nullptr ? "" : path);
    for (std::string folder; std::getline(folders, folder, ':');) {
      if (access((folder + "/" + name).c_str(), X_OK) == 0) return true;
    }
    return false;
  }

 private:
  Process process_;
  std::string output_;
};

#define NEEDS_PROGRAM(name, package) \
  if (!Program::exists(name)) GTEST_SKIP() << "needs " << (name) << " (package " << (package) << ")"

#endif
