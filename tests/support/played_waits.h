#ifndef SUPPORT_PLAYED_WAITS_H
#define SUPPORT_PLAYED_WAITS_H

#include <vector>

// While the object lives, this thread does not wait in select, or in a recvfrom with a time limit: it finds
// what is there, and a wait for what is not is over at once. One object at a time.
class PlayedWaits {
 public:
  PlayedWaits();
  ~PlayedWaits();
  PlayedWaits(const PlayedWaits&) = delete;
  PlayedWaits& operator=(const PlayedWaits&) = delete;

  // What each wait was to last at the most, whether something ended it or not.
  const std::vector<long>& seconds() const { return seconds_; }

 private:
  std::vector<long> seconds_;
};

#endif
