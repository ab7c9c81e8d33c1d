#ifndef WIRE_ORDER_H
#define WIRE_ORDER_H

// What is to become of the frames of the first link from now on. Each order replaces the one of its kind that
// came before, and 0 ends what it ordered.
struct Order {
  enum class What {
    kLose,       // percent of the frames, by chance
    kDuplicate,  // percent, likewise
    kSwap,       // percent, likewise, of those that can be held (damage.h)
    kDelay,      // every frame, by milliseconds
    kCut,        // nothing gets through for seconds
  };

  What what;
  double amount;  // at least 0; at most 100 where it is a percentage
};

#endif
