#ifndef FUZZ_ANY_RUN_H
#define FUZZ_ANY_RUN_H

#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>

#include "story/story.h"

// A run out of the fuzzer's bytes: frames that are nearly right, and what a station says among them. Whole frames are
// out of anything, or IPv4 with UDP, TCP or ICMP between a few machines and ports, so that transfers, connections and
// fragments come about.
class AnyRun {
 public:
  AnyRun(const std::uint8_t* bytes, std::size_t size) : input_(bytes, size) {}

  // Tells the next frame or entry. False: there is none.
  bool tell(story::Story* story);
  std::uint64_t told() const { return told_; }
  std::size_t left() { return input_.remaining_bytes(); }

 private:
  FuzzedDataProvider input_;
  std::uint64_t told_ = 0;
  record::Nanoseconds now_ = 1700000000000000000;
};

#endif
