#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "report/figures.h"

namespace {

struct Made {
  const char* started = "2026-11-22T03:12:40.123Z";
  const char* mac = "02:00:00:00:00:01";
  const char* verdict = "passed";
  double duration = 1;
  const char* station = "one";
};

database::Run run(const Made& made) {
  database::Run run;
  if (*made.started != '\0') run.started = made.started;
  if (*made.mac != '\0') run.unit_mac = made.mac;
  run.verdict = made.verdict;
  run.duration = made.duration;
  run.station = made.station;
  run.fault_owner = run.verdict == "passed" ? "none" : "unit";
  run.fault_cause = run.verdict == "passed" ? "none" : "unit.failed";
  return run;
}

constexpr char kOther[] = "02:00:00:00:00:02";

}  // namespace

TEST(ReportFigures, CountOfAUnitItsFirstRunOnly) {
  report::Figures figures;
  figures.take(run({"2026-11-22T03:12:40.123Z", "02:00:00:00:00:01", "failed"}));
  figures.take(run({"2026-11-22T03:13:40.123Z"}));
  figures.take(run({"2026-11-22T03:14:40.123Z", kOther}));
  const report::Tally all = figures.all();
  EXPECT_EQ(all.runs, 3U);
  EXPECT_EQ(all.passed, 2U);
  EXPECT_EQ(all.units, 2U);
  EXPECT_EQ(all.units_passed, 1U);
}

TEST(ReportFigures, LeaveRunsWithoutIdentityOutOfTheFirstPass) {
  report::Figures figures;
  figures.take(run({"2026-11-22T03:12:40.123Z", ""}));
  figures.take(run({"2026-11-22T03:13:40.123Z", ""}));
  EXPECT_EQ(figures.all().runs, 2U);
  EXPECT_EQ(figures.all().units, 0U);
  EXPECT_EQ(figures.without_identity(), 2U);
}

TEST(ReportFigures, GiveTheDurationThatHalfAndThatNearlyAllStayWithin) {
  report::Figures figures;
  for (int i = 100; i > 0; --i) figures.take(run({"2026-11-22T03:12:40.123Z", "", "passed", double(i)}));
  EXPECT_EQ(figures.all().median, 50);
  EXPECT_EQ(figures.all().most, 95);
}

TEST(ReportFigures, ChooseThePeriodByTheTimeThatTheRunsSpan) {
  const struct {
    const char* last;
    std::int64_t seconds;
    std::size_t count;
  } kCases[] = {{"2026-11-22T00:00:00.000Z", 1, 1},      {"2026-11-22T00:00:47.000Z", 1, 48},
                {"2026-11-22T00:00:48.000Z", 10, 5},     {"2026-11-23T00:00:00.000Z", 3600, 25},
                {"2026-12-24T00:00:00.000Z", 86400, 33}, {"2027-11-22T00:00:00.000Z", 4 * 7 * 86400, 15}};
  for (const auto& [last, seconds, count] : kCases) {
    report::Figures figures;
    figures.take(run({"2026-11-22T00:00:00.000Z"}));
    figures.take(run({last, kOther}));
    EXPECT_EQ(figures.seconds_of_a_period(), seconds) << last;
    ASSERT_EQ(figures.periods().size(), count) << last;
    EXPECT_EQ(figures.periods().back().tally.runs, count == 1 ? 2U : 1U) << last;
  }
}

TEST(ReportFigures, StayFewWhereAClockWasWrongByCenturies) {
  report::Figures figures;
  figures.take(run({"1700-01-01T00:00:00.000Z"}));
  figures.take(run({"1969-01-01T00:00:00.000Z", kOther}));
  EXPECT_LE(figures.periods().size(), 50U);
  EXPECT_EQ(figures.periods().front().tally.runs, 1U);
  EXPECT_EQ(figures.periods().back().tally.runs, 1U);
}

TEST(ReportFigures, BeginWeeksOnMondays) {
  report::Figures figures;
  figures.take(run({"2026-11-22T00:00:00.000Z"}));  // a Sunday
  figures.take(run({"2027-02-15T00:00:00.000Z", kOther}));
  EXPECT_EQ(figures.periods().front().from, report::seconds_in("2026-11-16T00:00:00.000Z"));
}

TEST(ReportFigures, HaveNoPlaceInTimeForARunThatDoesNotSayWhen) {
  report::Figures figures;
  figures.take(run({""}));
  figures.take(run({"rubbish", kOther}));
  EXPECT_EQ(figures.all().units, 2U);
  EXPECT_EQ(figures.without_time(), 2U);
  EXPECT_TRUE(figures.periods().empty());
}

TEST(ReportFigures, CountOfAUnitTheFirstRunThatSaysWhenWhereThereIsOne) {
  report::Figures figures;
  figures.take(run({"", "02:00:00:00:00:01", "failed"}));
  figures.take(run({"", kOther, "failed"}));
  figures.take(run({"", "02:00:00:00:00:01"}));
  figures.take(run({"2026-11-22T03:12:40.123Z"}));
  figures.take(run({"2026-11-22T03:12:41.123Z", "02:00:00:00:00:01", "failed"}));
  EXPECT_EQ(figures.all().units, 2U);
  EXPECT_EQ(figures.all().units_passed, 1U);
  EXPECT_EQ(figures.periods().front().tally.units_passed, 1U);
}

TEST(ReportFigures, TellStationsApart) {
  report::Figures figures;
  database::Run bad = run({"2026-11-22T03:12:40.123Z", kOther, "failed", 9, "two"});
  bad.frames_lost = 30;
  bad.blocks_repeated = 40;
  figures.take(run({}));
  figures.take(bad);
  const auto stations = figures.stations();
  ASSERT_EQ(stations.size(), 2U);
  EXPECT_EQ(stations[0].first, "one");
  EXPECT_EQ(stations[0].second.frames_lost, 0U);
  EXPECT_EQ(stations[0].second.units_passed, 1U);
  EXPECT_EQ(stations[1].second.frames_lost, 30U);
  EXPECT_EQ(stations[1].second.blocks_repeated, 40U);
  EXPECT_EQ(stations[1].second.median, 9);
}
