// What a told run is as a scenario.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <vector>

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
  std::string set_after_start() const {
    const std::size_t start = written.text.find("station starts");
    return written.text.substr(start, written.text.find("unit hears the boot script") - start);
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

TEST_F(ScenarioSteps, PauseBeforeWhatTookTheStationLong) {
  run.begins();
  run.gives("F_l_m_01PPT_FAILED");
  run.run.rests(3000);
  run.says(record::BoardCall{"envtool ppt_flag=failed", 0});
  run.run.rests(20000);
  run.says(record::BoardCall{"envtool show tempmac", 0});
  run.ends(2);
  EXPECT_EQ(told(),
            "unit reads F_l_m_01PPT_FAILED\nboard ran \"envtool ppt_flag=failed\"\n"
            "bench waits 12 s\nboard ran \"envtool show tempmac\"\n");
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

// The query for a verdict, its answer and the ACK: what the wire does to each, and how long it takes.
class ScenarioPptWire : public ScenarioSteps {
 protected:
  void gives(const std::string& name, const std::string& query, const std::vector<const char*>& comments,
             int milliseconds = 0) {
    const made::Endpoint server{made::kPptServer, 69}, answering{made::kPptServer, 50000};
    run.asks_for(name);
    run.station_sends(run.answering, tftp::data(1, ""));
    run.unit_sends({kStation, run.answering}, tftp::ack(1));
    const made::Endpoint station{made::kStationAtPpt, ++run.last_port};
    const auto passes = [&](made::Endpoint from, made::Endpoint to, const std::string& bytes,
                            std::size_t place) {
      if (place < comments.size() && *comments[place] != '\0') run.run.next_is(comments[place]);
      run.ppt_frame(from, to, bytes);
    };
    passes(station, server, tftp::rrq(query), 0);
    if (!comments.empty() && std::string(comments[0]).find("lost") == 0) {
      run.run.rests(5000);
      return run.ppt_frame(station, server, tftp::ack(1));
    }
    run.run.rests(milliseconds);
    passes(answering, station, tftp::data(1, ""), 1);
    run.run.rests(comments.size() > 1 && std::string(comments[1]).find("lost") == 0 ? 5000 : milliseconds);
    passes(station, answering, tftp::ack(1), 2);
  }
};

TEST_F(ScenarioPptWire, DoublesAndSwapsFromTheFirstVerdictToTheLastWhoseFramesItDid) {
  run.begins();
  gives("F_l_m_01STEP", "F_l_m_01CPU_2_STEP", {});
  gives("F_l_m_02STEP", "F_l_m_02CPU_2_STEP", {"duplicated", "", "swapped with the next one"});
  gives("F_l_m_03STEP", "F_l_m_03CPU_2_STEP", {"", "duplicated"});
  gives("F_l_m_04STEP", "F_l_m_04CPU_2_STEP", {});
  run.ends(15);
  EXPECT_EQ(told(),
            "unit reads F_l_m_01STEP\nppt hears F_l_m_01CPU_2_STEP\n"
            "ppt wire duplicates 33.3 %\nppt wire swaps 33.3 %\n"
            "unit reads F_l_m_02STEP\nppt hears F_l_m_02CPU_2_STEP\n"
            "ppt wire is whole\nppt wire duplicates 33.3 %\n"
            "unit reads F_l_m_03STEP\nppt hears F_l_m_03CPU_2_STEP\n"
            "ppt wire is whole\n"
            "unit reads F_l_m_04STEP\nppt hears F_l_m_04CPU_2_STEP\nstation gets SIGTERM\n");
  EXPECT_EQ(written.left_out, 0U);
}

// The delay of a slow wire is not the server's, too.
TEST_F(ScenarioPptWire, DelaysAnAnswerAlone) {
  run.begins();
  gives("F_l_m_01STEP", "F_l_m_01CPU_2_STEP", {}, 1100);
  run.ends(15);
  told();
  EXPECT_NE(written.text.find("ppt wire delays 11"), std::string::npos) << written.text;
  EXPECT_EQ(written.text.find("ppt answers after"), std::string::npos) << written.text;
}

TEST_F(ScenarioPptWire, DelaysWhereTheAnswerIsAcknowledgedLater) {
  run.begins();
  gives("F_l_m_01STEP", "F_l_m_01CPU_2_STEP", {}, 120);
  gives("F_l_m_02STEP", "F_l_m_02CPU_2_STEP", {"", "", "duplicated"}, 120);
  run.ends(15);
  EXPECT_EQ(told(),
            "ppt wire delays 121 ms\nunit reads F_l_m_01STEP\nppt hears F_l_m_01CPU_2_STEP\n"
            "ppt wire is whole\nppt wire duplicates 33.3 %\nppt wire delays 121 ms\n"
            "unit reads F_l_m_02STEP\nppt hears F_l_m_02CPU_2_STEP\nstation gets SIGTERM\n");
}

// The station's own time before its ACK, where it is busy, is no wire's.
TEST_F(ScenarioPptWire, DelaysNothingForATenthOfASecond) {
  run.begins();
  gives("F_l_m_01STEP", "F_l_m_01CPU_2_STEP", {}, 90);
  run.ends(15);
  EXPECT_EQ(told(), "unit reads F_l_m_01STEP\nppt hears F_l_m_01CPU_2_STEP\nstation gets SIGTERM\n");
}

TEST_F(ScenarioPptWire, SaysALossExactlyAlsoWhileTheOtherNetworksCableIsOut) {
  run.begins();
  run.says(record::Cut{60000000000});
  gives("F_l_m_01STEP", "F_l_m_01CPU_2_STEP", {"lost: by chance"});
  gives("F_l_m_02STEP", "F_l_m_02CPU_2_STEP", {"", "", "lost: by chance"});
  run.ends(15);
  const std::string steps = told();
  EXPECT_NE(steps.find("ppt wire loses the request of F_l_m_01CPU_2_STEP\n"), std::string::npos) << steps;
  EXPECT_NE(steps.find("ppt wire loses ACK 1 of F_l_m_02CPU_2_STEP\n"), std::string::npos) << steps;
  EXPECT_EQ(written.left_out, 0U) << written.text;
}

TEST_F(ScenarioPptWire, LosesAPercentageWhereMoreThanTwentyAreLost) {
  run.begins();
  const std::uint64_t before = run.run.number;
  for (int i = 10; i < 31; ++i) {
    const std::string number = std::to_string(i);
    gives("F_l_m_" + number + "STEP", "F_l_m_" + number + "CPU_2_STEP", {"lost: by chance"});
  }
  run.ends(15);
  const std::string steps = told();
  EXPECT_EQ(steps.find("ppt wire loses 50 %\nunit reads F_l_m_10STEP tries 9\nbench waits 5 s\n"), 0U)
      << steps;
  EXPECT_EQ(steps.find("ppt hears"), std::string::npos) << steps;
  EXPECT_NE(written.text.find("# frames " + std::to_string(before + 4) + " to " +
                              std::to_string(before + 21 * 5 - 1) +
                              ": many are lost between the station and the PPT server; which ones, is left "
                              "to chance\n"),
            std::string::npos)
      << written.text;
  EXPECT_EQ(written.left_out, 1U);
}

TEST_F(ScenarioPptWire, LosesOfOtherThanQueriesWhatNoStepSays) {
  const made::Endpoint station{made::kStationAtPpt, 4000}, server{made::kPptServer, 12345};
  run.begins();
  run.run.next_is("duplicated");
  run.run.tcp(station, server, made::kSyn, 100);
  const std::uint64_t opening = run.run.number;
  gives("F_l_m_01STEP", "F_l_m_01CPU_2_STEP", {});
  run.run.next_is("lost: by chance");
  run.run.tcp(server, station, made::kSyn | made::kAck, 200);
  run.run.tcp(server, station, made::kSyn | made::kAck, 200);
  run.run.next_is("lost: by chance");
  run.run.tcp(server, station, made::kAck, 201, "hello");
  run.run.udp(run.unit, {kStation, 12345}, "line 1 is up");
  run.run.next_is("lost: by chance");
  run.run.udp({made::kStationAtPpt, 5000}, server, "line 1 is up");
  const std::uint64_t relayed = run.run.number;
  run.ends(15);
  told();
  const auto has = [&](const std::string& comment) {
    return written.text.find(comment + " between the station and the PPT server\n") != std::string::npos;
  };
  const std::string frame = "# frame " + std::to_string(opening);
  EXPECT_TRUE(has(frame + ": doubled or overtaken")) << written.text;
  EXPECT_TRUE(
      has("# frames " + frame.substr(8) + " to " + std::to_string(relayed - 2) + ": lost of a connection"))
      << written.text;
  EXPECT_TRUE(has("# frame " + std::to_string(relayed) + ": lost")) << written.text;
  EXPECT_EQ(written.left_out, 3U) << written.text;
}

// The unit asks again while the station waits for the PPT server's answer: the later one has both queries.
TEST_F(ScenarioPptWire, IsNotForbiddenWhereAnotherTryOfAVerdictIsPassedOn) {
  run.begins();
  run.asks_for("F_l_m_01STEP");
  run.run.rests(5000);
  gives("F_l_m_01STEP", "F_l_m_01CPU_2_STEP", {"", "lost: by chance"});
  run.ends(15);
  told();
  EXPECT_EQ(set(), "");
  EXPECT_EQ(written.text.find("delays"), std::string::npos) << written.text;
}

TEST_F(ScenarioSteps, SayWhenThePptServerWasClosed) {
  run.begins();
  run.ppt = ExplainedRun::Ppt::kClosed;
  run.gives("F_l_m_01MEMORY_PASSED");
  run.ppt = ExplainedRun::Ppt::kAnswersError;
  run.gives("F_l_m_02MEMORY_PASSED");
  run.ends(15);
  EXPECT_EQ(told(),
            "unit reads F_l_m_01MEMORY_PASSED\n"
            "bench waits 5 s\n"
            "ppt answers ERROR 1 no\n"
            "unit reads F_l_m_02MEMORY_PASSED\n"
            "ppt hears F_l_m_02CPU_2_MEMORY_PASSED\n"
            "station says \"Error! Error code: 1\"\n"
            "station says \"Error message: File not found\"\n"
            "station gets SIGTERM\n");
  EXPECT_EQ(set(), "ppt refuses verdicts\n");
}

// Its wait for the PPT server is cut short.
TEST_F(ScenarioSteps, TakeTheStationsOwnAlarmForNoStop) {
  for (const bool is_alarm : {true, false}) {
    ExplainedRun other;
    other.begins();
    other.run.rests(is_alarm ? 5950 : 100);
    other.ppt = ExplainedRun::Ppt::kInterrupted;
    other.gives("F_l_m_01STEP");
    other.ends(15);
    const std::string steps = scenario::scenario_of(other.run.ends()).text;
    EXPECT_EQ(steps.find("SIGSTOP") == std::string::npos, is_alarm) << steps;
  }
}

// The station is ended before its wait is.
TEST_F(ScenarioSteps, LetThePptServerBeSilentWhoseAnswerDidNotComeBeforeTheEnd) {
  run.begins();
  run.gives("F_l_m_01STEP");
  run.run.udp({made::kStationAtPpt, 40000}, {made::kPptServer, 69}, tftp::rrq("F_l_m_02CPU_2_STEP"));
  run.ends(15);
  const std::string steps = told();
  EXPECT_NE(steps.find("ppt is silent\n"), std::string::npos) << steps;
}

TEST_F(ScenarioSteps, NameTheToolThatTheShellDidNotFind) {
  run.begins();
  run.gives("F_l_m_01TEST_FAILED");
  run.line("sh: 1: envtool: not found");
  run.ends(15);
  told();
  EXPECT_EQ(set(), "board lacks envtool\n");
}

// The command port opens with the first verdict.
TEST_F(ScenarioSteps, AskAgainWhatWasRefusedBeforeTheFirstVerdict) {
  run.begins();
  run.asks_in_vain();
  run.gives("F_l_m_01STEP");
  run.asks("hello", "hello");
  run.ends(15);
  EXPECT_EQ(told(),
            "unit reads F_l_m_01STEP\nppt hears F_l_m_01CPU_2_STEP\nunit asks hello expects hello\n"
            "station gets SIGTERM\n");
  EXPECT_EQ(set_after_start(),
            "station starts\nunit is like tftp-hpa\nbench waits 2 s\nunit asks hello in vain\n");
}

TEST_F(ScenarioSteps, SayWhenTheToolChanges) {
  run.begins();
  run.gives("F_l_m_01STEP");
  run.asks("DO_PMC_INIT:1", "FAIL");
  run.asks("DO_PMC_INIT:2", "READY");
  run.asks("hello", "hello");
  run.asks("DO_PMC_INIT:3", "READY");
  run.asks("DO_PMC_INIT:4", "FAIL");
  run.ends(15);
  EXPECT_EQ(told(),
            "unit reads F_l_m_01STEP\nppt hears F_l_m_01CPU_2_STEP\n"
            "unit asks DO_PMC_INIT:1 expects FAIL\nboard tool exits 1\n"
            "unit asks DO_PMC_INIT:2 expects READY\nunit asks hello expects hello\n"
            "unit asks DO_PMC_INIT:3 expects READY\nboard tool exits 0\n"
            "unit asks DO_PMC_INIT:4 expects FAIL\nstation gets SIGTERM\n");
  EXPECT_EQ(set(), "board tool exits 0\n");
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

TEST_F(ScenarioSteps, LetTheToolHangOnlyWhereItHung) {
  run.begins();
  run.gives("F_l_m_01STEP");
  run.asks("DO_PMC_INIT:7", "READY");
  run.asks("DO_PMC_INIT:7", "", 12000);
  run.ends(137);
  EXPECT_EQ(told().substr(0, told().find("in vain")),
            "unit reads F_l_m_01STEP\nppt hears F_l_m_01CPU_2_STEP\n"
            "unit asks DO_PMC_INIT:7 expects READY\nboard tool hangs\nunit asks DO_PMC_INIT:7 ");
  EXPECT_EQ(set(), "");
}

TEST_F(ScenarioSteps, LetTheToolHangOnlyWhileTheUnitLeaves) {
  run.begins();
  run.gives("F_l_m_01STEP");
  run.asks("DO_PMC_INIT:7", "READY");
  const made::Endpoint client{kUnit, 4000}, server{kStation, 12345};
  run.tcp(client, server, made::kSyn, 100);
  run.tcp(server, client, made::kSyn | made::kAck, 200);
  run.tcp(client, server, made::kAck, 101, "DO_PMC_INIT:8");
  run.tcp(client, server, made::kRst, 114);
  run.ends(15);
  EXPECT_EQ(told(),
            "unit reads F_l_m_01STEP\nppt hears F_l_m_01CPU_2_STEP\n"
            "unit asks DO_PMC_INIT:7 expects READY\nboard tool hangs\n"
            "unit asks DO_PMC_INIT:8 and breaks off\nboard tool goes on\nstation gets SIGTERM\n");
  EXPECT_EQ(set(), "");
}

TEST_F(ScenarioSteps, ForbidNothingWhereAVerdictWasLostOnItsWay) {
  run.begins();
  run.gives("F_l_m_01STEP");
  run.run.next_is("lost: by chance");
  run.asks_for("F_l_m_02STEP");
  run.ends(15);
  told();
  EXPECT_EQ(set(), "");
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
  for (const std::uint32_t unit : {kUnitB, kUnitB + 1, kUnitB + 2, kUnitB + 3})
    run.run.udp({unit, 3000}, {kStation, 69}, std::string("\0\1other.img\0octet\0", 18));
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

// The language has four units: nothing comes of what a fifth one is not told to do.
TEST_F(ScenarioSteps, AwaitNothingOfAUnitThatTheyCannotName) {
  const made::Endpoint relay{kStation, 12345}, at_ppt{made::kStationAtPpt, 5000},
      ppt{made::kPptServer, 12345};
  run.begins();
  run.gives("F_l_m_01STEP");
  for (const std::uint32_t more : {0U, 1U, 2U, 3U}) {
    run.unit.address = kUnitB + more;
    run.gives("F_l_m_0" + std::to_string(2 + more) + "STEP");
  }
  run.run.udp(run.unit, relay, "up");
  run.run.udp(at_ppt, ppt, std::string("up\0\0", 4));
  run.ends(15);
  const std::string steps = told();
  EXPECT_NE(steps.find("unit d reads F_l_m_04STEP\nppt hears F_l_m_04CPU_2_STEP\n"), std::string::npos)
      << steps;
  EXPECT_NE(steps.find(": another unit reads or writes F_l_m_05STEP\n"), std::string::npos) << steps;
  EXPECT_EQ(steps.find("ppt hears F_l_m_05CPU_2_STEP"), std::string::npos) << steps;
  EXPECT_EQ(steps.find("ppt receives"), std::string::npos) << steps;
}

TEST_F(ScenarioSteps, TellUnitsApart) {
  run.begins();
  run.reads("kernel.img");
  Exchange read(&run.run, {kUnitB, 3000}, kStation, 34000);
  read.asks(tftp::rrq("other.img"));
  read.answers(tftp::error(1, ""));
  run.gives("F_l_m_01PPT_PASSED");
  run.ends(2);
  EXPECT_EQ(told(), "unit reads kernel.img\nunit b cannot read other.img\nunit reads F_l_m_01PPT_PASSED\n");
  EXPECT_NE(set_after_start().find("unit b is like tftp-hpa\n"), std::string::npos);
  EXPECT_EQ(written.left_out, 0U);
}

// Each asks as a loader does, and the last one in a way of its own.
TEST_F(ScenarioSteps, KnowLoadersByWhatTheyAskFor) {
  run.begins();
  const std::pair<const char*, tftp::Options> kReads[] = {
      {"a", {{"timeout", "5"}, {"blksize", "1468"}}},
      {"b", {{"timeout", "7"}, {"blksize", "1468"}}},
      {"c", {{"tsize", "0"}, {"blksize", "512"}, {"timeout", "6"}}},
      {"d", {{"blksize", "1432"}, {"tsize", "0"}}},
      {"e", {{"blksize", "1428"}, {"tsize", "0"}}},
      {"f", {{"timeout", "5"}, {"blksize", "1428"}, {"tsize", "0"}}},
      {"g", {}},
      {"h", {{"tsize", "0"}, {"timeout", "6"}}}};
  std::uint16_t port = 3000;
  for (const auto& [name, options] : kReads) {
    ++port;
    Exchange read(&run.run, {kUnit, port}, kStation, static_cast<std::uint16_t>(port + 30000));
    read.asks(tftp::rrq(name, options));
    read.blocks(1, 1, 100);
  }
  run.ends(15);
  EXPECT_EQ(
      told(),
      "unit reads a\nunit reads b timeout 7\nunit is like curl\nunit reads c\nunit is like ipxe\nunit reads "
      "d\n"
      "unit is like busybox\nunit reads e blksize 1428\nunit is like zirn\nunit reads f blksize 1428\n"
      "unit is like tftp-hpa\nunit reads g\nunit is like zirn\n"
      "# frames 27 to 29: asks for its options in an order of its own\nunit reads h\nstation gets SIGTERM\n");
  EXPECT_NE(set_after_start().find("unit is like u-boot\n"), std::string::npos);
}

// By how long they wait until they repeat: as one does, and as none does.
TEST_F(ScenarioSteps, KnowLoadersByTheirPatience) {
  run.begins();
  std::uint16_t port = 3000;
  for (const auto& [name, milliseconds] : {std::pair("a", 100), std::pair("b", 300), std::pair("c", 2000)}) {
    ++port;
    Exchange read(&run.run, {kUnit, port}, kStation, static_cast<std::uint16_t>(port + 30000));
    const std::string request = tftp::rrq(name, {{"blksize", "1432"}, {"tsize", "0"}});
    read.asks(request);
    run.run.rests(milliseconds);
    read.asks(request);
    read.blocks(1, 1, 100);
  }
  run.ends(15);
  EXPECT_EQ(
      told(),
      "unit reads a blksize 1432\nunit is like ipxe\nunit reads b\nunit reads c repeats 10 times after 2 s\n"
      "station gets SIGTERM\n");
}

TEST_F(ScenarioSteps, KnowALoaderThatIsLateOnABusyMachine) {
  run.begins();
  Exchange read(&run.run, {kUnit, 3000}, kStation);
  const std::string request = tftp::rrq("a", {{"tsize", "0"}});
  read.asks(request);
  run.run.rests(250);
  read.asks(request);
  read.blocks(1, 1, 100);
  run.ends(15);
  EXPECT_EQ(told(), "unit reads a\nstation gets SIGTERM\n");
  EXPECT_NE(set_after_start().find("unit is like busybox\n"), std::string::npos) << written.text;
}

// A station that was busy answers when nobody listens any more.
TEST_F(ScenarioSteps, SayThatTheUnitHadGivenUpWhenItsAnswerCame) {
  run.begins();
  for (const std::string name : {"rootfs.img", "F_l_m_01PPT_FAILED"}) {
    run.asks_for(name);
    run.run.rests(30000);
    run.station_sends(run.answering, tftp::data(1, name == "rootfs.img" ? std::string(512, 'x') : ""));
    run.run.closed({kStation, run.answering}, run.unit);
  }
  run.ends(2);
  EXPECT_EQ(told(), "unit cannot read rootfs.img\nbench waits 5 s\nunit cannot read F_l_m_01PPT_FAILED\n");
}

// The station repeats a block, and its port is closed, or nobody says anything at all.
TEST_F(ScenarioSteps, TellACrashFromADeath) {
  run.begins();
  for (const bool is_crash : {false, true}) {
    run.asks_for("kernel.img");
    Exchange(&run.run, run.unit, kStation, run.answering).blocks(1, 40, 512);
    run.station_sends(run.answering, tftp::data(41, std::string(512, 'x')));
    if (!is_crash) run.run.closed({kStation, run.answering}, run.unit);
    run.run.rests(5000);
    if (is_crash) run.station_sends(run.answering, tftp::data(41, std::string(512, 'x')));
    run.run.rests(15000);
  }
  run.gives("F_l_m_01PPT_PASSED");
  run.ends(2);
  EXPECT_EQ(told(),
            "unit reads kernel.img dies after 20 KiB\nbench waits 20 s\n"
            "unit begins reading kernel.img\nunit has read 16 KiB\nunit crashes\nbench waits 20 s\nunit "
            "boots again\n"
            "unit reads F_l_m_01PPT_PASSED\n");
}

// Where the wire is damaged, a read that is begun again is one read in several tries.
TEST_F(ScenarioSteps, TakeOnlyReadsThatAskAlikeForTries) {
  run.begins();
  for (const char* const size : {"1024", "1428", "1428"}) {
    Exchange read(&run.run, {kUnit, ++run.last_port}, kStation, run.answering += 100);
    read.asks(tftp::rrq("kernel.img", {{"blksize", size}}));
    read.answers(tftp::oack({{"blksize", size}}));
    read.sends(tftp::ack(0));
    for (int block = 1; block <= 40; ++block) {
      run.run.next_is(record::kDuplicated);
      read.blocks(block, block, std::stoul(size));
    }
    const bool is_last = run.last_port == 2003;
    if (is_last) read.blocks(41, 41, 1);
    if (!is_last) read.answers(tftp::data(41, std::string(std::stoul(size), 'x')));
    if (!is_last) run.run.closed({kStation, run.answering}, {kUnit, run.last_port});
  }
  run.ends(15);
  const std::string steps = told();
  EXPECT_NE(steps.find("unit reads kernel.img blksize 1024 dies after 40 KiB\n"), std::string::npos) << steps;
  EXPECT_NE(steps.find("\nunit reads kernel.img blksize 1428 tries 9\nstation gets"), std::string::npos)
      << steps;
}

// Whether it answers before the unit gives up depends on the moment.
TEST_F(ScenarioSteps, TryAgainWhereTheStationWasBusy) {
  run.begins();
  run.asks_for("kernel.img");
  run.run.rests(5000);
  run.reads("kernel.img");
  run.asks_for("rootfs.img");
  run.run.rests(4900);
  Exchange(&run.run, run.unit, kStation, run.answering).blocks(1, 1, 100);
  run.ends(15);
  EXPECT_EQ(told(),
            "bench waits 5 s\nunit reads kernel.img tries 9\nunit reads rootfs.img tries 9\n"
            "station gets SIGTERM\n");
}

// A request that the wire doubled.
TEST_F(ScenarioSteps, TakeTheOneOfTwoAnswersThatTheUnitGoesOnWith) {
  run.begins();
  run.asks_for("kernel.img");
  run.run.udp(run.unit, {kStation, 69}, tftp::rrq("kernel.img"));
  run.station_sends(run.answering, tftp::data(1, std::string(512, 'x')));
  Exchange second(&run.run, run.unit, kStation, 50000);
  second.blocks(1, 2, 512);
  second.blocks(3, 3, 1);
  run.ends(15);
  EXPECT_EQ(told(), "unit reads kernel.img\nstation gets SIGTERM\n");
  EXPECT_EQ(set(), "file kernel.img is 1025 bytes\n");
}

TEST_F(ScenarioSteps, LetTheUnitLeaveAReadAlsoWhereTheStationEndsSoon) {
  run.begins();
  run.asks_for("kernel.img");
  Exchange(&run.run, run.unit, kStation, run.answering).blocks(1, 2, 512);
  run.station_sends(run.answering, tftp::data(3, std::string(512, 'x')));
  run.reads("small.cfg");
  run.ends(15);
  EXPECT_EQ(told(), "unit reads kernel.img dies after 1 KiB\nunit reads small.cfg\nstation gets SIGTERM\n");
}

// The station goes on with a read that its unit has left, and the wire doubles what it repeats.
TEST_F(ScenarioSteps, PauseFromWhatTheUnitDidAfterItLeftARead) {
  for (const bool is_crash : {false, true}) {
    ExplainedRun other;
    other.begins();
    other.asks_for("kernel.img");
    const made::Endpoint unit = other.unit, answering{kStation, other.answering};
    Exchange(&other.run, unit, kStation, answering.port).blocks(1, 2, 512);
    if (!is_crash) other.run.closed(answering, unit);
    other.reads("small.cfg");
    for (int times = 0; times < 2; ++times) {
      other.run.rests(4000);
      for (int copy = 0; copy < 3; ++copy)
        other.run.udp(answering, unit, tftp::data(3, std::string(512, 'x')));
    }
    other.ends(15);
    const std::string steps = scenario::scenario_of(other.run.ends()).text;
    const std::string left = is_crash ? "unit begins reading kernel.img\nunit crashes\nunit boots again\n"
                                      : "unit reads kernel.img dies after 1 KiB\n";
    EXPECT_NE(steps.find(left + "unit reads small.cfg\nbench waits 8 s\nstation gets SIGTERM\n"),
              std::string::npos)
        << steps;
  }
}

TEST_F(ScenarioSteps, KnowAnEmptyFileByItsAcknowledgedSize) {
  run.begins();
  Exchange read(&run.run, {kUnit, 3000}, kStation);
  read.asks(tftp::rrq("empty.cfg", {{"blksize", "9000"}, {"tsize", "0"}}));
  read.answers(tftp::oack({{"blksize", "9000"}, {"tsize", "0"}}));
  run.run.rests(20000);
  run.ends(15);
  told();
  EXPECT_EQ(set(), "file empty.cfg is 0 bytes\n");
}

TEST_F(ScenarioSteps, SayMoreThanOneQuestionOnAConnection) {
  run.begins();
  run.gives("F_l_m_01STEP");
  const made::Endpoint client{kUnit, 4000}, server{kStation, 12345};
  run.tcp(client, server, made::kSyn, 100);
  run.tcp(server, client, made::kSyn | made::kAck, 200);
  run.tcp(client, server, made::kAck, 101, "A");
  run.tcp(server, client, made::kAck, 201, "one");
  run.tcp(server, client, made::kAck, 204, "two");
  run.tcp(client, server, made::kAck, 102, "B");
  run.tcp(server, client, made::kAck, 207, "three");
  run.tcp(client, server, made::kFin | made::kAck, 103);
  run.tcp(server, client, made::kFin | made::kAck, 212);
  run.ends(15);
  EXPECT_EQ(told(),
            "unit reads F_l_m_01STEP\nppt hears F_l_m_01CPU_2_STEP\nunit asks A expects one and holds "
            "on\nunit is told two\n"
            "unit asks on B expects three\nunit hangs up\nstation gets SIGTERM\n");
}

TEST_F(ScenarioSteps, SayBytesThatAreNoText) {
  run.begins();
  run.reads("kernel.img");
  run.run.udp(run.unit, {kStation, 12345}, std::string("\0\xff", 2));
  run.run.udp(run.unit, {kStation, 12345}, "text");
  run.ends(15);
  EXPECT_EQ(told(), "unit reads kernel.img\nunit sends bytes 00ff\nunit sends text\nstation gets SIGTERM\n");
}

TEST_F(ScenarioSteps, SayNoOptionThatTheLanguageDoesNotTake) {
  run.begins();
  Exchange read(&run.run, {kUnit, 3000}, kStation);
  read.asks(std::string("\0\1a.img\0octet\0blksize\099999\0timeout\0001\0windowsize\0004\0", 51));
  read.answers(tftp::data(1, "a"));
  read.sends(tftp::ack(1));
  run.ends(15);
  const std::string steps = told();
  EXPECT_NE(steps.find(": asks for the option blksize 99999\n"), std::string::npos) << steps;
  EXPECT_NE(steps.find(": asks for the option windowsize 4\n"), std::string::npos) << steps;
  EXPECT_NE(steps.find("\nunit reads a.img timeout 1\n"), std::string::npos) << steps;
}

TEST_F(ScenarioSteps, ForbidNothingWhereTheRecordLacksThePptServersNetwork) {
  run.lacking.ppt_network = true;
  run.begins();
  run.gives("F_l_m_01STEP");
  run.ends(15);
  EXPECT_EQ(told(), "unit reads F_l_m_01STEP\nstation gets SIGTERM\n");
  EXPECT_EQ(set(), "");
}

TEST_F(ScenarioSteps, WaitForWhatTheRelayPassesOn) {
  const made::Endpoint relay{kStation, 12345}, at_ppt{made::kStationAtPpt, 5000},
      ppt{made::kPptServer, 12345};
  const std::string passed(255, 'x');
  run.begins();
  run.gives("F_l_m_01STEP");
  for (const std::string& text : {passed + "xyz", std::string("ab\0cd", 5), std::string(600, 'z')}) {
    run.run.udp(run.unit, relay, text);
    run.run.udp(at_ppt, ppt, text.substr(0, std::min<std::size_t>(text.find('\0'), 255)));
  }
  const std::uint64_t long_one = run.run.number - 1;
  run.ends(15);
  EXPECT_EQ(told(), "unit reads F_l_m_01STEP\nppt hears F_l_m_01CPU_2_STEP\nunit sends " + passed +
                        "xyz\nppt receives " + passed +
                        "\nunit sends bytes 6162006364\nppt receives ab\n# frame " +
                        std::to_string(long_one) +
                        ": a datagram that is too long, or to port 0, or not the unit's to the station\n"
                        "station gets SIGTERM\n");
}

TEST_F(ScenarioSteps, SayNoTextOfWhichTheRecordHasAPart) {
  run.begins();
  run.reads("kernel.img");
  const std::uint64_t whole = run.run.number;
  run.run.keeps(56);
  run.reads("a-long-name.img");
  run.asks("WHO ARE YOU", "WHO ARE YOU");
  run.run.keeps(std::string::npos);
  run.asks(std::string(600, 'w'), "no");
  run.ends(15);
  const std::string steps = told();
  EXPECT_EQ(steps.find("unit reads kernel.img\n# frames " + std::to_string(whole + 1) + " to "), 0U) << steps;
  EXPECT_EQ(steps.find("\nunit"), std::string::npos) << steps;
  EXPECT_EQ(written.text.find("…"), std::string::npos) << written.text;
  EXPECT_EQ(written.left_out, 4U) << written.text;
}

TEST_F(ScenarioSteps, SayNoReadThatTheBenchCannotPlay) {
  run.begins();
  run.reads(std::string(256, 'n'));
  run.reads(std::string(600, 'n'));
  run.reads("..");
  run.asks_for("in-another-mode.img", "netascii");
  run.ends(15);
  const std::string steps = told();
  EXPECT_EQ(steps.find("in-another-mode.img"), std::string::npos) << steps;
  EXPECT_EQ(steps.find(std::string(257, 'n')), std::string::npos) << steps;
  EXPECT_EQ(written.text.find("\nfile "), std::string::npos) << written.text;
  EXPECT_EQ(written.left_out, 5U) << written.text;
}

TEST_F(ScenarioSteps, EndARunWhoseRecordHasNoEnd) {
  run.begins();
  run.reads("kernel.img");
  EXPECT_EQ(told(),
            "unit reads kernel.img\n# the record does not say how the station ended\nstation gets SIGTERM\n");
  EXPECT_EQ(written.left_out, 1U);
}

}  // namespace
