#ifndef SUPPORT_CAPTURED_OUTPUT_H
#define SUPPORT_CAPTURED_OUTPUT_H

#include <chrono>
#include <string>

// What this process writes to standard output, on any thread, while the object lives. The output stream's
// number format is back at its default before and after. When the test has failed by the end, all of it is
// printed after all.
class CapturedOutput {
 public:
  CapturedOutput();
  ~CapturedOutput();
  CapturedOutput(const CapturedOutput&) = delete;
  CapturedOutput& operator=(const CapturedOutput&) = delete;

  // Everything so far.
  std::string text() const;
  // Waits until everything so far contains the piece. False when it did not come in time.
  bool waits_for(const std::string& piece,
                 std::chrono::milliseconds patience = std::chrono::seconds(10)) const;

 private:
  int captured_;
  int standard_output_;
};

#endif
