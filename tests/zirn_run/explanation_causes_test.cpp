// A run for each cause that reads like the run.
#include <gtest/gtest.h>

#include <set>

#include "explanation/printed_lines.h"
#include "zirn_run/explained_run.h"

namespace {

using explanation::Outcome;
using explanation::PrintedLine;

constexpr record::Nanoseconds kSecond = 1'000'000'000;

class Causes : public testing::Test, public ExplainedRun {
 protected:
  void passes() {
    gives("F_l_m_09PPT_PASSED");
    ends(2);
  }
  void fails() {
    gives("F_l_m_09PPT_FAILED");
    ends(2);
  }
};

TEST_F(Causes, NoneOfARunThatPassed) {
  begins();
  reads("kernel.img", 30);
  gives("F_l_m_01MEMORY_PASSED");
  asks("ZIRN_ASKS_FOR_HIS_MAC", "02:00:00:00:17:2c");
  passes();
  EXPECT_EQ(fault(), "none passed");
  EXPECT_EQ(told.verdict, Outcome::kPassed);
  EXPECT_TRUE(told.also.empty()) << told.also[0].statements[0].sentence;
  EXPECT_TRUE(told.incomplete.empty()) << told.incomplete[0];
  ASSERT_EQ(told.units.size(), 1U);
  EXPECT_EQ(told.units[0].address, "172.40.0.2");
  EXPECT_EQ(told.units[0].mac, "02:00:ac:28:00:02");
  ASSERT_EQ(told.reads.size(), 1U);
  EXPECT_EQ(told.reads[0].bytes, 29U * 512 + 100);
  EXPECT_EQ(told.reads[0].blocks, 30U);
  ASSERT_EQ(told.steps.size(), 1U);
  EXPECT_EQ(told.steps[0].result, explanation::Step::Result::kPassed);
  ASSERT_TRUE(told.exit);
  EXPECT_EQ(told.exit->status, 2);
}

TEST_F(Causes, AUnitThatFails) {
  begins();
  gives("F_l_m_01MEMORY_PASSED");
  fails();
  EXPECT_EQ(fault(), "unit unit.failed");
  EXPECT_EQ(told.verdict, Outcome::kFailed);
  const explanation::Evidence& evidence = told.fault.statements.at(0).evidence;
  EXPECT_EQ(evidence.frames.count, 3U);
  EXPECT_EQ(evidence.lines.count, 1U);
  EXPECT_FALSE(evidence.is_inferred);
}

TEST_F(Causes, AStepThatFailsOnTheWayToAPass) {
  begins();
  gives("F_l_m_01TEST_FAILED");
  passes();
  EXPECT_EQ(fault(), "none passed");
  EXPECT_TRUE(has_also("unit.failed"));
  EXPECT_EQ(told.steps.at(0).result, explanation::Step::Result::kFailed);
}

struct StartLine {
  const char* line;
  const char* fault;
};
class StartLines : public Causes, public testing::WithParamInterface<StartLine> {};

TEST_P(StartLines, SayWhyThereIsNoRun) {
  starts();
  line(GetParam().line);
  ends(1);
  EXPECT_EQ(fault(), GetParam().fault);
  EXPECT_EQ(told.verdict, Outcome::kNone);
}
INSTANTIATE_TEST_SUITE_P(
    OfTheStation, StartLines,
    testing::Values(StartLine{"Socket Bind exception: Address already in use", "station start.port-in-use"},
                    StartLine{"Socket Bind exception: Cannot assign requested address",
                              "station start.no-address"},
                    StartLine{"Socket Bind exception: Permission denied", "station start.no-right"},
                    StartLine{"Socket Bind exception: Bad address", "station start.no-port"},
                    StartLine{"Socket create exception: Too many open files", "station start.no-socket"},
                    StartLine{"OPTIONS ERROR : Failed allocating memory", "station start.no-memory"}));

TEST_F(Causes, AnEmptyPptServer) {
  line("Usage: TFTP [-h] [-p port] [-s server]");
  ends(1);
  EXPECT_EQ(fault(), "operator start.no-server");
}

class BootLines : public Causes, public testing::WithParamInterface<StartLine> {};

TEST_P(BootLines, SayWhyThereIsNoBootScript) {
  starts();
  line(GetParam().line);
  line("Error: Failed to initialize sender");
  run.rests(60000);
  ends(15);
  EXPECT_EQ(fault(), GetParam().fault);
}
INSTANTIATE_TEST_SUITE_P(
    OfTheStation, BootLines,
    testing::Values(
        StartLine{"Can't create socket for ioctl calls  because of : Operation not permitted",
                  "station boot.no-right"},
        StartLine{"Can't create socket for ioctl calls  because of : Too many open files",
                  "station boot.no-socket"},
        StartLine{"Can't get ioctl answer because of : No such device", "station boot.no-link"},
        StartLine{"error in proto entry", "station boot.no-protocols"},
        StartLine{"Can't bind socket by the reason of Cannot assign requested address",
                  "station boot.link-down"},
        StartLine{"Can't bind socket by the reason of Address already in use", "station boot.no-broadcast"},
        StartLine{"Can't set the socket options the reason is Bad file descriptor", "station boot.no-socket"},
        StartLine{"Can't bind socket by the reason of something else", "station boot.none"},
        StartLine{"Server started , waiting for connections", "station boot.none"}));

TEST_F(Causes, ABootScriptThatCannotBeSent) {
  starts();
  line("Message Sender initialized. IP: 172.40.0.255 Port=12345");
  line("Error in \"sendto\":  the reason is Network is down");
  ends(15);
  EXPECT_EQ(fault(), "station boot.not-sent");
}

// Without a broadcast address, boot script and relay want the same one, and one of them has it.
TEST_F(Causes, AMessagePortThatIsTaken) {
  starts();
  line("UDP: ERROR on binding. Address already in use");
  line("Can't bind socket by the reason of Address already in use");
  line("Error: Failed to initialize sender");
  ends(15);
  EXPECT_EQ(fault(), "station boot.port-in-use");
  EXPECT_FALSE(has_also("boot.no-broadcast"));
}

TEST_F(Causes, AMessagePortOfItsOwnThatIsTaken) {
  says(record::RunBegins{"lan0-1", "", "TFTP -o 172.40.0.1 -m 20000"});
  starts();
  line("Can't bind socket by the reason of Address already in use");
  line("Error: Failed to initialize sender");
  ends(15);
  EXPECT_EQ(fault(), "station boot.port-in-use");
}

TEST_F(Causes, ALinkWithoutABroadcastAddress) {
  starts();
  line("Message Sender initialized. IP: 0.0.0.0 Port=12345");
  ends(15);
  EXPECT_EQ(fault(), "station boot.no-broadcast");
}

TEST_F(Causes, ABootScriptThatNobodyAnswers) {
  begins();
  sends_boot_script(20);
  ends(15);
  EXPECT_EQ(fault(), "unknown boot.unanswered");
  EXPECT_TRUE(has_also("end.sigterm"));
}

TEST_F(Causes, ABootScriptThatIsMissedByNobody) {
  starts();
  line("Can't get ioctl answer because of : No such device");
  line("Error: Failed to initialize sender");
  passes();
  EXPECT_EQ(fault(), "none passed");
  EXPECT_TRUE(has_also("boot.no-link"));
}

TEST_F(Causes, AVerdictThatIsTooShort) {
  begins();
  asks_for("F_l_m_1");
  station_sends(answering, tftp::data(1, ""));
  line("Cmd received: F_l_m_1");
  is_killed(SIGABRT);
  EXPECT_EQ(fault(), "unit verdict.too-short");
}

TEST_F(Causes, AFileThatIsNotThere) {
  begins();
  reads("bootscript.txt");
  is_refused("kernel.img", 1, "");
  fails();
  EXPECT_EQ(fault(), "station file.missing");
  EXPECT_TRUE(has_also("unit.failed"));
}

TEST_F(Causes, AFileThatIsNotThereBeforeAnEndByTheOperator) {
  begins();
  gives("F_l_m_t_Bootstrap_loading");
  is_refused("kernel.img", 1, "");
  run.rests(30000);
  ends(15);
  EXPECT_EQ(fault(), "station file.missing");
}

TEST_F(Causes, AFileThatIsThereTheNextTime) {
  begins();
  is_refused("kernel.img", 1, "");
  reads("kernel.img");
  fails();
  EXPECT_EQ(fault(), "unit unit.failed");
  EXPECT_TRUE(has_also("file.missing"));
}

TEST_F(Causes, AFileThatIsMissedBeforeAStepThatPasses) {
  begins();
  is_refused("extra.cfg", 1, "");
  gives("F_l_m_01MEMORY_PASSED");
  fails();
  EXPECT_EQ(fault(), "unit unit.failed");
}

TEST_F(Causes, AnotherModeThanOctet) {
  begins();
  is_refused("kernel.img", 0, "Mode not supported", "netascii");
  line("Mode netascii not supported");
  run.rests(30000);
  ends(2);
  EXPECT_EQ(fault(), "unit file.wrong-mode");
}

TEST_F(Causes, AReadWithoutAName) {
  begins();
  is_refused("", 1, "File not found");
  line("Filename is not set");
  ends(2);
  EXPECT_EQ(fault(), "unit file.no-name");
}

TEST_F(Causes, AnEmptyFile) {
  begins();
  asks_for("kernel.img");
  line("RRQ kernel.img");
  station_sends(answering, tftp::data(1, ""));
  unit_sends({made::kStation, answering}, tftp::ack(1));
  fails();
  EXPECT_EQ(fault(), "station file.empty");
}

TEST_F(Causes, ALoaderThatGivesUpOverOptions) {
  begins();
  unit.port = ++last_port;
  answering = 33133;
  unit_sends({made::kStation, 69}, tftp::rrq("kernel.img", {{"blksize", "9000"}}));
  line("RRQ kernel.img");
  station_sends(answering, tftp::oack({{"blksize", "9000"}}));
  unit_sends({made::kStation, answering}, tftp::error(8, "blksize"));
  run.rests(30000);
  ends(15);
  EXPECT_EQ(fault(), "unit read.options-refused");
}

TEST_F(Causes, ALoaderThatGivesUpMidway) {
  begins();
  asks_for("kernel.img");
  line("RRQ kernel.img");
  station_sends(answering, tftp::data(1, std::string(512, 'x')));
  unit_sends({made::kStation, answering}, tftp::ack(1));
  station_sends(answering, tftp::data(2, std::string(512, 'x')));
  unit_sends({made::kStation, answering}, tftp::error(3, "no room"));
  ends(15);
  EXPECT_EQ(fault(), "unit read.given-up");
}

class Silences : public Causes {
 protected:
  void falls_silent(const char* comment = nullptr) {
    asks_for("kernel.img");
    line("RRQ kernel.img");
    for (int i = 0; i < 12; ++i) {
      if (comment != nullptr) run.next_is(comment);
      station_sends(answering, tftp::data(1, std::string(512, 'x')));
      if (i > 0) line("Client timeout");
      run.rests(5000);
    }
  }
};

TEST_F(Silences, OfAUnitThatIsNotHeardAgain) {
  begins();
  falls_silent();
  ends(15);
  EXPECT_EQ(fault(), "unknown unit.gone");
}

TEST_F(Silences, ThatTheEndOfTheStationCutsShort) {
  begins();
  asks_for("kernel.img");
  line("RRQ kernel.img");
  for (int i = 0; i < 2; ++i) {
    station_sends(answering, tftp::data(1, std::string(512, 'x')));
    run.rests(5000);
  }
  ends(15);
  EXPECT_EQ(fault(), "unknown unit.gone");
}

TEST_F(Silences, OfAStationThatIsKilled) {
  begins();
  reads("bootscript.txt");
  asks_for("kernel.img");
  run.rests(4000);
  is_killed(SIGKILL);
  EXPECT_EQ(fault(), "unknown read.unanswered");
}

TEST_F(Silences, OfAUnitThatGoesOnWithSomethingElse) {
  begins();
  falls_silent();
  asks_for("other.img");
  ends(15);
  EXPECT_EQ(fault(), "unit read.left");
  const std::string& sentence = told.fault.statements.at(0).sentence;
  EXPECT_NE(
      sentence.find("0 blocks acknowledged of 1 sent; it was silent for at least 45.0 s, and then asked for "
                    "other.img at 62."),
      std::string::npos)
      << sentence;
}

TEST_F(Silences, OfAUnitThatReadsItsBootScriptAgain) {
  begins();
  reads("bootscript.txt");
  falls_silent();
  reads("bootscript.txt");
  fails();
  EXPECT_EQ(fault(), "unit unit.restarted");
}

TEST_F(Silences, OfAUnitThatReportsItsBootAgain) {
  begins();
  gives("F_l_m_t_Bootstrap_loading");
  falls_silent();
  gives("F_l_m_t_Bootstrap_loading");
  fails();
  EXPECT_EQ(fault(), "unit unit.failed");
  EXPECT_TRUE(has_also("unit.restarted"));
}

TEST_F(Silences, OfAUnitThatReadsItsBootScriptForTheFirstTime) {
  begins();
  falls_silent();
  reads("bootscript.txt");
  fails();
  EXPECT_EQ(fault(), "unit read.left");
}

TEST_F(Silences, OfAUnitThatHadBegunAnewAndPassed) {
  begins();
  falls_silent();
  reads("kernel.img");
  passes();
  EXPECT_EQ(fault(), "none passed");
  EXPECT_TRUE(has_also("read.left"));
}

TEST_F(Silences, InWhichFramesAreLost) {
  begins();
  falls_silent(record::kLostByChance);
  fails();
  EXPECT_EQ(fault(), "test-network net.read-broken");
}

TEST_F(Silences, WhileTheCableIsOut) {
  begins();
  says(record::Cut{60000000000});
  falls_silent();
  ends(15);
  EXPECT_EQ(fault(), "test-network net.cable-out");
}

TEST_F(Causes, ACableThatIsOutBeforeTheUnitIsHeardNoMore) {
  begins();
  reads("kernel.img");
  says(record::Cut{60000000000});
  run.rests(60000);
  ends(15);
  EXPECT_EQ(fault(), "test-network net.cable-out");
}

TEST_F(Causes, LostFramesThatCameAgain) {
  begins();
  asks_for("kernel.img");
  run.next_is(record::kLostByChance);
  station_sends(answering, tftp::data(1, "x"));
  run.rests(5000);
  station_sends(answering, tftp::data(1, "x"));
  unit_sends({made::kStation, answering}, tftp::ack(1));
  fails();
  EXPECT_EQ(fault(), "unit unit.failed");
  EXPECT_TRUE(has_also("net.loss"));
}

TEST_F(Causes, LostFramesThatNobodySaw) {
  begins();
  asks_for("kernel.img");
  for (int block = 1; block <= 2; ++block) {
    station_sends(answering, tftp::data(block, std::string(512, 'x')));
    run.rests(5000);
    station_sends(answering, tftp::data(block, std::string(512, 'x')));
    unit_sends({made::kStation, answering}, tftp::ack(block));
  }
  station_sends(answering, tftp::data(3, "x"));
  unit_sends({made::kStation, answering}, tftp::ack(3));
  passes();
  EXPECT_EQ(fault(), "none passed");
  ASSERT_EQ(told.also.size(), 1U);
  EXPECT_EQ(told.also[0].cause->id, "net.loss");
  EXPECT_EQ(told.also[0].statements[0].sentence, "at least 2 frames lost, and reads waited 10.0 s for them");
  EXPECT_TRUE(told.also[0].statements[0].evidence.is_inferred);
}

TEST_F(Causes, APptServerThatIsSilent) {
  begins();
  ppt = Ppt::kSilent;
  gives("F_l_m_01MEMORY_PASSED");
  fails();
  EXPECT_EQ(fault(), "ppt-server ppt.silent");
  EXPECT_NE(told.fault.statements[0].sentence.find("no answer came within 5.0 s"), std::string::npos)
      << told.fault.statements[0].sentence;
}

TEST_F(Causes, APptServerThatWasSilentBefore) {
  begins();
  ppt = Ppt::kSilent;
  gives("F_l_m_01MEMORY_PASSED");
  ppt = Ppt::kAnswers;
  gives("F_l_m_02FLASH_PASSED");
  fails();
  EXPECT_EQ(fault(), "unit unit.failed");
  EXPECT_TRUE(has_also("ppt.silent"));
}

TEST_F(Causes, APptServerThatAnswersAnError) {
  begins();
  ppt = Ppt::kAnswersError;
  gives("F_l_m_01MEMORY_PASSED");
  fails();
  EXPECT_EQ(fault(), "unit unit.failed");
  EXPECT_TRUE(has_also("ppt.error"));
}

TEST_F(Causes, APptServerWithoutItsPort) {
  begins();
  ppt = Ppt::kClosed;
  gives("F_l_m_01MEMORY_PASSED");
  fails();
  EXPECT_EQ(fault(), "ppt-server ppt.closed");
}

struct ConnectLine {
  const char* reason;
  const char* fault;
};
class Connections : public Causes, public testing::WithParamInterface<ConnectLine> {};

TEST_P(Connections, ToThePptServerThatFail) {
  begins();
  gives("F_l_m_t_Bootstrap_loading");
  line(std::string("ERROR on connect() to 172.30.0.254:12345. ") + GetParam().reason);
  line("Error: Failed to initialize receiver");
  asks_in_vain();
  gives("F_l_m_01MEMORY_PASSED");
  line("ERROR on binding. Address already in use");
  asks_in_vain();
  fails();
  EXPECT_EQ(fault(), GetParam().fault);
  EXPECT_FALSE(has_also("command.port-in-use"));
}
INSTANTIATE_TEST_SUITE_P(OfTheStation, Connections,
                         testing::Values(ConnectLine{"Connection refused", "ppt-server ppt.refused"},
                                         ConnectLine{"Connection timed out", "ppt-server ppt.dropped"},
                                         ConnectLine{"No route to host", "ppt-server ppt.absent"},
                                         ConnectLine{"Network is unreachable", "station ppt.no-route"},
                                         ConnectLine{"Bad address", "unknown ppt.not-connected"}));

// The port that such an attempt leaves behind takes connections, and nobody serves them.
TEST_F(Causes, ACommandPortThatNobodyServes) {
  begins();
  gives("F_l_m_t_Bootstrap_loading");
  line("ERROR on connect() to 172.30.0.254:12345. Connection refused");
  line("Error: Failed to initialize receiver");
  reads("kernel.img");
  asks("ZIRN_ASKS_FOR_HIS_MAC", "", 20000);
  ends(15);
  EXPECT_EQ(fault(), "ppt-server ppt.refused");
}

// The station's lines come later than the frames of the read, and one of them before that of the read.
TEST_F(Causes, AConnectionThatIsRefusedBeforeAReadAndAnEnd) {
  begins();
  gives("F_l_m_t_Bootstrap_loading");
  asks_for("small.cfg");
  station_sends(answering, tftp::data(1, "small"));
  unit_sends({made::kStation, answering}, tftp::ack(1));
  for (const char* text : {"ERROR on connect() to 172.30.0.254:12345. Connection refused",
                           "Error: Failed to initialize receiver", "RRQ small.cfg"}) {
    line(text);
    run.now -= 1000000;  // all came at once
  }
  is_killed(SIGKILL);
  EXPECT_EQ(fault(), "operator end.sigkill");
  EXPECT_TRUE(has_also("ppt.refused"));
}

TEST_F(Causes, AConnectionThatIsRefusedBeforeAFileIsAskedForAgainInVain) {
  begins();
  gives("F_l_m_t_Bootstrap_loading");
  reads("small.cfg");
  run.rests(1000);
  line("ERROR on connect() to 172.30.0.254:12345. Connection refused");
  line("Error: Failed to initialize receiver");
  asks_for("small.cfg");
  line("RRQ small.cfg");
  is_killed(SIGKILL);
  EXPECT_EQ(fault(), "ppt-server ppt.refused");
}

TEST_F(Causes, ATakenCommandPort) {
  begins();
  gives("F_l_m_t_Bootstrap_loading");
  line("ERROR on binding. Address already in use");
  line("Error: Failed to initialize receiver");
  asks_in_vain();
  ends(15);
  EXPECT_EQ(fault(), "station command.port-in-use");
}

TEST_F(Causes, ACommandBeforeTheFirstVerdict) {
  begins();
  reads("bootscript.txt");
  asks_in_vain();
  ends(15);
  EXPECT_EQ(fault(), "unit command.too-early");
}

// The station opens the port a moment after the first verdict.
TEST_F(Causes, ACommandWhileThePortIsBeingOpened) {
  begins();
  gives("F_l_m_t_Bootstrap_loading");
  asks_in_vain();
  line("Message receiver initialized. IP: 172.30.0.254 Port=12345");
  is_refused("kernel.img", 1, "");
  fails();
  EXPECT_EQ(fault(), "station file.missing");
  EXPECT_FALSE(has_also("command.refused"));
}

TEST_F(Causes, AToolThatFailsAfterTheUnitHasBrokenOff) {
  begins();
  gives("F_l_m_t_Bootstrap_loading");
  says(record::BoardCall{"/mnt/ramdisk/t1-e1 7 -1", 0});
  fails();
  EXPECT_EQ(fault(), "unit unit.failed");
  EXPECT_TRUE(has_also("board.tool-failed"));
}

TEST_F(Causes, AToolThatFails) {
  begins();
  gives("F_l_m_t_Bootstrap_loading");
  asks("DO_PMC_INIT:7", "FAIL");
  gives("F_l_m_01TEST_FAILED");
  fails();
  EXPECT_EQ(fault(), "board board.tool-failed");
}

TEST_F(Causes, AToolThatFailedBeforeAStepThatPassed) {
  begins();
  gives("F_l_m_t_Bootstrap_loading");
  asks("DO_PMC_INIT:7", "FAIL");
  gives("F_l_m_01E1_PASSED");
  fails();
  EXPECT_EQ(fault(), "unit unit.failed");
}

TEST_F(Causes, AToolThatHangs) {
  begins();
  gives("F_l_m_t_Bootstrap_loading");
  asks("DO_PMC_INIT:7", "", 40000);
  line("Mode detected: 7");
  is_killed(SIGKILL);
  EXPECT_EQ(fault(), "board board.tool-hangs");
  EXPECT_TRUE(told.fault.statements[0].evidence.is_inferred);
}

// Whether the tool came to its end then, the record does not tell.
TEST_F(Causes, ACommandThatTheUnitBreaksOff) {
  begins();
  gives("F_l_m_t_Bootstrap_loading");
  line("Message receiver initialized. IP: 172.30.0.254 Port=12345");
  const made::Endpoint client{made::kUnit, 3000}, server{made::kStation, 12345};
  tcp(client, server, made::kSyn, 100);
  tcp(server, client, made::kSyn | made::kAck, 200);
  tcp(client, server, made::kAck, 101, "DO_PMC_INIT:7");
  tcp(client, server, made::kRst, 114);
  run.rests(20000);
  ends(15);
  EXPECT_EQ(fault(), "operator end.sigterm");
}

TEST_F(Causes, AToolThatIsMissing) {
  begins();
  gives("F_l_m_t_Bootstrap_loading");
  asks("DO_PMC_INIT:7", "READY");
  line("sh: 1: /mnt/ramdisk/t1-e1: not found");
  fails();
  EXPECT_EQ(fault(), "board board.tool-missing");
}

TEST_F(Causes, AnEnvtoolThatIsMissing) {
  begins();
  gives("F_l_m_t_Bootstrap_loading");
  line("sh: 1: envtool: not found");
  asks("ZIRN_ASKS_FOR_HIS_MAC", "02:00:00:00:00:03");
  line("Assigned MAC is 02:00:00:00:00:03");
  fails();
  EXPECT_EQ(fault(), "board board.mac-default");
}

TEST_F(Causes, AnEmptyMac) {
  begins();
  gives("F_l_m_t_Bootstrap_loading");
  asks("ZIRN_ASKS_FOR_HIS_MAC", "00:00:00:00:00:02");
  fails();
  EXPECT_EQ(fault(), "board board.mac-empty");
}

// The record was made without the station's lines, and ended before the run.
TEST_F(Causes, ACommandWithoutAnAnswerAtTheEndOfTheRecord) {
  lacking.lines = true;
  sends_boot_script();
  gives("F_l_m_t_Bootstrap_loading");
  asks("ZIRN_ASKS_FOR_HIS_MAC", "", 2000);
  EXPECT_EQ(fault(), "unknown command.unanswered");
}

TEST_F(Causes, ARelayThatEnds) {
  begins();
  line("UDP: ERROR in recvfrom");
  line("UDP Server exited...");
  passes();
  EXPECT_EQ(fault(), "none passed");
  EXPECT_TRUE(has_also("relay.ended"));
}

TEST_F(Causes, LostFramesOfThePptServersNetwork) {
  begins();
  gives("F_l_m_t_Bootstrap_loading");
  const made::Endpoint station{made::kStationAtPpt, 4000}, server{made::kPptServer, 12345};
  run.tcp(station, server, made::kSyn, 100);
  run.rests(1000);
  run.tcp(station, server, made::kSyn, 100);
  run.tcp(server, station, made::kSyn | made::kAck, 200);
  passes();
  EXPECT_EQ(fault(), "none passed");
  EXPECT_TRUE(has_also("net.ppt-loss"));
}

TEST_F(Causes, AnUnknownCommand) {
  begins();
  gives("F_l_m_t_Bootstrap_loading");
  asks("HELLO", "HELLO");
  passes();
  EXPECT_EQ(fault(), "none passed");
  EXPECT_TRUE(has_also("command.unknown"));
}

TEST_F(Causes, ASecondConnectionBesideTheFirst) {
  begins();
  gives("F_l_m_t_Bootstrap_loading");
  const made::Endpoint client{made::kUnit, 40001}, server{made::kStation, 12345};
  tcp(client, server, made::kSyn, 100);
  tcp(server, client, made::kSyn | made::kAck, 200);
  tcp(client, server, made::kAck, 101, "HELLO");
  tcp(server, client, made::kAck, 201, "HELLO");
  asks("ZIRN_ASKS_FOR_HIS_MAC", "", 20000);
  ends(15);
  EXPECT_EQ(fault(), "unit command.second");
}

TEST_F(Causes, AConnectionThatHoldsUpTheEnd) {
  begins();
  gives("F_l_m_t_Bootstrap_loading");
  const made::Endpoint client{made::kUnit, 40001}, server{made::kStation, 12345};
  tcp(client, server, made::kSyn, 100);
  tcp(server, client, made::kSyn | made::kAck, 200);
  tcp(client, server, made::kAck, 101, "HELLO");
  tcp(server, client, made::kAck, 201, "HELLO");
  gives("F_l_m_09PPT_PASSED");
  run.rests(20000);
  is_killed(SIGKILL);
  EXPECT_EQ(fault(), "none passed");
  EXPECT_TRUE(has_also("command.held-open"));
}

TEST_F(Causes, AnAnswerThatTheUnitDidNotWaitFor) {
  begins();
  gives("F_l_m_t_Bootstrap_loading");
  asks("DO_PMC_INIT:7", "", 2000);
  is_killed(SIGPIPE);
  EXPECT_EQ(fault(), "unit command.left-early");
}

TEST_F(Causes, AnInterruptByTheOperator) {
  begins();
  gives("F_l_m_01MEMORY_PASSED");
  run.rests(1000);
  ends(2);
  EXPECT_EQ(fault(), "operator end.sigint");
}

class TimesOut : public Causes, public testing::WithParamInterface<record::StationEnds> {};

TEST_P(TimesOut, AndIsEndedForThat) {
  begins();
  gives("F_l_m_01MEMORY_PASSED");
  run.rests(20000);
  says(record::Timeout{20 * kSecond});
  says(GetParam());
  EXPECT_EQ(fault(), "unknown end.timeout");
  EXPECT_FALSE(has_also("end.sigterm") || has_also("end.sigkill"));
  EXPECT_EQ(told.fault.statements.at(0).sentence.rfind("the run took longer than 20.0 s, and ", 0), 0U);
  EXPECT_FALSE(told.fault.statements[0].evidence.is_inferred);
}
INSTANTIATE_TEST_SUITE_P(OfTheStation, TimesOut,
                         testing::Values(record::StationEnds{15, 0}, record::StationEnds{{}, SIGTERM},
                                         record::StationEnds{{}, SIGKILL}, record::StationEnds{}));

// Of what else there is, the time that it took is the least.
TEST_F(Causes, ATimeoutThatSomethingElseExplains) {
  begins();
  run.rests(20000);
  says(record::Timeout{20 * kSecond});
  ends(15);
  EXPECT_EQ(fault(), "unknown boot.unanswered");
  EXPECT_TRUE(has_also("end.timeout"));
}

TEST_F(Causes, AStationThatCrashesWhenItsTimeIsOver) {
  begins();
  gives("F_l_m_01MEMORY_PASSED");
  says(record::Timeout{kSecond});
  is_killed(SIGSEGV);
  EXPECT_EQ(fault(), "unknown end.timeout");
  EXPECT_TRUE(has_also("end.signal"));
}

class Ends : public Causes, public testing::WithParamInterface<std::pair<int, const char*>> {};

TEST_P(Ends, ByASignal) {
  begins();
  gives("F_l_m_01MEMORY_PASSED");
  is_killed(GetParam().first);
  EXPECT_EQ(fault(), GetParam().second);
}
INSTANTIATE_TEST_SUITE_P(OfTheStation, Ends,
                         testing::Values(std::pair(SIGKILL, "operator end.sigkill"),
                                         std::pair(SIGTERM, "operator end.sigterm"),
                                         std::pair(SIGABRT, "unknown end.abort"),
                                         std::pair(SIGSEGV, "unknown end.signal")));

TEST_F(Causes, AnEndAfterAFailedStep) {
  begins();
  gives("F_l_m_01TEST_FAILED");
  run.rests(1000);
  ends(15);
  EXPECT_EQ(fault(), "unit unit.failed");
  EXPECT_EQ(told.verdict, Outcome::kNone);
}

TEST_F(Causes, AVerdictThatIsRepeatedMeanwhile) {
  begins();
  asks_for("F_l_m_01MEMORY_PASSED");
  run.rests(3000);
  unit_sends({made::kStation, 69}, tftp::rrq("F_l_m_01MEMORY_PASSED"));
  station_sends(answering, tftp::data(1, ""));
  line("Cmd received: F_l_m_01MEMORY_PASSED");
  passes();
  EXPECT_EQ(fault(), "none passed");
  EXPECT_TRUE(has_also("verdict.repeated"));
}

// Every line that is a cause by itself leads to it.
TEST_F(Causes, OfLinesAreInTheTable) {
  for (const PrintedLine& printed : explanation::printed_lines()) {
    if (printed.says != PrintedLine::Says::kCause) {
      EXPECT_EQ(printed.cause, "") << printed.text;
      continue;
    }
    EXPECT_NO_THROW(explanation::cause(printed.cause)) << printed.text;
  }
  EXPECT_THROW(explanation::cause("ppt.lazy"), std::out_of_range);
}

TEST_F(Causes, AreEachThereOnce) {
  std::set<std::string_view> ids;
  for (const explanation::Cause& cause : explanation::causes()) {
    EXPECT_TRUE(ids.insert(cause.id).second) << cause.id;
    EXPECT_EQ(cause.meaning.back(), '.') << cause.id;
    EXPECT_EQ(cause.advice.back(), '.') << cause.id;
  }
}

TEST(PrintedLines, AreKnownByTheirFixedTexts) {
  using explanation::printed_line;
  EXPECT_EQ(printed_line("ERROR on connect() to 172.30.0.254:12345. Connection refused")->cause,
            "ppt.refused");
  EXPECT_EQ(printed_line("ERROR on connect() to 172.30.0.254:12345. ???")->cause, "ppt.not-connected");
  EXPECT_EQ(printed_line("WRQ ")->cause, "file.written");
  EXPECT_EQ(printed_line("RRQ ")->text, "RRQ <NAME>");
  EXPECT_EQ(printed_line("RRQ")->text, "RRQ <NAME>");
  EXPECT_EQ(printed_line("RRQX"), nullptr);
  EXPECT_EQ(printed_line("something else"), nullptr);
  EXPECT_EQ(printed_line(""), nullptr);
  const auto* const starting = printed_line("Starting TFTP server on 172.40.0.1:69 PPT Server: 172.30.0.254");
  ASSERT_NE(starting, nullptr);
  EXPECT_EQ(
      explanation::values_in(*starting, "Starting TFTP server on 172.40.0.1:69 PPT Server: 172.30.0.254"),
      (std::vector<std::string_view>{"172.40.0.1", "69", "172.30.0.254"}));
}

}  // namespace
