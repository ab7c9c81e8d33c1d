// What a told run is as a scenario.
#include <gtest/gtest.h>

#include <csignal>

#include "scenario/scenario.h"
#include "zirn_run/explained_run.h"

namespace {

using made::kStation;
using made::kUnit;
using made::kUnitB;

class ScenarioSteps : public testing::Test {
 protected:
  // The steps between "unit hears the boot script" and the end, each on a line.
  std::string told() {
    written = scenario::scenario_of(run.run.ends());
    const std::string heard = "unit hears the boot script\n";
    const std::size_t begin = written.text.find(heard);
    const std::size_t end = written.text.find("station exits");
    if (begin == std::string::npos || end == std::string::npos) return "no run: " + written.text;
    return written.text.substr(begin + heard.size(), end - begin - heard.size());
  }
  // Those before the station starts.
  std::string set() const {
    const std::size_t title = written.text.find('\n') + 1;
    return written.text.substr(title, written.text.find("station starts") - title);
  }
  std::string last_lines() const { return written.text.substr(written.text.find("station exits")); }

  ExplainedRun run;
  scenario::Scenario written;
};

TEST_F(ScenarioSteps, SayAWholeRun) {
  run.says(record::RunBegins{"lan0-17", "A unit with \x1b[31m colour", "TFTP -o 172.40.0.1 -n 70"});
  run.begins();
  run.reads("kernel.img");
  run.gives("F_l_m_01MEMORY_PASSED");
  run.asks("WHO ARE YOU", "WHO ARE YOU");
  run.gives("F_l_m_02PPT_PASSED");
  run.ends(2);
  EXPECT_EQ(told(),
            "unit reads kernel.img\n"
            "unit reads F_l_m_01MEMORY_PASSED\n"
            "ppt hears F_l_m_01CPU_2_MEMORY_PASSED\n"
            "unit asks \"WHO ARE YOU\" expects \"WHO ARE YOU\"\n"
            "unit reads F_l_m_02PPT_PASSED\n");
  EXPECT_EQ(written.text.substr(0, written.text.find('\n')), "# A unit with \\x1b[31m colour");
  EXPECT_EQ(set(), "file kernel.img is 612 bytes\n");
  EXPECT_NE(written.text.find("\nstation starts with \"-n 70\"\n"), std::string::npos) << written.text;
  EXPECT_EQ(last_lines(), "station exits 2\nfault is none by passed\n");
  EXPECT_EQ(written.left_out, 0U);
}

TEST_F(ScenarioSteps, PauseOnlyWhereNothingIsTheCause) {
  run.begins();
  run.reads("kernel.img");
  run.run.rests(200);
  run.reads("rootfs.img");
  run.run.rests(7000);
  run.reads("last.img");
  run.ends(15);
  EXPECT_EQ(told(),
            "unit reads kernel.img\nunit reads rootfs.img\nbench waits 7 s\nunit reads last.img\n"
            "station gets SIGTERM\n");
}

TEST_F(ScenarioSteps, SayWhyAFileDoesNotArrive) {
  run.begins();
  run.is_refused("missing.img", 1, "File not found");
  run.is_refused("kernel.img", 4, "Only binary", "netascii");
  run.asks_for("kernel.img");
  run.station_sends(run.answering, tftp::data(1, std::string(512, 'x')));
  run.unit_sends({kStation, run.answering}, tftp::ack(1));
  run.station_sends(run.answering, tftp::data(2, std::string(512, 'x')));
  run.unit_sends({kStation, run.answering}, tftp::error(3, "Disk full"));
  run.is_killed(SIGKILL);
  EXPECT_EQ(told(),
            "unit cannot read missing.img\n"
            "unit is refused kernel.img in mode netascii\n"
            "unit gives up kernel.img blksize 512 after 1 blocks\n"
            "station gets SIGKILL\n");
  EXPECT_EQ(last_lines().substr(0, 17), "station exits 137");
}

TEST_F(ScenarioSteps, SayWhatThePptServerDid) {
  run.begins();
  run.gives("F_l_m_01MEMORY_PASSED");
  run.ppt = ExplainedRun::Ppt::kAnswersError;
  run.gives("F_l_m_02MEMORY_PASSED");
  run.ppt = ExplainedRun::Ppt::kSilent;
  run.gives("F_l_m_03MEMORY_PASSED");
  run.gives("F_l_m_04PPT_FAILED");
  run.ends(2);
  EXPECT_EQ(told(),
            "unit reads F_l_m_01MEMORY_PASSED\n"
            "ppt hears F_l_m_01CPU_2_MEMORY_PASSED\n"
            "ppt answers ERROR 1 no\n"
            "unit reads F_l_m_02MEMORY_PASSED\n"
            "ppt hears F_l_m_02CPU_2_MEMORY_PASSED\n"
            "station says \"Error! Error code: 1\"\n"
            "station says \"Error message: File not found\"\n"
            "ppt is silent\n"
            "unit reads F_l_m_03MEMORY_PASSED\n"
            "ppt hears F_l_m_03CPU_2_MEMORY_PASSED\n"
            "bench waits 5 s\n"
            "unit reads F_l_m_04PPT_FAILED\n");
}

TEST_F(ScenarioSteps, SetTheBoardUpAsTheAnswersShow) {
  run.begins();
  run.gives("F_l_m_01MEMORY_PASSED");
  run.asks("ZIRN_ASKS_FOR_HIS_MAC", "02:00:00:00:01:01");
  run.asks("DO_PMC_INIT:7", "FAIL");
  run.gives("F_l_m_02PPT_FAILED");
  run.ends(2);
  told();
  EXPECT_EQ(set(), "board tool exits 0\nboard has tempmac 02:00:00:00:00:ff\n");
  EXPECT_EQ(last_lines(), "station exits 2\nfault is board by board.tool-failed\n");
}

TEST_F(ScenarioSteps, KnowTheBoardsAddressAlsoWhereItsSuccessorWraps) {
  run.begins();
  run.gives("F_l_m_01MEMORY_PASSED");
  run.asks("ZIRN_ASKS_FOR_HIS_MAC", "00:00:00:00:00:01");
  run.ends(15);
  told();
  EXPECT_EQ(set(), "board has tempmac ff:ff:ff:ff:ff:ff\n");
}

TEST_F(ScenarioSteps, SplitAReadInWhoseMidstTheCableWasOut) {
  run.begins();
  run.asks_for("kernel.img");
  Exchange read(&run.run, run.unit, kStation, run.answering);
  read.blocks(1, 40, 512);
  run.says(record::Cut{3000000000});
  run.run.rests(5000);
  read.blocks(41, 80, 512);
  read.blocks(81, 81, 100);
  run.gives("F_l_m_01PPT_PASSED");
  run.ends(2);
  EXPECT_EQ(told(),
            "unit begins reading kernel.img\n"
            "unit has read 16 KiB\n"
            "wire is cut for 3 s\n"
            "unit ends reading\n"
            "unit reads F_l_m_01PPT_PASSED\n");
}

TEST_F(ScenarioSteps, NameTheFramesOfWhatTheyCannotSay) {
  run.begins();
  run.reads("kernel.img");
  run.run.udp({kUnitB, 3000}, {kStation, 69}, std::string("\0\1other.img\0octet\0", 18));
  const std::uint64_t other = run.run.number;
  run.asks(std::string("tool\x1b[2J", 8), "no");
  run.gives("F_l_m_01PPT_PASSED");
  run.ends(2);
  const std::string steps = told();
  EXPECT_NE(steps.find("# frame " + std::to_string(other) + ": another unit reads or writes other.img\n"),
            std::string::npos)
      << steps;
  EXPECT_NE(steps.find("# frames " + std::to_string(other + 1) + " to "), std::string::npos) << steps;
  EXPECT_EQ(steps.find('\x1b'), std::string::npos);
  EXPECT_EQ(written.left_out, 2U);
}

TEST_F(ScenarioSteps, SayNoOptionThatTheLanguageDoesNotTake) {
  run.begins();
  Exchange read(&run.run, {kUnit, 3000}, kStation);
  read.asks(std::string("\0\1a.img\0octet\0blksize\099999\0timeout\0001\0windowsize\0004\0", 51));
  read.answers(tftp::data(1, "a"));
  read.sends(tftp::ack(1));
  run.ends(15);
  const std::string steps = told();
  EXPECT_NE(steps.find(": asks for blksize 99999\n"), std::string::npos) << steps;
  EXPECT_NE(steps.find(": asks for the option windowsize 4\n"), std::string::npos) << steps;
  EXPECT_NE(steps.find("\nunit reads a.img timeout 1\n"), std::string::npos) << steps;
}

TEST_F(ScenarioSteps, EndARunWhoseRecordHasNoEnd) {
  run.begins();
  run.reads("kernel.img");
  EXPECT_EQ(told(),
            "unit reads kernel.img\n# the record does not say how the station ended\nstation gets SIGTERM\n");
  EXPECT_EQ(written.left_out, 1U);
}

}  // namespace
