#ifndef SUPPORT_THREADS_H
#define SUPPORT_THREADS_H

#include <signal.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <set>
#include <string>

#include "stage/wait_until.h"

// What a test asks about threads.

class Stopwatch {
 public:
  std::chrono::milliseconds elapsed() const {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start_);
  }

 private:
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

// The process's threads, as the numbers in /proc/self/task.
inline std::set<std::string> tasks() {
  std::set<std::string> result;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
    result.insert(entry.path().filename());
  }
  return result;
}

// Bit n - 1 stands for signal n.
using SignalMask = std::uint64_t;

inline SignalMask mask_of(std::initializer_list<int> signals) {
  SignalMask mask = 0;
  for (int signal_number : signals) mask |= SignalMask{1} << (signal_number - 1);
  return mask;
}

// What a thread blocks: "thread-self" or "self/task/<number>".
inline SignalMask blocked_signals(const std::string& thread) {
  std::ifstream status("/proc/" + thread + "/status");
  std::string word;
  while (status >> word && word != "SigBlk:") continue;
  SignalMask mask = ~SignalMask{0};
  status >> std::hex >> mask;
  return mask;
}

// Blocked on the calling thread while it lives.
class BlockedSignal {
 public:
  explicit BlockedSignal(int signal_number) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, signal_number);
    pthread_sigmask(SIG_BLOCK, &set, &before_);
  }
  ~BlockedSignal() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  BlockedSignal(const BlockedSignal&) = delete;
  BlockedSignal& operator=(const BlockedSignal&) = delete;

 private:
  sigset_t before_;
};

#endif
