#include <gtest/gtest.h>

#include <string>

#include "story/story.h"
#include "zirn_run/made_run.h"

namespace {

using story::PassedOn;
using story::Reading;
using story::Transfer;
using story::Verdict;
using tftp::ack;
using tftp::data;
using tftp::error;
using tftp::rrq;

class Verdicts : public testing::Test {
 protected:
  // The unit gives a verdict and is answered at once.
  void gives(const std::string& name) {
    unit.asks(rrq(name));
    unit.answers(data(1, ""));
    unit.sends(ack(1));
  }
  PassedOn outcome(std::size_t place = 0) {
    return passed_on(run.reading(), run.reading().verdicts.at(place));
  }

  MadeRun run;
  Exchange unit{&run, {made::kUnit, 2000}, made::kStation};
  Exchange station{&run, {made::kStationAtPpt, 40000}, made::kPptServer, 50000};
};

TEST_F(Verdicts, ArePassedOnAndAnswered) {
  gives("F_l_m_01MEMORY_PASSED");
  EXPECT_EQ(outcome(), PassedOn::kNotSeen);
  station.asks(rrq("F_l_m_01CPU_2_MEMORY_PASSED"));
  EXPECT_EQ(outcome(), PassedOn::kWaiting);
  station.answers(data(1, ""));
  station.sends(ack(1));
  const Reading& reading = run.ends();
  ASSERT_EQ(reading.verdicts.size(), 1U);
  const Verdict& verdict = reading.verdicts[0];
  EXPECT_EQ(verdict.name, "F_l_m_01MEMORY_PASSED");
  EXPECT_EQ(verdict.says, Verdict::Says::kStep);
  EXPECT_EQ(reading.parties[verdict.unit].role, story::Role::kUnit);
  EXPECT_EQ(verdict.transfer, 0U);
  EXPECT_EQ(verdict.queries, std::vector<std::size_t>{1});
  EXPECT_EQ(reading.transfers[1].verdict, 0U);
  EXPECT_EQ(reading.transfers[1].client, story::kStation);
  EXPECT_EQ(reading.transfers[1].end, Transfer::End::kFinished);
  EXPECT_EQ(outcome(), PassedOn::kAnswered);
}

TEST_F(Verdicts, WaitForTheirAnswerWhenTheStationEnds) {
  gives("F_l_m_01MEMORY_PASSED");
  station.asks(rrq("F_l_m_01CPU_2_MEMORY_PASSED"));
  run.says(record::StationEnds{15, 0});
  run.ends();
  EXPECT_EQ(outcome(), PassedOn::kWaiting);
}

TEST_F(Verdicts, SayWhatTheirNamesSay) {
  for (const char* name :
       {"F_l_m_01PPT_PASSED", "F_l_m_01PPT_FAILED", "F_l_m_01TEST_FAILED", "F_l_m_t_Bootstrap"}) {
    gives(name);
  }
  const auto& verdicts = run.reading().verdicts;
  ASSERT_EQ(verdicts.size(), 4U);
  EXPECT_EQ(verdicts[0].says, Verdict::Says::kPassed);
  EXPECT_EQ(verdicts[1].says, Verdict::Says::kFailed);
  EXPECT_EQ(verdicts[2].says, Verdict::Says::kStepFailed);
  EXPECT_EQ(verdicts[3].says, Verdict::Says::kStep);
  EXPECT_EQ(outcome(0), PassedOn::kNotDue);
  EXPECT_EQ(outcome(1), PassedOn::kNotDue);
  EXPECT_EQ(outcome(2), PassedOn::kNotSeen);
  EXPECT_EQ(story::query_for("F_l_m_"), "");
}

TEST_F(Verdicts, MeetSilence) {
  gives("F_l_m_01MEMORY_PASSED");
  station.asks(rrq("F_l_m_01CPU_2_MEMORY_PASSED"));
  run.rests(5000);
  run.udp({made::kStationAtPpt, 40000}, {made::kPptServer, 69}, ack(1));  // as it always does
  EXPECT_EQ(outcome(), PassedOn::kSilent);
  const Transfer& query = run.reading().transfers.at(1);
  EXPECT_EQ(query.end, Transfer::End::kUnanswered);
  EXPECT_FALSE(query.is_answered_late);
  EXPECT_EQ(run.reading().transfers.size(), 2U);
}

TEST_F(Verdicts, AreAnsweredTooLate) {
  gives("F_l_m_01MEMORY_PASSED");
  station.asks(rrq("F_l_m_01CPU_2_MEMORY_PASSED"));
  run.rests(5000);
  run.udp({made::kStationAtPpt, 40000}, {made::kPptServer, 69}, ack(1));
  run.rests(1000);
  station.answers(data(1, ""));
  run.closed({made::kPptServer, 50000}, {made::kStationAtPpt, 40000});
  const Transfer& query = run.reading().transfers.at(1);
  EXPECT_TRUE(query.is_answered_late);
  EXPECT_EQ(query.end, Transfer::End::kUnanswered);
  EXPECT_EQ(query.closed_ports, 1U);
  EXPECT_EQ(outcome(), PassedOn::kAnswered);
}

TEST_F(Verdicts, AreRefused) {
  gives("F_l_m_01MEMORY_PASSED");
  station.asks(rrq("F_l_m_01CPU_2_MEMORY_PASSED"));
  station.answers(error(1, "no such test"));
  station.sends(ack(1));
  EXPECT_EQ(outcome(), PassedOn::kRefused);
  EXPECT_EQ(run.reading().transfers.at(1).error.text, "no such test");
}

TEST_F(Verdicts, MeetAClosedPort) {
  gives("F_l_m_01MEMORY_PASSED");
  station.asks(rrq("F_l_m_01CPU_2_MEMORY_PASSED"));
  run.closed({made::kStationAtPpt, 40000}, {made::kPptServer, 69});
  run.rests(5000);
  run.udp({made::kStationAtPpt, 40000}, {made::kPptServer, 69}, ack(1));
  run.closed({made::kStationAtPpt, 40000}, {made::kPptServer, 69});
  EXPECT_EQ(outcome(), PassedOn::kClosedPort);
  EXPECT_EQ(run.reading().transfers.at(1).closed_ports, 2U);
}

// Each request of a hasty unit is a verdict of its own for the station.
TEST_F(Verdicts, AreAskedAgainForEveryRequestThatArrived) {
  unit.asks(rrq("F_l_m_01MEMORY_PASSED"));
  unit.asks(rrq("F_l_m_01MEMORY_PASSED"));
  for (std::uint16_t i = 0; i < 2; ++i) {
    Exchange query(&run, {made::kStationAtPpt, static_cast<std::uint16_t>(40000 + i)}, made::kPptServer,
                   50000);
    query.asks(rrq("F_l_m_01CPU_2_MEMORY_PASSED"));
    run.rests(5000);
  }
  ASSERT_EQ(run.reading().verdicts.size(), 1U);
  EXPECT_EQ(run.reading().verdicts[0].query_count, 2U);
  EXPECT_EQ(run.reading().transfers.at(0).requests, 2U);
}

TEST_F(Verdicts, AreKnownByTheirQueryAlone) {
  station.asks(rrq("F_l_m_01CPU_2_MEMORY_PASSED"));
  ASSERT_EQ(run.reading().verdicts.size(), 1U);
  EXPECT_EQ(run.reading().verdicts[0].name, "F_l_m_01MEMORY_PASSED");
  EXPECT_EQ(run.reading().verdicts[0].unit, story::kNone);
}

TEST_F(Verdicts, OfWhichTheAnswerIsNotRecordedAreNotCalledSilent) {
  station.asks(rrq("F_l_m_01CPU_2_MEMORY_PASSED"));
  run.udp({made::kStationAtPpt, 40000}, {made::kPptServer, 69}, ack(1));  // at once: something had come
  run.rests(60000).line("later");
  run.ends();
  EXPECT_EQ(outcome(), PassedOn::kNotSeen);
}

}  // namespace
