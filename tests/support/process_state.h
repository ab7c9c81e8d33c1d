#ifndef SUPPORT_PROCESS_STATE_H
#define SUPPORT_PROCESS_STATE_H

#include <sys/time.h>

#include <string>

#include "support/captured_output.h"

// What the function prints. Failures that GoogleTest reports meanwhile are counted, but not seen.
template <typename Function>
std::string printed_by(Function function) {
  const CapturedOutput output;
  function();
  return output.text();
}

// Seconds until the alarm; 0 when none is armed.
inline double seconds_until_alarm() {
  itimerval timer;
  getitimer(ITIMER_REAL, &timer);
  return static_cast<double>(timer.it_value.tv_sec) + 1e-6 * static_cast<double>(timer.it_value.tv_usec);
}

#endif
