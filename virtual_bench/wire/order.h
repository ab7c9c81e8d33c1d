#ifndef WIRE_ORDER_H
#define WIRE_ORDER_H

#include <cstddef>

// What is to become of the frames of one link from now on. The first five replace what was ordered of their kind before,
// and 0 ends it; the others add up.
struct Order {
  enum class What {
    kLose,         // percent of the frames, by chance
    kDuplicate,    // percent, likewise
    kSwap,         // percent, likewise, of those that can be held (damage.h)
    kDelay,        // every frame, by milliseconds
    kCut,          // nothing gets through for seconds
    kLoseRequest,  // of the read of the file, `times` times
    kLoseAnswer,   // the first packet that the server answers it with, and `times` - 1 of its repetitions
    kLoseBlock,  // likewise the block with this number, as counted from 1, also where the numbers have begun again
    kLoseAck,     // likewise; 0: of the options
    kLoseNoMore,  // ends the four before
  };
  static constexpr std::size_t kNameBytes = 512;  // of a file, with the NUL that ends it

  What what;
  double amount = 0;  // at least 0; at most 100 where it is a percentage
  std::size_t link = 0;
  int times = 1;
  char name[kNameBytes] = "";
};

#endif
