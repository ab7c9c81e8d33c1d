#ifndef BENCH_TIMELINE_H
#define BENCH_TIMELINE_H

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <iostream>
#include <string>

// Microseconds since the epoch, as captures count them.
inline std::int64_t microseconds_since_epoch() {
  const auto time = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::microseconds>(time).count();
}

// Prints what happens in a run as it happens: "   1.204 s  station  | RRQ bootscript.txt".
class Timeline {
 public:
  Timeline() : start_(microseconds_since_epoch()) {}
  std::int64_t start() const { return start_; }
  // who: station, unit, ppt, board, wire or bench.
  void log(const std::string& who, const std::string& what) const {
    char when_and_who[60];
    std::snprintf(when_and_who, sizeof when_and_who, "%9.3f s  %-8s ",
                  static_cast<double>(microseconds_since_epoch() - start_) / 1e6, who.c_str());
    std::cout << when_and_who << what << std::endl;
  }

 private:
  const std::int64_t start_;
};

#endif
