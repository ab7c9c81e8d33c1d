#ifndef TERMINAL_JUDGEMENT_H
#define TERMINAL_JUDGEMENT_H

#include <chrono>
#include <cstdint>
#include <string>

#include "story/reading.h"
#include "terminal/screen.h"

namespace terminal {

// How far the run is and whose fault it is as soon as something points to somebody: the explanation, made anew while
// the run goes on. That is done at most once in kPace, and takes at most a fiftieth of the time.
class Judgement {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::milliseconds kPace{1000};

  // False: it is as it was, or not yet time.
  bool look_at(const story::Reading& reading, Clock::time_point now);
  // At once.
  void judge(const story::Reading& reading);

  // "2 files read, 3 steps reported, no final verdict yet", "the unit PASSED".
  const std::string& how_far() const { return how_far_; }
  Style style_of_how_far() const { return style_; }
  // "PPT server (ppt.silent): the PPT server did not answer ..."; empty: nothing points to anybody.
  const std::string& fault() const { return fault_; }

 private:
  static constexpr int kShare = 50;

  std::uint64_t revision_ = 0;
  Clock::time_point next_;
  std::string how_far_;
  Style style_ = Style::kPlain;
  std::string fault_;
};

}  // namespace terminal

#endif
