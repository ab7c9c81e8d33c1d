#ifndef SUPPORT_DAEMON_H
#define SUPPORT_DAEMON_H

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "support/program.h"

// The built program as a child process, seen only from outside. Its working directory, environment and
// network are those of the test. It is killed with the object if it still runs; when the test has failed by
// then, its whole output is printed.
class Daemon {
 public:
  using Milliseconds = std::chrono::milliseconds;
  static constexpr Milliseconds kPatience = ::kPatience;
  // What exit_status returns besides 0 to 255.
  static constexpr int kStillRunning = kStillRunningStatus;

  // output: the descriptor that it prints to, instead of what output() returns.
  explicit Daemon(const std::vector<std::string>& arguments = {}, std::optional<int> output = std::nullopt);
  ~Daemon();
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  pid_t pid() const { return process_.pid(); }
  // Standard output so far, and standard error so far.
  std::string output() const;
  std::string errors() const;
  // Waits until the output contains the piece. False when it did not come in time.
  bool prints(const std::string& piece, Milliseconds patience = kPatience) const;
  // Waits until it serves requests. False when it does not.
  bool serves() const;
  void gets_signal(int signal_number);
  // Waits for its end: the exit status, minus the signal's number when a signal ended it, or kStillRunning.
  int exit_status(Milliseconds patience = kPatience);

 private:
  int output_;
  int errors_;
  Process process_;
};

#endif
