#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/descriptors.h"
#include "support/station.h"

namespace {

using namespace station;

constexpr char kRefused[] =
    "ERROR on connect() to 172.30.0.254:12345. Connection refused\n"
    "Error: Failed to initialize receiver\n";
constexpr char kAccepted[] = "Message receiver initialized. IP: 172.30.0.254 Port=12345\n";

// A booted station and its PPT server. The server's operator sees what it gets on the request port.
class PptServer : public testing::Test {
 protected:
  void SetUp() override {
    NEEDS_SANDBOX();
    boots_with({});
  }
  void boots_with(const std::vector<std::string>& arguments, int port = station::kTftpPort) {
    ppt.reset();
    station.reset();
    station = std::make_unique<InNetwork>(arguments);
    ppt = std::make_unique<UdpPeer>(station->ppt_server(port));
    if (arguments.empty()) station->boots();
  }
  void accepts_connections(int port = station::kMessagePort) {
    station->network.at_ppt_server(
        [&] { listener = std::make_unique<TcpAddress>(TestNetwork::kPptServer, port); });
  }
  void forwards(const std::string& name, const std::string& forwarded) {
    station->unit_reads_verdict(name);
    ppt->expects(rrq(forwarded));
  }
  // The whole exchange with a server that answers at once.
  void passes_on(const std::string& name, const std::string& forwarded) {
    forwards(name, forwarded);
    ppt->sends(data(1, ""));
    ppt->expects(ack(1));
  }
  // Ends the daemon. The lines are all that its main thread has printed since the start.
  void printed(const std::string& lines, const std::vector<std::string>& workers = {station::kSenderStopped},
               const std::string& start = InNetwork::start_lines()) {
    station->daemon->gets_signal(SIGTERM);
    EXPECT_EQ(station->daemon->exit_status(), SIGTERM);
    station::expect_output(*station->daemon, start,
                           lines + station::kMessageServerGone + station::kServerGone, workers);
  }
  bool prints(const std::string& piece) const { return station->daemon->prints(piece); }

  std::unique_ptr<InNetwork> station;
  std::unique_ptr<UdpPeer> ppt;
  std::unique_ptr<TcpAddress> listener;
};

milliseconds elapsed_since(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - start);
}

TEST_F(PptServer, SilenceIsAcknowledgedAfterFiveSeconds) {
  forwards("F_l_m_01STEP3", "F_l_m_01CPU_2_STEP3");
  const auto asked = std::chrono::steady_clock::now();
  const int from = ppt->their_port();
  ppt->expects(ack(1));
  EXPECT_GE(elapsed_since(asked), milliseconds(4800));
  EXPECT_LE(elapsed_since(asked), milliseconds(7000));
  EXPECT_EQ(ppt->their_port(), from);
  ASSERT_TRUE(prints(kRefused));
  printed(std::string("Cmd received: F_l_m_01STEP3\n") + kRefused);
}

TEST_F(PptServer, SilenceKeepsNewRequestsWaiting) {
  write_whole_file("file", "contents");
  forwards("F_l_m_01STEP3", "F_l_m_01CPU_2_STEP3");
  UdpPeer unit = station->unit();
  unit.sends(rrq("file"));
  unit.expects_nothing(milliseconds(4000));
  unit.expects(data(1, "contents"));
  unit.sends(ack(1));
  printed(std::string("Cmd received: F_l_m_01STEP3\n") + kRefused + "RRQ file\n");
}

TEST_F(PptServer, SilenceLetsRunningTransfersGoOn) {
  const std::string contents = noise(1000);
  write_whole_file("file", contents);
  UdpPeer unit = station->unit();
  unit.sends(rrq("file"));
  unit.expects(data(1, contents.substr(0, 512)));
  forwards("F_l_m_01STEP3", "F_l_m_01CPU_2_STEP3");
  unit.sends(ack(1));
  unit.expects(data(2, contents.substr(512)), milliseconds(2000));
  unit.sends(ack(2));
  printed("RRQ file\nCmd received: F_l_m_01STEP3\n");
}

TEST_F(PptServer, AnswerIsAcknowledgedWhereItCameFrom) {
  forwards("F_l_m_01STEP3", "F_l_m_01CPU_2_STEP3");
  UdpPeer transfer = station->ppt_server(1069);
  transfer.aims_at("172.30.0.1", ppt->their_port());
  transfer.sends(data(1, "any contents"));
  transfer.expects(ack(1));
  ppt->expects_nothing(milliseconds(200));
  ASSERT_TRUE(prints(kRefused));
  printed(std::string("Cmd received: F_l_m_01STEP3\n") + kRefused);
}

TEST_F(PptServer, ErrorIsPrintedAndAcknowledged) {
  forwards("F_l_m_01STEP3", "F_l_m_01CPU_2_STEP3");
  ppt->sends(error(1, "its own text"));
  ppt->expects(ack(1));
  ASSERT_TRUE(prints(kRefused));
  printed(std::string("Cmd received: F_l_m_01STEP3\n"
                      "Error! Error code: 1\n"
                      "Error message: File not found\n") +
          kRefused);
}

TEST_F(PptServer, ErrorsOfManyKindsAreTranslated) {
  const std::vector<std::pair<std::string, std::string>> errors = {
      {error(0, "its own text"), "Error! Error code: 0\nError message: its own text\n"},
      {error(0, ""), "Error! Error code: 0\nError message: \n"},
      {error(2, ""), "Error! Error code: 2\nError message: Access violation\n"},
      {error(3, ""), "Error! Error code: 3\nError message: Disk full or allocation exceeded\n"},
      {error(4, ""), "Error! Error code: 4\nError message: Illegal TFTP operation\n"},
      {error(5, ""), "Error! Error code: 5\nError message: Unknown transfer ID\n"},
      {error(6, ""), "Error! Error code: 6\nError message: File already exists\n"},
      {error(7, ""), "Error! Error code: 7\nError message: No such user\n"},
      {error(8, "x"), "Error! Error code: 8\nError message: Not defined\n"},
      {error(65535, "x"), "Error! Error code: 65535\nError message: Not defined\n"},
  };
  accepts_connections();
  std::string lines;
  for (const auto& [answer, printed_lines] : errors) {
    forwards("F_l_m_01STEP3", "F_l_m_01CPU_2_STEP3");
    ppt->sends(answer);
    ppt->expects(ack(1));
    lines += "Cmd received: F_l_m_01STEP3\n" + printed_lines;
    // The connection is made once.
    if (lines.find(kAccepted) == std::string::npos) lines += kAccepted;
  }
  printed(lines, {station::kSenderStopped, station::kReceiverStopped});
}

TEST_F(PptServer, EmptyAnswerIsTakenForTheEndOfAConnection) {
  forwards("F_l_m_01STEP3", "F_l_m_01CPU_2_STEP3");
  ppt->sends("");
  ppt->expects(ack(1));
  ASSERT_TRUE(prints(kRefused));
  printed(std::string("Cmd received: F_l_m_01STEP3\nConnection was closed by server\n") + kRefused);
}

TEST_F(PptServer, SecondRefusedConnectionLeavesTheListeningSocketOfTheFirst) {
  for (int i = 0; i < 2; ++i) passes_on("F_l_m_01STEP3", "F_l_m_01CPU_2_STEP3");
  ASSERT_TRUE(prints("ERROR on binding. Address already in use\nError: Failed to initialize receiver\n"));
  printed(std::string("Cmd received: F_l_m_01STEP3\n") + kRefused +
          "Cmd received: F_l_m_01STEP3\n"
          "ERROR on binding. Address already in use\n"
          "Error: Failed to initialize receiver\n");
}

TEST_F(PptServer, AbsentMachineIsNoRouteForTheConnection) {
  ppt.reset();
  station->network.at_ppt_server([] { ip("address del 172.30.0.254/24 dev ppt0"); });
  ip("neighbour flush dev ppt0");
  station->unit_reads_verdict("F_l_m_01STEP3");
  const std::string no_route =
      "ERROR on connect() to 172.30.0.254:12345. No route to host\n"
      "Error: Failed to initialize receiver\n";
  ASSERT_TRUE(station->daemon->prints(no_route, std::chrono::seconds(20)));
  printed("Cmd received: F_l_m_01STEP3\n" + no_route);
}

TEST_F(PptServer, ConnectionIsMadeOnceAndStaysSilentUntilTheEnd) {
  accepts_connections();
  passes_on("F_l_m_01STEP3", "F_l_m_01CPU_2_STEP3");
  EXPECT_EQ(listener->accepts(), "172.30.0.1");
  ASSERT_TRUE(prints(kAccepted));
  passes_on("F_l_m_02STEP4", "F_l_m_02CPU_2_STEP4");
  EXPECT_EQ(listener->receives(milliseconds(500)), std::nullopt);
  printed(std::string("Cmd received: F_l_m_01STEP3\n") + kAccepted + "Cmd received: F_l_m_02STEP4\n",
          {station::kSenderStopped, station::kReceiverStopped});
  EXPECT_EQ(listener->receives(milliseconds(5000)), "");
  EXPECT_EQ(listener->accepts(milliseconds(1)), std::nullopt);
}

TEST_F(PptServer, NameGetsTheTagBehindItsEighthCharacter) {
  accepts_connections();
  passes_on("F_l_m_01", "F_l_m_01CPU_2_");
  passes_on("F_l_m_t_Bootstrap_loading", "F_l_m_t_CPU_2_Bootstrap_loading");
  passes_on("F_l_m_01ppt_passed", "F_l_m_01CPU_2_ppt_passed");
  const std::string tail(247, 'x');
  passes_on("F_l_m_01" + tail, "F_l_m_01CPU_2_" + tail);
  printed(std::string("Cmd received: F_l_m_01\n") + kAccepted +
              "Cmd received: F_l_m_t_Bootstrap_loading\n"
              "Cmd received: F_l_m_01ppt_passed\n"
              "Cmd received: F_l_m_01" +
              tail + "\n",
          {station::kSenderStopped, station::kReceiverStopped});
}

TEST_F(PptServer, ModeAndOptionsOfTheUnitAreNotPassedOn) {
  accepts_connections();
  UdpPeer unit = station->unit();
  unit.sends(rrq("F_l_m_01STEP3", {{"blksize", "1024"}, {"tsize", "0"}}, "netascii"));
  unit.expects(data(1, ""));
  ppt->expects(rrq("F_l_m_01CPU_2_STEP3"));
  ppt->sends(data(1, ""));
  ppt->expects(ack(1));
  ASSERT_TRUE(prints(kAccepted));
  station->receiver_answers();
  printed(std::string("Cmd received: F_l_m_01STEP3\n") + kAccepted,
          {station::kSenderStopped, station::kReceiverStopped});
}

// Boots on another message port and passes one verdict on to another request port.
class OtherPorts : public PptServer {
 protected:
  void SetUp() override { NEEDS_SANDBOX(); }
  void boots_on(const std::vector<std::string>& arguments, int message_port, int message_port_16_bits,
                int request_port) {
    boots_with(arguments, request_port);
    UdpPeer radio = station->unit(message_port_16_bits, "0.0.0.0");
    station->daemon = station->start();
    radio.expects(station::boot_script(message_port));
    EXPECT_EQ(radio.their_port(), message_port_16_bits);
    accepts_connections(message_port_16_bits);
    passes_on("F_l_m_01STEP3", "F_l_m_01CPU_2_STEP3");
    EXPECT_EQ(listener->accepts(), "172.30.0.1");
    const std::string ready =
        "Message receiver initialized. IP: 172.30.0.254 Port=" + std::to_string(message_port_16_bits) + "\n";
    ASSERT_TRUE(prints(ready));
    station->receiver_answers(message_port_16_bits);
    printed(
        "Cmd received: F_l_m_01STEP3\n" + ready, {station::kSenderStopped, station::kReceiverStopped},
        station::starting(TestNetwork::kStation) + station::kServing + station::sender_ready(message_port));
  }
};

TEST_F(OtherPorts, AreTakenFromTheCommandLine) {
  boots_on({"-m", "4000", "-p", "1069"}, 4000, 4000, 1069);
}

TEST_F(OtherPorts, HaveLongNames) {
  boots_on({"--msgport=4000", "--serverport", "1069"}, 4000, 4000, 1069);
}

TEST_F(OtherPorts, AreUsedByTheirLow16Bits) {
  boots_on({"-m", "70000", "-p", "66605"}, 70000, 4464, 1069);
  boots_on({"-m", "-60000", "-p", "-64467"}, -60000, 5536, 1069);
}

}  // namespace
