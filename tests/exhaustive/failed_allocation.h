#ifndef EXHAUSTIVE_FAILED_ALLOCATION_H
#define EXHAUSTIVE_FAILED_ALLOCATION_H

#include <cstddef>

// Lets one allocation of the program fail while the object lives: the nth from now on. One at a time.
class FailedAllocation {
 public:
  explicit FailedAllocation(int nth);
  ~FailedAllocation();
  FailedAllocation(const FailedAllocation&) = delete;
  FailedAllocation& operator=(const FailedAllocation&) = delete;

  bool struck() const;
  // How many datagrams had been sent by then.
  std::size_t sent_before() const;
};

// The program's allocations so far.
long allocations_so_far();

#endif
