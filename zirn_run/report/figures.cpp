#include "report/figures.h"

#include <algorithm>
#include <cmath>
#include <ctime>
#include <functional>
#include <limits>

namespace report {

namespace {

constexpr std::int64_t kMinute = 60;
constexpr std::int64_t kDay = 86400;
constexpr std::int64_t kWeek = 7 * kDay;
constexpr std::int64_t kFirstMonday = 4 * kDay;  // of 1970
constexpr std::int64_t kPeriods[] = {1,    10,    kMinute,   10 * kMinute, 60 * kMinute, 360 * kMinute,
                                     kDay, kWeek, 4 * kWeek, 13 * kWeek,   52 * kWeek};

// Where the period begins that a moment is in.
std::int64_t begin_of(std::int64_t at, std::int64_t period) {
  const std::int64_t rest = (at - (period >= kWeek ? kFirstMonday : 0)) % period;
  return at - (rest < 0 ? rest + period : rest);
}

// The least one that such a share of all is not above.
float quantile(double share, std::vector<float>* all) {
  if (all->empty()) return 0;
  const auto rank = static_cast<std::ptrdiff_t>(std::ceil(share * static_cast<double>(all->size())));
  const auto at = all->begin() + std::max<std::ptrdiff_t>(rank, 1) - 1;
  std::nth_element(all->begin(), at, all->end());
  return *at;
}

std::uint32_t as_count(long long number) {
  return static_cast<std::uint32_t>(
      std::clamp<long long>(number, 0, std::numeric_limits<std::uint32_t>::max()));
}

}  // namespace

class Figures::Sum {
 public:
  void add(const Kept& run) {
    ++tally_.runs;
    tally_.passed += run.is_passed ? 1 : 0;
    tally_.failed += run.is_failed ? 1 : 0;
    tally_.units += run.is_first_of_unit ? 1 : 0;
    tally_.units_passed += run.is_first_of_unit && run.is_passed ? 1 : 0;
    tally_.frames_lost += run.frames_lost;
    tally_.blocks_repeated += run.blocks_repeated;
    durations_.push_back(run.duration);
  }
  Tally tally() {
    tally_.median = quantile(0.5, &durations_);
    tally_.most = quantile(0.95, &durations_);
    return tally_;
  }

 private:
  Tally tally_;
  std::vector<float> durations_;
};

std::optional<std::int64_t> seconds_in(const std::string& utc) {
  std::tm time = {};
  if (strptime(utc.c_str(), "%Y-%m-%dT%H:%M:%S", &time) == nullptr) return std::nullopt;
  return timegm(&time);
}

void Figures::take(const database::Run& run) {
  Kept kept;
  if (run.started) kept.at = seconds_in(*run.started);
  if (kept.at) {
    last_ = first_ ? std::max(last_, *kept.at) : *kept.at;
    first_ = std::min(first_.value_or(*kept.at), *kept.at);
  } else {
    ++without_time_;
  }
  kept.duration = static_cast<float>(run.duration);
  kept.station = stations_.emplace(run.station, static_cast<std::uint32_t>(stations_.size())).first->second;
  kept.frames_lost = as_count(run.frames_lost);
  kept.blocks_repeated = as_count(run.blocks_repeated);
  kept.is_passed = run.verdict == "passed";
  kept.is_failed = run.verdict == "failed";
  if (run.unit_mac) {
    kept.is_first_of_unit = is_first(std::hash<std::string>()(*run.unit_mac), kept.at.has_value());
  } else {
    ++without_identity_;
  }
  if (run.fault_owner != "none") ++causes_[{run.fault_owner, run.fault_cause}];
  if (run.failed_step) ++steps_[*run.failed_step];
  runs_.push_back(kept);
}

// Those that do not say when come before all others, and give their place up.
bool Figures::is_first(std::size_t unit, bool has_time) {
  if (units_.insert(unit).second) {
    if (!has_time) undated_[unit] = runs_.size();
    return true;
  }
  const auto undated = has_time ? undated_.find(unit) : undated_.end();
  if (undated == undated_.end()) return false;
  runs_[undated->second].is_first_of_unit = false;
  undated_.erase(undated);
  return true;
}

Tally Figures::all() const {
  Sum sum;
  for (const Kept& run : runs_) sum.add(run);
  return sum.tally();
}

std::vector<std::pair<std::string, Tally>> Figures::stations() const {
  std::vector<Sum> sums(stations_.size());
  for (const Kept& run : runs_) sums[run.station].add(run);
  std::vector<std::pair<std::string, Tally>> result;
  for (const auto& [name, place] : stations_) result.emplace_back(name, sums[place].tally());
  return result;
}

std::int64_t Figures::seconds_of_a_period() const {
  for (const std::int64_t period : kPeriods) {
    if (begin_of(last_, period) - begin_of(first_.value_or(last_), period) < kMostPeriods * period)
      return period;
  }
  return (last_ - first_.value_or(last_)) / kMostPeriods + 1;  // a clock was wrong by decades
}

std::vector<Period> Figures::periods() const {
  if (!first_) return {};
  const std::int64_t length = seconds_of_a_period();
  const std::int64_t begin = begin_of(*first_, length);
  std::vector<Sum> sums(static_cast<std::size_t>((last_ - begin) / length) + 1);
  for (const Kept& run : runs_) {
    if (run.at) sums[static_cast<std::size_t>((*run.at - begin) / length)].add(run);
  }
  std::vector<Period> result;
  result.reserve(sums.size());
  for (Sum& sum : sums)
    result.push_back({begin + static_cast<std::int64_t>(result.size()) * length, sum.tally()});
  return result;
}

std::vector<CauseCount> Figures::causes() const {
  std::vector<CauseCount> result;
  for (const auto& [cause, runs] : causes_) result.push_back({cause.first, cause.second, runs});
  std::stable_sort(result.begin(), result.end(),
                   [](const auto& one, const auto& other) { return one.runs > other.runs; });
  return result;
}

std::vector<std::pair<std::string, std::uint64_t>> Figures::steps() const {
  std::vector<std::pair<std::string, std::uint64_t>> result(steps_.begin(), steps_.end());
  std::stable_sort(result.begin(), result.end(),
                   [](const auto& one, const auto& other) { return one.second > other.second; });
  return result;
}

}  // namespace report
