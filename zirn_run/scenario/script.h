#ifndef SCENARIO_SCRIPT_H
#define SCENARIO_SCRIPT_H

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <set>
#include <string>
#include <vector>

#include "frames/packet.h"
#include "scenario/scenario.h"

namespace scenario {

using frames::Numbers;
using record::Nanoseconds;

inline constexpr Nanoseconds kSecond = 1000000000;

// The steps while they are collected, in any order; each stands where its time puts it.
//
// A form is one of the bench's: its capital words stand for values, given in their order. A value that the language
// cannot hold (a NUL, or what no terminal should get) makes a comment of the step.
class Script {
 public:
  using Values = std::initializer_list<std::string>;

  // Before the station starts.
  void sets(const std::string& form, Values values = {}, const Numbers& numbers = {});
  // The station's start, and what comes right after it.
  void starts(const std::string& form, Values values = {});
  // Waits for what is its cause.
  void waits(Nanoseconds at, const std::string& form, Values values, const Numbers& numbers);
  // The same, of what the bench waits for only so long: if it took the station longer, there is a pause before.
  void follows(Nanoseconds at, const std::string& form, Values values, const Numbers& numbers);
  // Nobody causes it but who does it; it lasts until `until`.
  void acts(Nanoseconds at, Nanoseconds until, const std::string& form, Values values,
            const Numbers& numbers);
  // A comment, which counts as left out.
  void cannot_say(Nanoseconds at, const std::string& what, const Numbers& numbers);

  // Whether something acts between the two.
  bool has_act_between(Nanoseconds from, Nanoseconds until) const;

  // `start`: when the station started.
  Scenario written(const std::string& title, Nanoseconds start);

 private:
  enum class Kind { kWaits, kFollows, kActs, kComment };
  struct Line {
    Nanoseconds at = 0;
    Nanoseconds until = 0;
    Kind kind = Kind::kWaits;
    std::string text;
  };
  void add(const Line& where, const std::string& form, Values values, const Numbers& numbers);

  std::vector<Line> lines_;
  std::set<Nanoseconds> acts_;  // when
  std::size_t left_out_ = 0;
};

// Whether a step can hold the word as it is.
bool can_be_written(const std::string& word);

// "1.5"; one digit after the point at the most, and 3600 at the most.
std::string in_tenths(double number);

}  // namespace scenario

#endif
