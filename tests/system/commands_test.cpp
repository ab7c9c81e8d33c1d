#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <ostream>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/descriptors.h"
#include "support/fake_board.h"
#include "support/sandbox.h"
#include "support/station.h"
#include "support/tcp_peer.h"
#include "support/threads.h"

// The unit's text commands, from its first verdict name to its last.

namespace {

using namespace station;

constexpr milliseconds kLongPatience(30000);
constexpr char kAskForMac[] = "ZIRN_ASKS_FOR_HIS_MAC";
constexpr char kMacAssigned[] = "Assigned MAC is 02:00:00:00:00:03\n";
constexpr char kVoiceCalls[] = "/etc/init.d/voice stop\n/etc/init.d/voice start_ppt\n";
constexpr char kT1E1Mode7[] = "/mnt/ramdisk/t1-e1 7 -1\n";
constexpr char kReceiverReady[] = "Message receiver initialized. IP: 172.30.0.254 Port=12345\n";
constexpr char kFirstVerdict[] = "F_l_m_t_Bootstrap_loading";

// A booted station on a board with all its commands, and a PPT server that takes the station's connection.
class CommandsBefore : public testing::Test {
 protected:
  void SetUp() override {
    signal(SIGPIPE, SIG_DFL);  // the daemon inherits it
    NEEDS_SANDBOX();
    boots({});
  }
  void boots(const std::vector<std::string>& arguments, int message_port = station::kMessagePort) {
    ppt_server.reset();
    listener.reset();
    station = std::make_unique<InNetwork>(arguments);
    ppt_server.emplace(station->ppt_server());
    station->network.at_ppt_server([&] { listener.emplace(TestNetwork::kPptServer, message_port); });
    if (message_port == station::kMessagePort) {
      station->boots();
    } else {
      station->daemon = station->start();
      ASSERT_TRUE(station->daemon->prints(station::sender_ready(message_port)));
    }
  }
  // The unit reads the name, and the PPT server is told.
  void verdict(const std::string& name) {
    station->unit_reads_verdict(name);
    ppt_server->expects(tftp::rrq(std::string(name).insert(8, "CPU_2_")));
    ppt_server->sends(tftp::data(1, ""));
    ppt_server->expects(tftp::ack(1));
  }
  TcpPeer connection(int port = station::kMessagePort) const {
    std::optional<TcpPeer> made;
    station->network.at_unit([&] { made.emplace(TestNetwork::kStation, port); });
    return std::move(*made);
  }
  // One connection, one text, one reply; the connection is closed when it returns.
  void is_asked(const std::string& text, const std::string& reply) const {
    const TcpPeer peer = connection();
    peer.asks(text, reply);
    peer.ends_its_texts();
    peer.expects_end();
  }
  Daemon& daemon() const { return *station->daemon; }

  const FakeBoard board;
  std::unique_ptr<InNetwork> station;
  std::optional<UdpPeer> ppt_server;
  std::optional<TcpAddress> listener;
};

// The same after the first verdict name, when the station answers commands.
class Commands : public CommandsBefore {
 protected:
  void SetUp() override {
    CommandsBefore::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    verdict(kFirstVerdict);
    ASSERT_EQ(listener->takes_connection_from(), "172.30.0.1");
    ASSERT_TRUE(daemon().prints(kReceiverReady));
    ASSERT_TRUE(daemon().prints(station::kSenderStopped));
    printed_before_ = daemon().output().size();
  }
  void TearDown() override {
    if (station == nullptr || shell_complains_) return;
    EXPECT_EQ(daemon().errors(), "");
  }
  // Since it has answered commands.
  std::string printed() const { return daemon().output().substr(printed_before_); }
  int open_descriptors_of_daemon() const {
    const std::filesystem::path directory = "/proc/" + std::to_string(daemon().pid()) + "/fd";
    return static_cast<int>(std::distance(std::filesystem::directory_iterator(directory), {}));
  }
  // How many connections to the message port a process of the station holds.
  static int connections() {
    std::istringstream lines(whole_file("/proc/self/net/tcp"));
    int count = 0;
    for (std::string line; std::getline(lines, line);) {
      std::istringstream words(line);
      std::string number, local, remote, state;
      words >> number >> local >> remote >> state;
      const bool established = state == "01" || state == "08";  // or closed by its peer
      count += established && local.size() > 5 && local.substr(local.size() - 5) == ":3039";
    }
    return count;
  }
  // T1-E1 runs for this connection, and waits to be released.
  TcpPeer holds_t1_e1() const {
    board.holds(FakeBoard::kT1E1);
    TcpPeer peer = connection();
    peer.sends("DO_PMC_INIT:7");
    EXPECT_TRUE(wait_until([&] { return board.calls() == std::string(kVoiceCalls) + kT1E1Mode7; }));
    return peer;
  }

  bool shell_complains_ = false;  // about a missing command

 private:
  std::size_t printed_before_ = 0;
};

TEST_F(Commands, UnitGetsItsMacAndStartsThePmcTest) {
  board.prints(FakeBoard::kEnvtool, "tempmac=02:00:00:00:00:01\n");
  board.ends_with(FakeBoard::kT1E1, 1);
  is_asked(kAskForMac, "02:00:00:00:00:03");
  is_asked("DO_PMC_INIT:7", "READY");
  EXPECT_EQ(board.calls(), std::string("envtool show tempmac\n") + kVoiceCalls + kT1E1Mode7);
  station->unit_reads_verdict("F_l_m_02PPT_PASSED");
  EXPECT_EQ(daemon().exit_status(kLongPatience), 2);
  station::expect_output(daemon(), InNetwork::start_lines(),
                         std::string("Cmd received: F_l_m_t_Bootstrap_loading\n") + kReceiverReady +
                             "Cmd received: F_l_m_02PPT_PASSED\n" + station::kMessageServerGone +
                             station::kServerGone,
                         {station::kSenderStopped,
                          std::string(kMacAssigned) + "Mode detected: 7\n" + station::kReceiverStopped});
}

// What envtool prints, what the unit is told, and what the daemon prints.
struct MacCase {
  const char* name;
  const char* envtool_output;
  const char* reply;
  const char* printed;
};

std::ostream& operator<<(std::ostream& stream, const MacCase& mac_case) {
  return stream << testing::PrintToString(mac_case.envtool_output);
}

class Mac : public Commands, public testing::WithParamInterface<MacCase> {};

TEST_P(Mac, IsTheBoardsTemporaryMacPlusTwo) {
  board.prints(FakeBoard::kEnvtool, GetParam().envtool_output);
  is_asked(kAskForMac, GetParam().reply);
  EXPECT_EQ(board.calls(), "envtool show tempmac\n");
  EXPECT_EQ(printed(), GetParam().printed);
}

const MacCase kMacCases[] = {
    {"Usual", "tempmac=02:00:00:00:00:01\n", "02:00:00:00:00:03", kMacAssigned},
    {"Carry", "tempmac=02:00:00:00:00:fe", "02:00:00:00:01:00", "Assigned MAC is 02:00:00:00:01:00\n"},
    {"SilentEnvtool", "", "02:00:00:00:00:03", kMacAssigned},
    {"EmptyValue", "tempmac=", kAskForMac, ""},
    {"NewlineAlone", "tempmac=\n", "00:00:00:00:00:02", "Assigned MAC is 00:00:00:00:00:02\n"},
    {"TooLong", "tempmac=02:00:00:00:00:01:ff:ee\n", "20:00:00:00:00:21",
     "Assigned MAC is 20:00:00:00:00:21\n"},
};

INSTANTIATE_TEST_SUITE_P(Board, Mac, testing::ValuesIn(kMacCases),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_F(Commands, BoardWithoutEnvtoolHasTheDefaultMac) {
  board.removes(FakeBoard::kEnvtool);
  is_asked(kAskForMac, "02:00:00:00:00:03");
  EXPECT_EQ(printed(), kMacAssigned);
  shell_complains_ = true;
}

TEST_F(Commands, VoiceIsRestartedOnlyOnceInARun) {
  is_asked("DO_PMC_INIT:7", "FAIL");
  const TcpPeer peer = connection();
  peer.asks("DO_PMC_INIT:7", "FAIL");
  board.ends_with(FakeBoard::kT1E1, 3);
  peer.asks("DO_PMC_INIT:7", "READY");
  EXPECT_EQ(board.calls(), std::string(kVoiceCalls) + kT1E1Mode7 + kT1E1Mode7 + kT1E1Mode7);
  EXPECT_EQ(printed(), "Mode detected: 7\nMode detected: 7\nMode detected: 7\n");
}

TEST_F(Commands, ModeIsTheLowByteOfItsNumber) {
  is_asked("DO_PMC_INIT:300", "FAIL");
  EXPECT_EQ(printed(), "Mode detected: 44\n");
  EXPECT_EQ(board.calls(), std::string(kVoiceCalls) + "/mnt/ramdisk/t1-e1 44 -1\n");
}

TEST_F(Commands, ModeIsZeroWithoutAColon) {
  is_asked("DO_PMC_INIT", "FAIL");
  EXPECT_EQ(printed(), "");
  EXPECT_EQ(board.calls(), std::string(kVoiceCalls) + "/mnt/ramdisk/t1-e1 0 -1\n");
}

TEST_F(Commands, OtherTextsComeBack) {
  is_asked("hello", "hello");
  is_asked(std::string(254, 'x'), std::string(254, 'x'));
  EXPECT_EQ(printed(), "");
  EXPECT_EQ(board.calls(), "");
}

TEST_F(Commands, EndOfTheMacReplyBecomesPartOfTheMode) {
  const TcpPeer peer = connection();
  peer.asks(kAskForMac, "02:00:00:00:00:03");
  peer.asks("DO_PMC_INIT:1", "FAIL");
  EXPECT_EQ(printed(), std::string(kMacAssigned) + "Mode detected: 10\n");
  EXPECT_EQ(board.calls(),
            std::string("envtool show tempmac\n") + kVoiceCalls + "/mnt/ramdisk/t1-e1 10 -1\n");
}

TEST_F(Commands, TextOf300BytesIsAnsweredInTwoReplies) {
  const std::string text = std::string(254, 'a') + std::string(46, 'b');
  is_asked(text, text.substr(0, 254) + std::string(46, 'b') + std::string(208, 'a'));
}

TEST_F(Commands, TwoCommandsInOneSegmentAreOneText) {
  const TcpPeer peer = connection();
  peer.asks("DO_PMC_INIT:3DO_PMC_INIT:4", "FAIL");
  peer.expects_nothing();
  EXPECT_EQ(printed(), "Mode detected: 3\n");
  EXPECT_EQ(board.calls(), std::string(kVoiceCalls) + "/mnt/ramdisk/t1-e1 3 -1\n");
}

TEST_F(Commands, OneCommandInTwoSegmentsIsTwoTexts) {
  const TcpPeer peer = connection();
  peer.asks("ZIRN_ASKS_", "ZIRN_ASKS_");
  peer.asks("FOR_HIS_MAC", "FOR_HIS_MAC");
  peer.expects_nothing();
  EXPECT_EQ(printed(), "");
  EXPECT_EQ(board.calls(), "");
}

TEST_F(Commands, SecondConnectionIsServedWhenTheFirstIsClosed) {
  TcpPeer first = connection();
  first.asks("first", "first");
  const TcpPeer second = connection();
  second.sends(kAskForMac);
  second.expects_nothing();
  first.asks("still the first", "still the first");
  second.expects_nothing();
  first.closes();
  second.expects("02:00:00:00:00:03");
}

TEST_F(Commands, ConnectionThatHasNeverSentHoldsNobody) {
  const TcpPeer silent = connection();
  is_asked("hello", "hello");
  station->unit_reads_verdict("F_l_m_02PPT_PASSED");
  EXPECT_EQ(daemon().exit_status(kLongPatience), 2);
  silent.expects_end();
}

TEST_F(Commands, ConnectionThatHasSentHoldsTheEndOfTheRunUntilItIsClosed) {
  TcpPeer peer = connection();
  peer.asks("hello", "hello");
  station->unit_reads_verdict("F_l_m_02PPT_PASSED");
  EXPECT_EQ(daemon().exit_status(milliseconds(3000)), Daemon::kStillRunning);
  peer.asks("still there", "still there");
  EXPECT_EQ(daemon().exit_status(milliseconds(500)), Daemon::kStillRunning);
  peer.closes();
  EXPECT_EQ(daemon().exit_status(kLongPatience), 2);
  EXPECT_EQ(printed(), std::string("Cmd received: F_l_m_02PPT_PASSED\n") + station::kReceiverStopped +
                           station::kMessageServerGone + station::kServerGone);
}

TEST_F(Commands, ReceiverEndsAtOnceAfterItsFirstTwoSeconds) {
  std::this_thread::sleep_for(milliseconds(2000));
  is_asked("hello", "hello");
  const Stopwatch watch;
  station->unit_reads_verdict("F_l_m_02PPT_PASSED");
  EXPECT_TRUE(daemon().prints(station::kReceiverStopped));
  EXPECT_LE(watch.elapsed(), milliseconds(1500));
  EXPECT_EQ(daemon().exit_status(kLongPatience), 2);
}

TEST_F(Commands, PeerThatResetsItsConnectionIsReported) {
  TcpPeer peer = connection();
  peer.asks("hello", "hello");
  peer.resets();
  EXPECT_TRUE(daemon().prints("  recv() failed\n"));
  is_asked("hello", "hello");
  EXPECT_EQ(printed(), "  recv() failed\n");
}

TEST_F(Commands, ReplyToAPeerThatHasResetItsConnectionIsReported) {
  TcpPeer peer = holds_t1_e1();
  peer.resets();
  ASSERT_TRUE(wait_until([] { return connections() == 0; }));
  board.releases(FakeBoard::kT1E1);
  EXPECT_TRUE(daemon().prints("ERROR on send. \n"));
  is_asked("hello", "hello");
  EXPECT_EQ(printed(), "Mode detected: 7\nERROR on send. \n");
}

TEST_F(Commands, ReplyToAPeerThatHasClosedBothWaysEndsTheProcess) {
  TcpPeer peer = holds_t1_e1();
  peer.ends_its_texts();
  peer.resets();
  ASSERT_TRUE(wait_until([] { return connections() == 0; }));
  board.releases(FakeBoard::kT1E1);
  EXPECT_EQ(daemon().exit_status(kLongPatience), -SIGPIPE);
  EXPECT_EQ(printed(), "Mode detected: 7\n");
}

TEST_F(Commands, HundredConnectionsLeaveNoDescriptorOpen) {
  const int before = open_descriptors_of_daemon();
  for (int i = 0; i < 100; ++i) is_asked("hello", "hello");
  EXPECT_TRUE(wait_until([&] { return open_descriptors_of_daemon() == before; }))
      << before << ", then " << open_descriptors_of_daemon();
  EXPECT_EQ(printed(), "");
}

TEST_F(Commands, FilesAreServedWhileThePmcTestRuns) {
  const TcpPeer peer = holds_t1_e1();
  write_whole_file("file", "contents");
  UdpPeer unit = station->unit();
  EXPECT_EQ(read_by_tftp(unit, tftp::rrq("file")), "contents");
  board.releases(FakeBoard::kT1E1);
  peer.expects("FAIL");
}

TEST_F(Commands, NextVerdictLeavesTheReceiverAsItIs) {
  const TcpPeer peer = connection();
  peer.asks("DO_PMC_INIT:7", "FAIL");
  verdict("F_l_m_01STEP3");
  peer.asks("DO_PMC_INIT:7", "FAIL");
  EXPECT_EQ(board.calls(), std::string(kVoiceCalls) + kT1E1Mode7 + kT1E1Mode7);
  EXPECT_EQ(printed(), "Mode detected: 7\nCmd received: F_l_m_01STEP3\nMode detected: 7\n");
}

TEST_F(CommandsBefore, ConnectionIsRefusedBeforeTheFirstVerdict) {
  EXPECT_THROW(connection(), std::runtime_error);
}

TEST_F(CommandsBefore, CommandsComeToTheMessagePort) {
  station.reset();
  boots({"-m", "4000"}, 4000);
  verdict(kFirstVerdict);
  ASSERT_TRUE(daemon().prints("Message receiver initialized. IP: 172.30.0.254 Port=4000\n"));
  EXPECT_THROW(connection(station::kMessagePort), std::runtime_error);
  connection(4000).asks(kAskForMac, "02:00:00:00:00:03");
}

TEST_F(CommandsBefore, PptServerThatRefusesTheConnectionLeavesTheUnitUnansweredAndTheFilesServed) {
  listener.reset();
  verdict(kFirstVerdict);
  ASSERT_TRUE(daemon().prints("Error: Failed to initialize receiver\n"));
  ASSERT_TRUE(daemon().prints(station::kSenderStopped));
  const TcpPeer peer = connection();
  peer.sends("hello");
  peer.expects_nothing(milliseconds(300));
  write_whole_file("file", "contents");
  UdpPeer unit = station->unit();
  EXPECT_EQ(read_by_tftp(unit, tftp::rrq("file")), "contents");
  // The listening socket of the first attempt still holds the port.
  station->network.at_ppt_server([&] { listener.emplace(TestNetwork::kPptServer, station::kMessagePort); });
  verdict("F_l_m_01STEP3");
  station->unit_reads_verdict("F_l_m_02PPT_PASSED");
  EXPECT_EQ(daemon().exit_status(kLongPatience), 2);
  const std::string no_receiver = "Error: Failed to initialize receiver\n";
  const std::string no_port = "ERROR on binding. Address already in use\n" + no_receiver;
  station::expect_output(daemon(), InNetwork::start_lines(),
                         std::string("Cmd received: F_l_m_t_Bootstrap_loading\n"
                                     "ERROR on connect() to 172.30.0.254:12345. Connection refused\n") +
                             no_receiver + "RRQ file\nCmd received: F_l_m_01STEP3\n" + no_port +
                             "Cmd received: F_l_m_02PPT_PASSED\n" + no_port + station::kMessageServerGone +
                             station::kServerGone,
                         {station::kSenderStopped});
}

}  // namespace
