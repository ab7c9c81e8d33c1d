#ifndef WIRE_DAMAGE_H
#define WIRE_DAMAGE_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <random>
#include <string>
#include <string_view>

#include "wire/ordered_losses.h"

enum class Fate { kLostByChance, kLostByCut, kLostAtTheEnd, kDuplicated, kSwapped, kLostAsOrdered };

// Takes what becomes of the frames.
class FrameSink {
 public:
  virtual ~FrameSink() = default;
  // The frame comes out at the far end, this many times in a row. The bytes are valid during the call.
  virtual void leave(int direction, std::uint64_t number, std::string_view frame, int copies) = 0;
  virtual void note(std::uint64_t number, Fate fate) = 0;
};

// What becomes of each frame of a link with two directions, 0 and 1. It knows no device and no clock: times
// are given, and must never go back.
//
// A frame passes five stages, each of which may be its last:
//   cut          while the cable is pulled it is lost
//   loss         by chance, or as ordered (ordered_losses.h)
//   duplication  by chance; from here on the two copies go together
//   swap         by chance it is held, unless one of its direction is held already. A frame that is not held
//                goes on, and the held one goes on right after it. If none comes for kHoldTime, the held one
//                goes on alone.
//   delay        it waits, and never leaves before one that went before it
// A cut also loses what is held or delayed at that moment. What would make more than kMostDelayedBytes wait
// is lost.
//
// Every frame draws its three chances from the seeded generator whatever is ordered, so that the n-th frame
// always draws the same.
class Damage {
 public:
  using Clock = std::chrono::steady_clock;
  using Time = Clock::time_point;
  using Duration = Clock::duration;
  static constexpr std::chrono::milliseconds kHoldTime{20};
  static constexpr std::size_t kMostDelayedBytes = 64 * 1024 * 1024;

  // The sink must live as long as this.
  Damage(std::uint64_t seed, FrameSink& sink) : sink_(sink), generator_(seed) {}

  // Of the frames that enter from now on; percent from 0 to 100.
  void lose(double percent) { lost_percent_ = percent; }
  void duplicate(double percent) { duplicated_percent_ = percent; }
  void swap(double percent) { swapped_percent_ = percent; }
  void delay(Duration time) { delay_ = time; }
  OrderedLosses& losses() { return losses_; }
  // Pulls the cable now for this time; a cut that lasts already ends.
  void cut(Duration time, Time now);

  // A frame enters. What leaves because of that leaves during the call; the bytes are not needed after it.
  void enter(int direction, std::uint64_t number, std::string_view frame, Time now);
  // Lets out what has waited long enough.
  void let_out(Time now);
  // When let_out has something to do next, or nothing when no frame waits.
  std::optional<Time> next_due() const;

 private:
  struct Frame {
    std::uint64_t number;
    std::string_view bytes;
    int copies;
  };
  struct WaitingFrame {
    std::uint64_t number;
    std::string bytes;
    int copies;
    Time due;

    Frame frame() const { return {number, bytes, copies}; }
  };
  struct Direction {
    std::optional<WaitingFrame> held;
    std::deque<WaitingFrame> delayed;  // due in this order
  };

  bool happens(double percent);
  void go_on(int direction, const Frame& frame, Time now);
  void release_held(int direction, Time now);

  FrameSink& sink_;
  std::mt19937_64 generator_;
  OrderedLosses losses_;
  double lost_percent_ = 0;
  double duplicated_percent_ = 0;
  double swapped_percent_ = 0;
  Duration delay_ = Duration::zero();
  Time cut_until_ = Time::min();
  Direction directions_[2];
  std::size_t delayed_bytes_ = 0;  // of both directions
};

#endif
