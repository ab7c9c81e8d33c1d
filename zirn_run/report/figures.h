#ifndef REPORT_FIGURES_H
#define REPORT_FIGURES_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "database/rows.h"

namespace report {

// Of all runs, of a station's, or of those that began within a time.
struct Tally {
  std::uint64_t runs = 0;
  std::uint64_t passed = 0;
  std::uint64_t failed = 0;
  std::uint64_t units = 0;         // whose first run is among these
  std::uint64_t units_passed = 0;  // in that first run
  std::uint64_t frames_lost = 0;
  std::uint64_t blocks_repeated = 0;
  float median = 0;  // seconds of a run
  float most = 0;    // seconds that 95 of 100 runs stay within
};

struct Period {
  std::int64_t from = 0;  // seconds since 1970
  Tally tally;
};

struct CauseCount {
  std::string owner;
  std::string cause;
  std::uint64_t runs = 0;
};

// The sums over all runs, which are told one by one in the order of their beginnings. About forty bytes are kept of each
// run, and as many of each unit.
//
// A unit is known by its MAC. A run that does not show one is in no first-pass figure. One that does not say when it
// began is its unit's first where no other is.
class Figures {
 public:
  static constexpr std::int64_t kMostPeriods = 48;

  void take(const database::Run& run);

  Tally all() const;
  std::vector<std::pair<std::string, Tally>> stations() const;  // by name
  // Of equal length, from the first run that says when to the last; also those in which nothing was.
  std::vector<Period> periods() const;
  std::int64_t seconds_of_a_period() const;
  std::vector<CauseCount> causes() const;                            // most runs first, nobody's left out
  std::vector<std::pair<std::string, std::uint64_t>> steps() const;  // most runs first
  std::uint64_t without_identity() const { return without_identity_; }
  std::uint64_t without_time() const { return without_time_; }

 private:
  struct Kept {
    std::optional<std::int64_t> at;  // seconds since 1970
    float duration = 0;
    std::uint32_t station = 0;
    std::uint32_t frames_lost = 0;
    std::uint32_t blocks_repeated = 0;
    bool is_passed = false;
    bool is_failed = false;
    bool is_first_of_unit = false;
  };
  class Sum;

  bool is_first(std::size_t unit, bool has_time);

  std::vector<Kept> runs_;
  std::unordered_set<std::size_t> units_;  // hashes
  // Of the units whose first run so far does not say when: its place.
  std::unordered_map<std::size_t, std::size_t> undated_;
  std::map<std::string, std::uint32_t> stations_;
  std::map<std::pair<std::string, std::string>, std::uint64_t> causes_;  // by owner and cause
  std::map<std::string, std::uint64_t> steps_;
  std::uint64_t without_identity_ = 0;
  std::uint64_t without_time_ = 0;
  std::optional<std::int64_t> first_;
  std::int64_t last_ = 0;
};

// The second of "2026-11-22T03:12:40.123Z"; nothing for a text that is no such time.
std::optional<std::int64_t> seconds_in(const std::string& utc);

}  // namespace report

#endif
