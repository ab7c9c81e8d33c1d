#ifndef SUPPORT_OUTCOME_H
#define SUPPORT_OUTCOME_H

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <ostream>
#include <string>

#include "support/captured_output.h"

// What an operation returned and what this process printed meanwhile, to be compared as one:
//   EXPECT_EQ(outcome_of([&] { return client.sendBuffer("text"); }), (Outcome{4, ""}));
struct Outcome {
  int result;
  std::string printed;

  bool operator==(const Outcome& other) const { return result == other.result && printed == other.printed; }
};

inline std::ostream& operator<<(std::ostream& stream, const Outcome& outcome) {
  return stream << outcome.result << " and " << testing::PrintToString(outcome.printed);
}

// Failures that GoogleTest reports during the operation are not seen: check afterwards.
inline Outcome outcome_of(const std::function<int()>& operation) {
  CapturedOutput output;
  const int result = operation();
  return {result, output.text()};
}

inline double seconds_of(const std::function<void()>& operation) {
  const auto start = std::chrono::steady_clock::now();
  operation();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

#endif
