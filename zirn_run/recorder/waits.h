#ifndef RECORDER_WAITS_H
#define RECORDER_WAITS_H

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>

// What is waited for besides frames and lines, each by a descriptor.
namespace recorder {

// SIGINT and SIGTERM, to be waited for with all else; SIGHUP as well, unless it is ignored, as by nohup.
class Signals {
 public:
  explicit Signals(bool hears_hangup) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    struct sigaction action = {};
    sigaction(SIGHUP, nullptr, &action);
    if (hears_hangup && action.sa_handler != SIG_IGN) sigaddset(&set, SIGHUP);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    signal(SIGPIPE, SIG_IGN);
    descriptor_ = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
  }
  ~Signals() { close(descriptor_); }
  Signals(const Signals&) = delete;
  Signals& operator=(const Signals&) = delete;

  int descriptor() const { return descriptor_; }
  // One that came; 0: none.
  int came() const {
    signalfd_siginfo signal = {};
    return read(descriptor_, &signal, sizeof signal) > 0 ? static_cast<int>(signal.ssi_signo) : 0;
  }

 private:
  int descriptor_;
};

// The end of a process, to be waited for with all else. Without pidfd_open (Linux 5.3) it is there to be asked for alone.
class Process {
 public:
  // 0: none, which does not end.
  explicit Process(pid_t pid)
      : pid_(pid), descriptor_(pid == 0 ? -1 : static_cast<int>(syscall(SYS_pidfd_open, pid, 0))) {}
  ~Process() {
    if (descriptor_ >= 0) close(descriptor_);
  }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  int descriptor() const { return descriptor_; }
  bool has_ended() const {
    pollfd event = {descriptor_, POLLIN, 0};
    if (descriptor_ >= 0) return poll(&event, 1, 0) > 0;
    return pid_ != 0 && kill(pid_, 0) != 0 && errno == ESRCH;
  }

 private:
  const pid_t pid_;
  const int descriptor_;
};

}  // namespace recorder

#endif
