#ifndef BENCH_TIMELINE_H
#define BENCH_TIMELINE_H

#include <string>

// Seconds since the epoch, as captures count them.
double epoch_seconds();
// With six decimals, as the logs of a run hold them.
std::string in_log_form(double seconds);

// Prints what happens in a run as it happens: "   1.204 s  station  | RRQ bootscript.txt".
class Timeline {
 public:
  Timeline() : start_(epoch_seconds()) {}
  double start() const { return start_; }
  // who: station, unit, ppt, board, wire or bench.
  void says(const std::string& who, const std::string& what) const;

 private:
  const double start_;
};

#endif
