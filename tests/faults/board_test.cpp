#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>

#include "support/descriptors.h"
#include "support/fake_board.h"
#include "support/station.h"
#include "support/tcp_peer.h"
#include "support/threads.h"

// The board's commands, missing, hanging or killed, while a client reads.

namespace {

using namespace station;

constexpr char kEnvtoolCall[] = "envtool ppt_flag=failed\n";

class FaultyBoard : public testing::Test {
 protected:
  void SetUp() override {
    NEEDS_SANDBOX();
    station.emplace();
    ppt_server.emplace(station->ppt_server());
    station->network.at_ppt_server([&] { listener.emplace(TestNetwork::kPptServer, station::kMessagePort); });
    station->boots();
    write_whole_file("file", contents);
    reader.emplace(station->unit());
    reader->sends(rrq("file"));
    reader->expects(data(1, contents.substr(0, 512)));
  }
  void reader_goes_on() {
    reader->sends(ack(1));
    reader->expects(data(2, contents.substr(512)));
    reader->sends(ack(2));
  }
  // Its file is read and the PPT server is told.
  void verdict(const std::string& name) {
    station->unit_reads_verdict(name);
    ppt_server->expects(rrq(std::string(name).insert(8, "CPU_2_")));
    ppt_server->sends(data(1, ""));
    ppt_server->expects(ack(1));
  }
  void ends_with_final_verdict() {
    station->unit_reads_verdict("F_l_m_02PPT_PASSED");
    EXPECT_EQ(station->daemon->exit_status(), 2);
  }
  // Only a tool that ended with 0 is told as FAIL.
  void is_ready(const std::string& text) {
    EXPECT_EQ(listener->takes_connection_from(), "172.30.0.1");
    EXPECT_TRUE(station->daemon->prints("Message receiver initialized."));
    station->network.at_unit([&] {
      const TcpPeer peer(TestNetwork::kStation, station::kMessagePort);
      peer.asks(text, "READY");
    });
  }

  const std::string contents = noise(1000);
  const FakeBoard board;
  std::optional<InNetwork> station;
  std::optional<UdpPeer> ppt_server;
  std::optional<TcpAddress> listener;
  std::optional<UdpPeer> reader;
};

TEST_F(FaultyBoard, EnvtoolThatIsMissingLosesNoVerdict) {
  board.removes(FakeBoard::kEnvtool);
  verdict("F_l_m_01TEST_FAILED");
  reader_goes_on();
  ends_with_final_verdict();
}

TEST_F(FaultyBoard, EnvtoolThatIsKilledLosesNoVerdict) {
  board.is_killed(FakeBoard::kEnvtool);
  verdict("F_l_m_01TEST_FAILED");
  reader_goes_on();
  ends_with_final_verdict();
}

TEST_F(FaultyBoard, EnvtoolThatHangsHoldsVerdictsAndRequestsAndNoRunningTransfer) {
  board.holds(FakeBoard::kEnvtool);
  station->unit_reads_verdict("F_l_m_01TEST_FAILED");
  EXPECT_TRUE(wait_until([&] { return board.calls() == kEnvtoolCall; }));
  reader_goes_on();
  UdpPeer next = station->unit();
  next.sends(rrq("file"));
  next.expects_nothing(milliseconds(300));
  ppt_server->expects_nothing(milliseconds(100));

  board.releases(FakeBoard::kEnvtool);
  ppt_server->expects(rrq("F_l_m_01CPU_2_TEST_FAILED"));
  ppt_server->sends(data(1, ""));
  ppt_server->expects(ack(1));
  next.expects(data(1, contents.substr(0, 512)));
  ends_with_final_verdict();
}

TEST_F(FaultyBoard, EnvtoolThatHangsAtTheFinalVerdictHoldsTheEndOfTheRun) {
  board.holds(FakeBoard::kEnvtool);
  station->unit_reads_verdict("F_l_m_02PPT_FAILED");
  EXPECT_TRUE(wait_until([&] { return board.calls() == kEnvtoolCall; }));
  reader_goes_on();
  EXPECT_EQ(station->daemon->exit_status(milliseconds(300)), Daemon::kStillRunning);
  board.releases(FakeBoard::kEnvtool);
  EXPECT_EQ(station->daemon->exit_status(), 2);
}

TEST_F(FaultyBoard, PmcTestThatIsKilledCountsAsReady) {
  board.is_killed(FakeBoard::kT1E1);
  verdict("F_l_m_t_Bootstrap_loading");
  is_ready("DO_PMC_INIT:7");
  reader_goes_on();
  ends_with_final_verdict();
}

TEST_F(FaultyBoard, PmcTestThatIsMissingCountsAsReady) {
  board.removes(FakeBoard::kT1E1);
  verdict("F_l_m_t_Bootstrap_loading");
  is_ready("DO_PMC_INIT:7");
  reader_goes_on();
  ends_with_final_verdict();
}

TEST_F(FaultyBoard, VoiceServiceThatIsKilledDoesNotKeepThePmcTestFromRunning) {
  board.ends_with(FakeBoard::kT1E1, 1);
  board.is_killed(FakeBoard::kVoice);
  verdict("F_l_m_t_Bootstrap_loading");
  is_ready("DO_PMC_INIT:7");
  EXPECT_EQ(board.calls(), "/mnt/ramdisk/t1-e1 7 -1\n");
  ends_with_final_verdict();
}

}  // namespace
