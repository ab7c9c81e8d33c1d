#include "scenario/manner.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <optional>
#include <sstream>
#include <vector>

namespace scenario {

namespace {

using story::Transfer;

constexpr double kTolerance = 0.3;  // of a time that was measured, relatively
constexpr double kLate = 0.2;  // seconds that a client or a recorder on a busy machine may be late besides
constexpr std::uint64_t kMostRepetitions = 1000;
constexpr std::uint64_t kSomeRepetitions = 10;  // of a read that arrived all the same
constexpr char kNoValue[] = "-";

struct Range {
  std::uint64_t least;
  std::uint64_t most;
};
const std::map<std::string, Range> kNumbers = {{"blksize", {1, 65464}},
                                               {"timeout", {1, 255}}};  // RFC 2348, RFC 2349

bool can_be_said(const std::string& name, const std::string& value) {
  const auto range = kNumbers.find(name);
  if (range == kNumbers.end()) return name == "tsize" && value == "0";
  const std::uint64_t number = std::strtoul(value.c_str(), nullptr, 10);
  return std::to_string(number) == value && number >= range->second.least && number <= range->second.most;
}

// What a read that asks so says besides its habit; nothing where the habit asks otherwise.
std::optional<std::string> said_besides(const Transfer::Options& asked, const Habit& habit) {
  std::map<std::string, std::string> said;  // in the order of the step
  auto option = asked.begin();
  std::istringstream words{std::string(habit.options)};
  for (std::string name, value; words >> name >> value;) {
    if (option == asked.end() || option->first != name) {
      if (value != kNoValue) return std::nullopt;
    } else {
      if (option->second != value) said[name] = option->second;
      ++option;
    }
  }
  if (option != asked.end()) return std::nullopt;
  std::string text;
  for (const auto& [name, value] : said) text.append(" ").append(name).append(" ").append(value);
  return text;
}

// The shortest time, in seconds, after which the client repeated something; 0: it did not.
double shortest_patience(const Transfer& read) {
  Nanoseconds shortest = read.request_patience;
  for (const story::Silence& silence : read.silences) {
    const Nanoseconds time = silence.until - silence.from;
    if (silence.ended_by == read.client && (shortest == 0 || time < shortest)) shortest = time;
  }
  return static_cast<double>(shortest) / kSecond;
}

bool is_patient_so(const Habit& habit, const Transfer& read, double seconds) {
  const auto is_about = [seconds](double habitual) {
    const double late = seconds - habitual;
    return late > -kTolerance * habitual && late < kTolerance * habitual + kLate;
  };
  if (seconds == 0) return true;
  if (&habit == std::begin(kHabits)) return read.requests == 1;  // and its ACK it repeats as the options say
  return is_about(habit.request_seconds) || is_about(habit.ack_seconds);
}

std::string repetitions(const Transfer& read, double seconds) {
  const std::uint64_t times =
      read.answered ? kSomeRepetitions : std::min(read.requests - 1, kMostRepetitions);
  return " repeats " + std::to_string(std::max<std::uint64_t>(times, 1)) + " times after " +
         in_tenths(seconds) + " s";
}

}  // namespace

Manner manner_of(const Transfer& read, Script* script) {
  Transfer::Options asked;
  for (const auto& [name, value] : read.asked) {
    if (can_be_said(name, value)) {
      asked.emplace_back(name, value);
      continue;
    }
    std::string what = "asks for the option ";
    script->cannot_say(read.from, what.append(name).append(" ").append(value), read.frames);
  }
  const double seconds = shortest_patience(read);
  std::optional<Manner> found;
  bool is_fitting = false;
  for (const Habit& habit : kHabits) {
    const auto besides = said_besides(asked, habit);
    if (!besides) continue;
    const bool fits = is_patient_so(habit, read, seconds);
    if (found && (is_fitting > fits || (is_fitting == fits && found->options.size() <= besides->size())))
      continue;
    found = Manner{&habit, *besides};
    is_fitting = fits;
  }
  if (!found) {
    script->cannot_say(read.from, "asks for its options in an order of its own", read.frames);
    return {std::begin(kHabits), ""};
  }
  if (!is_fitting) found->options += repetitions(read, std::max(seconds, 0.1));
  return *found;
}

}  // namespace scenario
