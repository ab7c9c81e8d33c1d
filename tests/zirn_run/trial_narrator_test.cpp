// What is said of a run as it happens.
#include <gtest/gtest.h>

#include "trial/narrator.h"
#include "zirn_run/explained_run.h"

namespace {

using namespace tftp;
using Texts = std::vector<std::string>;

class TrialNarrator : public testing::Test {
 protected:
  // What is new, in the order in which it is said.
  Texts looks() {
    narrator.look();
    return std::exchange(said, {});
  }
  Texts hears(const std::string& line) {
    narrator.hear(line, 0);
    return std::exchange(said, {});
  }

  ExplainedRun played;
  Texts said;
  trial::Narrator narrator{played.run.reading(),
                           [this](record::Nanoseconds, const std::string& text) { said.push_back(text); }};
};

TEST_F(TrialNarrator, TellsAReadWhenItBeginsAndWhenItEnds) {
  played.asks_for("kernel.img");
  EXPECT_EQ(looks(), Texts{"unit 172.40.0.2 reads kernel.img"});
  played.station_sends(played.answering, data(1, std::string(512, 'x')));
  EXPECT_EQ(looks(), Texts{});
  played.unit_sends({made::kStation, played.answering}, ack(1));
  played.run.rests(1500);
  played.station_sends(played.answering, data(2, "x"));
  played.unit_sends({made::kStation, played.answering}, ack(2));
  EXPECT_EQ(looks(), Texts{"unit 172.40.0.2 has kernel.img: 513 bytes in 1.5 s"});
  EXPECT_EQ(looks(), Texts{});
}

TEST_F(TrialNarrator, TellsHowFarAReadIs) {
  EXPECT_EQ(narrator.progress(), "");
  played.asks_for("kernel.img");
  played.station_sends(played.answering, oack({{"tsize", "5200000"}, {"blksize", "30000"}}));
  for (int block = 1; block <= 50; ++block) {
    played.unit_sends({made::kStation, played.answering}, ack(block - 1));
    played.station_sends(played.answering, data(block, std::string(30000, 'x')));
  }
  narrator.look();
  EXPECT_EQ(narrator.progress(), "unit 172.40.0.2 reads kernel.img: 1.5 of 5.2 MB");
}

TEST_F(TrialNarrator, TellsWhyAReadFailed) {
  played.is_refused("none", 1, "File not found");
  EXPECT_EQ(looks(),
            (Texts{"unit 172.40.0.2 reads none",
                   "the read of none by unit 172.40.0.2 ends: the station says \"File not found\""}));
}

TEST_F(TrialNarrator, TellsCommandsAndTheirAnswers) {
  played.begins();
  played.asks("DO_PMC_INIT:7", "READY");
  EXPECT_EQ(looks(), (Texts{"unit 172.40.0.2 asks \"DO_PMC_INIT:7\"", "unit 172.40.0.2 is told \"READY\""}));
  played.asks_in_vain();
  EXPECT_EQ(looks(), Texts{"a command of unit 172.40.0.2 is refused"});
}

TEST_F(TrialNarrator, TellsThatThePptServerRefusesAVerdict) {
  played.ppt = ExplainedRun::Ppt::kAnswersError;
  played.gives("F_l_m_01MEMORY_PASSED");
  EXPECT_EQ(looks(), Texts{"the PPT server refuses the verdict MEMORY: \"no\""});
}

TEST_F(TrialNarrator, SaysNothingOfVerdictsThatArePassedOnWell) {
  played.gives("F_l_m_01MEMORY_PASSED");
  EXPECT_EQ(looks(), Texts{});
}

TEST_F(TrialNarrator, SaysWhatTheLinesMean) {
  EXPECT_EQ(hears("Cmd received: F_l_m_01MEMORY_PASSED"), Texts{"step MEMORY passed"});
  EXPECT_EQ(hears("Cmd received: F_l_m_01TEST_FAILED"), Texts{"step TEST FAILED"});
  EXPECT_EQ(hears("Cmd received: F_l_m_t_Bootstrap_loading"), Texts{"step Bootstrap_loading"});
  EXPECT_EQ(hears("Cmd received: F_l_m_1"), Texts{"step F_l_m_1"});
  EXPECT_EQ(hears("Cmd received: F_l_m_02PPT_PASSED"), Texts{"the unit PASSED"});
  EXPECT_EQ(hears("Cmd received: F_l_m_02PPT_FAILED"), Texts{"the unit FAILED"});
  EXPECT_EQ(hears("Starting TFTP server on 172.40.0.1:69 PPT Server: 172.30.0.254"),
            Texts{"the station has begun"});
  EXPECT_EQ(hears("Sender proc stopped!!!"), Texts{});
}

TEST_F(TrialNarrator, RepeatsWhatIsWrongOrNotTheStationsOwn) {
  EXPECT_EQ(hears("Socket Bind exception: Address already in use"),
            Texts{"the station says: Socket Bind exception: Address already in use"});
  EXPECT_EQ(hears("sh: 1: envtool: not found"), Texts{"the station says: sh: 1: envtool: not found"});
}

TEST_F(TrialNarrator, TakesReadsFromTheLinesWhereThereAreNoFrames) {
  EXPECT_EQ(hears("RRQ kernel.img"), Texts{"a unit reads kernel.img"});
  EXPECT_EQ(hears("RRQ F_l_m_01MEMORY_PASSED"), Texts{});
  played.run.broadcasts_boot_script();
  EXPECT_EQ(hears("RRQ kernel.img"), Texts{});
}

TEST_F(TrialNarrator, SaysNothingThatMovesACursor) {
  played.asks_for("\x1b[2J");
  EXPECT_EQ(looks(), Texts{"unit 172.40.0.2 reads \\x1b[2J"});
  EXPECT_EQ(hears("Cmd received: F_l_m_01\x1b[2J_PASSED"), Texts{"step \\x1b[2J passed"});
  EXPECT_EQ(hears("\x1b[2J"), Texts{"the station says: \\x1b[2J"});
}

TEST_F(TrialNarrator, SaysNoMoreThanItMayAndYetEachVerdict) {
  std::size_t count = 0;
  for (std::size_t i = 0; i < 2 * trial::Narrator::kMostSaid; ++i) count += hears("odd").size();
  EXPECT_EQ(count, trial::Narrator::kMostSaid);
  EXPECT_EQ(hears("Cmd received: F_l_m_02PPT_PASSED"), Texts{"the unit PASSED"});
}

}  // namespace
