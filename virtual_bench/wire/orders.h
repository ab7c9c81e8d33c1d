#ifndef WIRE_ORDERS_H
#define WIRE_ORDERS_H

#include <string>
#include <string_view>

// One line of the wire's standard input, without its line end. All of them are about the first link only;
// each replaces the one of its kind that came before, and 0 ends what it ordered.
//
//   loses PERCENT         of the frames, by chance
//   duplicates PERCENT    likewise
//   swaps PERCENT         likewise, of those that can be held (damage.h)
//   delays MILLISECONDS   every frame
//   cuts SECONDS          from now on nothing gets through for that time
//
// The answer is "ok", or "refused: " and what was expected.
struct Order {
  enum class What { kLose, kDuplicate, kSwap, kDelay, kCut };

  What what;
  double amount;  // percent 0 to 100; milliseconds 0 to 60000 (kDelay); seconds 0 to 3600 (kCut)
};

struct ReadOrder {
  bool is_valid;
  Order order;           // when valid
  std::string expected;  // when not: what would have been
};

ReadOrder read_order(std::string_view line);

#endif
