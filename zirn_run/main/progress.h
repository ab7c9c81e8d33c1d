#ifndef MAIN_PROGRESS_H
#define MAIN_PROGRESS_H

#include <unistd.h>

#include <chrono>
#include <iostream>
#include <string>

// A line on standard error that says how far something is, where that is a terminal: it appears after a second, and is
// erased with the object.
class ProgressLine {
 public:
  ~ProgressLine() { erase(); }

  void show(const std::string& text) {
    const auto now = Clock::now();
    if (!is_terminal_ || now < next_) return;
    next_ = now + kBetween;
    is_shown_ = true;
    std::cerr << kToTheBeginning << text << std::flush;
  }
  void erase() {
    if (is_shown_) std::cerr << kToTheBeginning << std::flush;
    is_shown_ = false;
  }

 private:
  using Clock = std::chrono::steady_clock;
  static constexpr char kToTheBeginning[] = "\r\033[K";  // and erases the line
  static constexpr std::chrono::milliseconds kBetween{200};

  const bool is_terminal_ = isatty(STDERR_FILENO) == 1;
  Clock::time_point next_ = Clock::now() + std::chrono::seconds(1);
  bool is_shown_ = false;
};

#endif
