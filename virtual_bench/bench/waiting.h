#ifndef BENCH_WAITING_H
#define BENCH_WAITING_H

#include <chrono>
#include <thread>

constexpr std::chrono::milliseconds kBetweenLooks{5};

// Looks until is_so() holds, for at most so many seconds. Whether it held in the end.
template <typename Condition>
bool comes_true(double seconds, const Condition& is_so) {
  const auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (!is_so()) {
    if (std::chrono::steady_clock::now() > until) return false;
    std::this_thread::sleep_for(kBetweenLooks);
  }
  return true;
}

#endif
