#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "report/plot.h"

namespace {

// A period for each, with so many units, of which all passed.
std::string plot_of(const std::vector<std::uint64_t>& units) {
  std::vector<report::Period> periods;
  for (const std::uint64_t count : units) {
    report::Period period;
    period.from = static_cast<std::int64_t>(periods.size()) * 3600;
    period.tally.runs = period.tally.units = period.tally.units_passed = count;
    periods.push_back(period);
  }
  return report::yield_plot(periods, 3600);
}

std::size_t count(const std::string& text, const std::string& part) {
  std::size_t times = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++times;
  return times;
}

}  // namespace

TEST(ReportPlot, JoinsWhatFollowsEachOther) {
  const std::string plot = plot_of({5, 5, 5});
  EXPECT_EQ(count(plot, "<circle"), 3U);
  EXPECT_EQ(count(plot, "<line class=\"yield\""), 2U);
}

TEST(ReportPlot, JoinsNothingAcrossATimeWithoutUnits) {
  const std::string plot = plot_of({5, 5, 0, 0, 5, 0, 5});
  EXPECT_EQ(count(plot, "<circle"), 4U);
  EXPECT_EQ(count(plot, "<line class=\"yield\""), 1U);
}
