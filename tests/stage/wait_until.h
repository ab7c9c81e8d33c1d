#ifndef STAGE_WAIT_UNTIL_H
#define STAGE_WAIT_UNTIL_H

#include <chrono>
#include <thread>

// How long to wait for what happens at once on a machine that has time.
constexpr std::chrono::seconds kPatience{10};

// Waits until the condition holds, for at most so long. Whether it held in the end.
template <typename Condition>
bool wait_until(const Condition& condition, std::chrono::duration<double> patience = kPatience) {
  constexpr std::chrono::milliseconds kInterval{5};
  const auto end = std::chrono::steady_clock::now() + patience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(kInterval);
  }
  return true;
}

#endif
