// Runs of which the record lacks something: the owner is the right one, or unknown, and never another.
#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>
#include <string>
#include <utility>
#include <vector>

#include "explanation/case.h"
#include "support/sanitized.h"
#include "zirn_run/explained_run.h"

namespace {

using explanation::Outcome;

struct Happening : ExplainedRun {
  void passes() {
    begins();
    reads("kernel.img");
    gives("F_l_m_01MEMORY_PASSED");
    gives("F_l_m_09PPT_PASSED");
    ends(2);
  }
  void fails() {
    begins();
    reads("kernel.img");
    gives("F_l_m_01MEMORY_PASSED");
    gives("F_l_m_09PPT_FAILED");
    ends(2);
  }
  void is_ended() {
    begins();
    gives("F_l_m_01MEMORY_PASSED");
    run.rests(1000);
    ends(15);
  }
  void lacks_a_file() {
    begins();
    gives("F_l_m_t_Bootstrap_loading");
    is_refused("kernel.img", 1, "");
    gives("F_l_m_09PPT_FAILED");
    ends(2);
  }
  void lacks_a_file_and_is_ended() {
    begins();
    gives("F_l_m_t_Bootstrap_loading");
    is_refused("kernel.img", 1, "");
    ends(15);
  }
  void meets_silence() {
    begins();
    ppt = Ppt::kSilent;
    gives("F_l_m_01MEMORY_PASSED");
    gives("F_l_m_09PPT_FAILED");
    ends(2);
  }
  void meets_silence_and_is_ended() {
    begins();
    ppt = Ppt::kSilent;
    gives("F_l_m_01MEMORY_PASSED");
    run.rests(3000);
    ends(15);
  }
  void is_told_fail() {
    begins();
    gives("F_l_m_t_Bootstrap_loading");
    line("Mode detected: 7");
    asks("DO_PMC_INIT:7", "FAIL");
    gives("F_l_m_01TEST_FAILED");
    gives("F_l_m_09PPT_FAILED");
    ends(2);
  }
  void has_no_envtool() {
    begins();
    gives("F_l_m_t_Bootstrap_loading");
    asks("ZIRN_ASKS_FOR_HIS_MAC", "02:00:00:00:00:03");
    line("Assigned MAC is 02:00:00:00:00:03");
    gives("F_l_m_09PPT_FAILED");
    ends(2);
  }
  void has_no_connection() {
    begins();
    gives("F_l_m_t_Bootstrap_loading");
    line("ERROR on connect() to 172.30.0.254:12345. Connection refused");
    line("Error: Failed to initialize receiver");
    asks_in_vain();
    gives("F_l_m_09PPT_FAILED");
    ends(2);
  }
  void meets_a_tool_that_hangs() {
    begins();
    gives("F_l_m_t_Bootstrap_loading");
    line("Message receiver initialized. IP: 172.30.0.254 Port=12345");
    is_refused("extra.cfg", 1, "");
    asks("DO_PMC_INIT:7", "", 20000);
    line("Mode detected: 7");
    is_killed(SIGKILL);
  }
  void is_not_answered() {
    begins();
    sends_boot_script(5);
    ends(15);
  }
  void gives_a_short_verdict() {
    begins();
    asks_for("F_l_m_1");
    station_sends(answering, tftp::data(1, ""));
    line("Cmd received: F_l_m_1");
    is_killed(SIGABRT);
  }
};

void expect_never_another(const std::string& owner, Outcome outcome, void (Happening::*happens)()) {
  const ExplainedRun::Lacking nothing;
  std::vector<std::pair<const char*, ExplainedRun::Lacking>> records(9, {"nothing", nothing});
  records[1].first = "the lines", records[1].second.lines = true;
  records[2].first = "the PPT network", records[2].second.ppt_network = true;
  records[3].first = "the unit's frames", records[3].second.from_unit = true;
  records[4].first = "the station's frames", records[4].second.from_station = true;
  records[5].first = "the frames", records[5].second.frames = true;
  records[6] = records[2], records[6].first = "lines and PPT network", records[6].second.lines = true;
  records[7] = records[3], records[7].first = "lines and the unit's frames", records[7].second.lines = true;
  records[8] = records[4], records[8].first = "lines and the station's frames",
  records[8].second.lines = true;
  for (const auto& [words, lacks] : records) {
    Happening one;
    one.lacking = lacks;
    (one.*happens)();
    const std::string fault = one.fault();
    const std::string found = fault.substr(0, fault.find(' '));
    const bool lacks_nothing = words == records[0].first;
    EXPECT_TRUE(found == owner || (!lacks_nothing && found == "unknown"))
        << "without " << words << ": " << fault;
    EXPECT_TRUE(one.told.verdict == outcome || (!lacks_nothing && one.told.verdict == Outcome::kNone))
        << "without " << words;
    EXPECT_TRUE(lacks_nothing || owner == "unknown" || !one.told.incomplete.empty()) << "without " << words;
  }
}

class Degraded : public testing::Test, public Happening {};

TEST_F(Degraded, ARunThatPasses) {
  expect_never_another("none", Outcome::kPassed, &Happening::passes);
}
TEST_F(Degraded, AUnitThatFails) {
  expect_never_another("unit", Outcome::kFailed, &Happening::fails);
}
TEST_F(Degraded, ARunThatIsEnded) {
  expect_never_another("operator", Outcome::kNone, &Happening::is_ended);
}
TEST_F(Degraded, AMissingFile) {
  expect_never_another("station", Outcome::kFailed, &Happening::lacks_a_file);
}
TEST_F(Degraded, AMissingFileAndAnEnd) {
  expect_never_another("station", Outcome::kNone, &Happening::lacks_a_file_and_is_ended);
}
TEST_F(Degraded, ASilentPptServer) {
  expect_never_another("ppt-server", Outcome::kFailed, &Happening::meets_silence);
}
TEST_F(Degraded, ASilentPptServerAndAnEnd) {
  expect_never_another("ppt-server", Outcome::kNone, &Happening::meets_silence_and_is_ended);
}
TEST_F(Degraded, AToolThatFails) {
  expect_never_another("board", Outcome::kFailed, &Happening::is_told_fail);
}
TEST_F(Degraded, AToolThatHangs) {
  expect_never_another("board", Outcome::kNone, &Happening::meets_a_tool_that_hangs);
}
TEST_F(Degraded, AnEnvtoolThatIsMissing) {
  expect_never_another("board", Outcome::kFailed, &Happening::has_no_envtool);
}
TEST_F(Degraded, AConnectionThatIsRefused) {
  expect_never_another("ppt-server", Outcome::kFailed, &Happening::has_no_connection);
}
TEST_F(Degraded, ABootScriptThatNobodyAnswers) {
  expect_never_another("unknown", Outcome::kNone, &Happening::is_not_answered);
}
// Whether the command port refused it is with the frames that are not there.
TEST_F(Degraded, ACommandThatNothingAnswers) {
  lacking.from_station = true;
  starts();
  asks_in_vain();
  is_killed(SIGKILL);
  EXPECT_EQ(fault(), "unknown verdict.unexplained");
  EXPECT_EQ(told.incomplete, std::vector<std::string>{"frames of one side of the test network"});
}

// The boot script is the station's, and so its frames are in the record.
TEST_F(Degraded, ACommandThatNothingAnswersThoughTheBootScriptIsThere) {
  begins();
  tcp({made::kUnit, 3000}, {made::kStation, 12345}, made::kSyn, 100);
  is_killed(SIGKILL);
  EXPECT_EQ(fault(), "operator end.sigkill");
  EXPECT_TRUE(told.incomplete.empty());
}

TEST_F(Degraded, AVerdictThatIsTooShort) {
  expect_never_another("unit", Outcome::kNone, &Happening::gives_a_short_verdict);
}

// A PPT server that is silent would come first.
TEST_F(Degraded, AnEmptyMacWhereThePptNetworkIsMissing) {
  lacking.ppt_network = true;
  begins();
  gives("F_l_m_t_Bootstrap_loading");
  asks("ZIRN_ASKS_FOR_HIS_MAC", "00:00:00:00:00:02");
  run.rests(6000);
  gives("F_l_m_09PPT_FAILED");
  ends(2);
  EXPECT_EQ(fault(), "unknown verdict.unexplained");
  EXPECT_TRUE(has_also("board.mac-empty"));
}

// Ten seconds after its start an alarm ends the station's wait for the PPT server: that it answers the unit soon says
// nothing then. The first verdict stops the alarm.
struct AlarmCase {
  const char* title;
  int first_after;  // milliseconds since the last boot script, which comes 2 s after the start
  int next_after;
  bool gives_one_before;
  bool has_lines;
  const char* fault;
};
void PrintTo(const AlarmCase& one, std::ostream* stream) {
  *stream << one.title;
}

class Alarm : public testing::TestWithParam<AlarmCase> {};

TEST_P(Alarm, MayHaveEndedAWaitThatTheRecordLacks) {
  ExplainedRun one;
  one.lacking.ppt_network = true;
  one.lacking.lines = !GetParam().has_lines;
  one.begins();
  if (GetParam().gives_one_before) one.gives("F_l_m_t_Bootstrap_loading");
  one.run.rests(GetParam().first_after);
  one.gives("F_l_m_01MEMORY_PASSED");
  one.run.rests(GetParam().next_after);
  one.gives("F_l_m_02TEST_FAILED");
  one.gives("F_l_m_09PPT_FAILED");
  one.ends(2);
  EXPECT_EQ(one.fault(), GetParam().fault);
}

INSTANTIATE_TEST_SUITE_P(
    , Alarm,
    testing::Values(AlarmCase{"Between", 4500, 4000, false, true, "unknown verdict.unexplained"},
                    AlarmCase{"Before", 9500, 4000, false, true, "unit unit.failed"},
                    AlarmCase{"After", 2000, 4000, false, true, "unit unit.failed"},
                    AlarmCase{"Stopped", 4500, 4000, true, true, "unit unit.failed"},
                    AlarmCase{"StartNotSaid", 2000, 4000, false, false, "unknown verdict.unexplained"},
                    AlarmCase{"StartNotSaidAndOver", 9500, 4000, false, false, "unit unit.failed"}),
    [](const auto& one) { return std::string(one.param.title); });

// That nothing came until then does not show that nothing would have come.
TEST_F(Degraded, AWaitThatTheAlarmEnds) {
  begins();
  run.rests(4500);
  asks_for("F_l_m_01MEMORY_PASSED");
  station_sends(answering, tftp::data(1, ""));
  unit_sends({made::kStation, answering}, tftp::ack(1));
  line("Cmd received: F_l_m_01MEMORY_PASSED");
  const made::Endpoint station{made::kStationAtPpt, 4000}, server{made::kPptServer, 69};
  ppt_frame(station, server, tftp::rrq(story::query_for("F_l_m_01MEMORY_PASSED")));
  run.rests(3500);
  ppt_frame(station, server, tftp::ack(1));
  line("Error in select(): ");
  reads("kernel.img");
  gives("F_l_m_09PPT_FAILED");
  ends(2);
  EXPECT_EQ(fault(), "unknown verdict.unexplained");
}

// Frames that the kernel dropped may be those that would show another cause.
TEST_F(Degraded, DroppedFrames) {
  run.story.take(record::Interface{"lan0", "", record::kEthernet, 0});
  fails();
  run.story.take(record::Statistics{0, run.now, 100, 3});
  EXPECT_EQ(fault(), "unknown verdict.unexplained");
  EXPECT_EQ(told.verdict, Outcome::kFailed);
  EXPECT_EQ(told.incomplete, std::vector<std::string>{"3 frames that the kernel dropped on lan0"});
}

// So may those that came while the link was not recorded.
TEST_F(Degraded, ALinkThatIsGoneForATime) {
  begins();
  gives("F_l_m_01MEMORY_PASSED");
  says(record::gap(record::kFramesMissing, "lan0 is gone or down"));
  run.rests(2000);
  says(record::gap(record::kFramesBack, "lan0 is back"));
  gives("F_l_m_09PPT_FAILED");
  ends(2);
  EXPECT_EQ(fault(), "unknown verdict.unexplained");
  ASSERT_EQ(told.incomplete.size(), 1U);
  EXPECT_EQ(told.incomplete[0].rfind("frames from ", 0), 0U) << told.incomplete[0];
  EXPECT_NE(told.incomplete[0].find(": lan0 is gone or down"), std::string::npos) << told.incomplete[0];
}

TEST_F(Degraded, ALinkThatWasGoneBeforeTheStepThatFailed) {
  begins();
  says(record::gap(record::kFramesMissing, "lan0 is gone or down"));
  run.rests(1000);
  says(record::gap(record::kFramesBack, "lan0 is back"));
  run.rests(1000);
  gives("F_l_m_01MEMORY_PASSED");
  run.rests(1000);
  gives("F_l_m_09PPT_FAILED");
  ends(2);
  EXPECT_EQ(fault(), "unit unit.failed");
  EXPECT_EQ(told.incomplete.size(), 1U);
}

TEST_F(Degraded, GapsOfEachKindAreSaid) {
  begins();
  const auto expect_last = [&](std::string_view what, const std::string& why, const std::string& expected) {
    says(record::gap(what, why));
    fault();
    const auto end = std::find(told.incomplete.rbegin(), told.incomplete.rend(), expected);
    EXPECT_NE(end, told.incomplete.rend()) << expected << "; the last: " << told.incomplete.back();
  };
  const std::string now = explanation::seconds(run.now - run.reading().first);
  expect_last(record::kFramesNeverCame, "lan7: no such link",
              "frames from " + now + " on: lan7: no such link");
  expect_last(record::kLinesMayMiss, "journalctl ended", "lines, perhaps, at " + now + ": journalctl ended");
  expect_last("something ", "odd\a", "something odd\\x07 at " + now);
  expect_last(record::kAllMissing, "the recorder was cut off",
              "all from " + now + " on: the recorder was cut off");
  for (int i = 0; i < 5; ++i) says(record::gap(record::kFramesMissing, "lan0 is gone or down"));
  fault();
  EXPECT_EQ(std::count(told.incomplete.begin(), told.incomplete.end(),
                       "more, as the recorder says 5 further times"),
            1);
}

// Reads that break off, boots, lines and pulled cables, as many as a reading holds: made to be slow.
TEST_F(Degraded, ARunMadeToTakeLongIsExplainedSoon) {
  constexpr int kMany = 5000;
  starts();
  for (const char* const name : {"image", "bootscript.txt"}) {
    for (int i = 0; i < kMany; ++i) {
      asks_for(name);
      station_sends(answering, tftp::data(1, std::string(512, 'x')));
    }
    run.rests(120000);
  }
  gives("F_l_m_01MEMORY_PASSED");
  for (int i = 0; i < kMany; ++i) {
    asks("DO_PMC_INIT:" + std::to_string(i), "");
    asks_in_vain();
    run.rests(1);
    line("Mode detected: " + std::to_string(i));
    line("RRQ file" + std::to_string(i));
    says(record::Cut{1});
  }
  ends(15);
  const std::clock_t begin = std::clock();
  fault();
  EXPECT_LT(static_cast<double>(std::clock() - begin) / CLOCKS_PER_SEC, kSanitized ? 20 : 2);
}

// Of which the capture keeps only so many bytes after the headers.
class Cut : public Degraded {
 protected:
  static constexpr std::size_t kUdpHeaders = 42, kTcpHeaders = 54;
  void gives_cut(const std::string& name, std::size_t kept) {
    run.keeps(kUdpHeaders + 2 + kept);
    gives(name);
    run.keeps(std::string::npos);
  }
  bool says_so() const {
    return std::any_of(told.incomplete.begin(), told.incomplete.end(), [](const std::string& thing) {
      return thing.find(" that the capture cut") != std::string::npos;
    });
  }
};

TEST_F(Cut, AFinalVerdict) {
  lacking.lines = true;
  begins();
  gives("F_l_m_01MEMORY_PASSED");
  gives_cut("F_l_m_09PPT_FAILED", 8);
  EXPECT_EQ(fault(), "unknown record.no-end");
  EXPECT_EQ(told.verdict, Outcome::kNone);
  EXPECT_TRUE(says_so());
}

TEST_F(Cut, AFinalVerdictThatALineTells) {
  begins();
  gives("F_l_m_01MEMORY_PASSED");
  gives_cut("F_l_m_09PPT_FAILED", 8);
  ends(2);
  EXPECT_EQ(fault(), "unit unit.failed");
  EXPECT_EQ(told.verdict, Outcome::kFailed);
  EXPECT_EQ(told.steps.size(), 1U);
  EXPECT_TRUE(says_so());
}

TEST_F(Cut, AVerdictBeforeAFailure) {
  lacking.lines = true;
  sends_boot_script();
  gives_cut("F_l_m_01LINE_TEST_FAILED", 12);
  gives("F_l_m_09PPT_FAILED");
  EXPECT_EQ(fault(), "unknown verdict.unexplained");
  EXPECT_EQ(told.verdict, Outcome::kFailed);
}

TEST_F(Cut, TheModeOfARead) {
  begins();
  reads("bootscript.txt");
  run.keeps(kUdpHeaders + 2 + 10);
  is_refused("kernel.img", 2, "", "netascii");
  run.keeps(std::string::npos);
  gives("F_l_m_09PPT_FAILED");
  ends(2);
  EXPECT_EQ(fault(), "unknown file.refused");
  EXPECT_FALSE(has_also("file.wrong-mode"));
}

TEST_F(Cut, AReply) {
  begins();
  gives("F_l_m_t_Bootstrap_loading");
  run.keeps(kTcpHeaders + 4);
  asks("DO_PMC_INIT:7", "FAILED INDEED");
  run.keeps(std::string::npos);
  gives("F_l_m_09PPT_FAILED");
  ends(2);
  EXPECT_EQ(fault(), "unknown verdict.unexplained");
  EXPECT_TRUE(says_so());
}

TEST_F(Cut, AnAnswerOfWhichNothingIsKept) {
  begins();
  reads("bootscript.txt");
  run.keeps(kUdpHeaders);
  reads("kernel.img");
  run.keeps(std::string::npos);
  gives("F_l_m_09PPT_FAILED");
  ends(2);
  EXPECT_EQ(fault(), "unknown verdict.unexplained");
  EXPECT_TRUE(says_so());
}

// The boot script is known by its beginning.
TEST_F(Cut, ABootScript) {
  starts();
  run.keeps(kUdpHeaders + 54);
  sends_boot_script();
  run.keeps(std::string::npos);
  gives("F_l_m_09PPT_FAILED");
  ends(2);
  EXPECT_EQ(fault(), "unit unit.failed");
}

TEST_F(Degraded, ARecordThatIsCutShort) {
  begins();
  gives("F_l_m_01MEMORY_PASSED");
  told = explanation::explain(run.ends(true));
  EXPECT_EQ(told.fault.cause->id, "record.no-end");
  EXPECT_EQ(told.incomplete.at(0), "its end: the file is cut short or damaged");
}

class Peers : public testing::Test, public ExplainedRun {};

// Other servers' traffic is no station's run, whatever the files are called.
TEST_F(Peers, AreNoRun) {
  unit = {made::kUnit, 2000};
  Exchange peer(&run, unit, made::kPptServer, 50000);
  peer.asks(tftp::rrq("kernel.img"));
  peer.blocks(1, 20, 512);
  peer.answers(tftp::data(21, "x"));
  peer.sends(tftp::ack(21));
  EXPECT_EQ(fault(), "unknown record.no-run");
  EXPECT_EQ(told.verdict, Outcome::kNone);
}

TEST_F(Peers, GiveNoVerdicts) {
  Exchange peer(&run, {made::kUnit, 2000}, made::kPptServer, 50000);
  peer.asks(tftp::rrq("F_l_m_01PPT_PASSED"));
  peer.answers(tftp::error(1, "File not found"));
  Exchange other(&run, {made::kUnit, 2001}, made::kPptServer, 50001);
  other.asks(tftp::rrq("F_l_m_02PPT_PASSED"));
  other.answers(tftp::data(1, ""));
  other.sends(tftp::ack(1));
  EXPECT_EQ(fault(), "unknown record.no-run");
  EXPECT_EQ(told.verdict, Outcome::kNone);
}

TEST_F(Peers, AreNothingAtAll) {
  EXPECT_EQ(fault(), "unknown record.no-run");
  EXPECT_FALSE(told.start);
}

}  // namespace
