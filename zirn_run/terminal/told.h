#ifndef TERMINAL_TOLD_H
#define TERMINAL_TOLD_H

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "story/reading.h"
#include "terminal/rows.h"
#include "terminal/screen.h"

namespace terminal {

using story::Nanoseconds;

// What is said of a row.
struct Told {
  Nanoseconds at = 0;
  std::size_t source = story::kNone;  // parties; without a target it is the source's own
  std::size_t target = story::kNone;
  std::string text;
  Style style = Style::kPlain;
  bool is_bulk = false;            // blocks of a file
  std::optional<double> fraction;  // of a transfer that is under way, from 0 to 1, where its size is known
};

Told told(const story::Reading& reading, const Row& row);

// What the row folds: its steps, with their times since the run's first moment, and the frames and lines that it comes from.
std::vector<std::string> details(const story::Reading& reading, const Row& row);

// "station", "172.40.0.3": as a head of a lane, or before a line.
std::string short_name(const story::Reading& reading, std::size_t party);

// "unit > station"; empty: nobody.
std::string who(const story::Reading& reading, const Told& told);

// Seconds since the run's first moment: "    0.225".
std::string time_in_words(const story::Reading& reading, Nanoseconds at);
constexpr std::size_t kTimeColumns = 9;

// The transfers that are under way, the latest first: "the unit reads kernel.img, 62 %, 1.1 s left". Empty: none is.
std::string under_way(const story::Reading& reading);

}  // namespace terminal

#endif
