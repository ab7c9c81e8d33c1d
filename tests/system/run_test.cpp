#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "support/descriptors.h"
#include "support/fake_board.h"
#include "support/file_reader.h"
#include "support/station.h"

namespace {

using namespace station;

constexpr char kRefused[] =
    "ERROR on connect() to 172.30.0.254:12345. Connection refused\n"
    "Error: Failed to initialize receiver\n";

class Run : public testing::Test {
 protected:
  void SetUp() override { NEEDS_SANDBOX(); }
};

// Reads it at the unit, in blocks of this size.
void unit_reads(const InNetwork& station, const std::string& name, const std::string& contents,
                int block_size, int acknowledged_size = 0) {
  std::vector<std::unique_ptr<FileReader>> reader;
  station.network.at_unit([&] {
    reader.push_back(std::make_unique<FileReader>(TestNetwork::kStation, station::kTftpPort, name, block_size,
                                                  contents, acknowledged_size));
  });
  EXPECT_EQ(run(reader), 1) << "block size " << block_size << ": " << reader.front()->failure();
}

void passes_on(const InNetwork& station, UdpPeer& ppt, const std::string& name,
               const std::string& forwarded) {
  station.unit_reads_verdict(name);
  ppt.expects(rrq(forwarded));
  ppt.sends(data(1, ""));
  ppt.expects(ack(1));
}

TEST_F(Run, FromTheBootScriptToTheVerdict) {
  const FakeBoard board;
  InNetwork station;
  const std::string image = noise(5000000);
  write_whole_file("bootscript.txt", "setenv bootdelay 1\n");
  write_whole_file("image", image);
  std::unique_ptr<TcpAddress> listener;
  station.network.at_ppt_server(
      [&] { listener = std::make_unique<TcpAddress>(TestNetwork::kPptServer, station::kMessagePort); });
  UdpPeer ppt = station.ppt_server();
  station.boots();

  unit_reads(station, "bootscript.txt", "setenv bootdelay 1\n", 0);
  for (const int block_size : {0, 512, 1024, 1428, 8192, 32764, 32765, 32767, 32768}) {
    unit_reads(station, "image", image, block_size);
  }
  unit_reads(station, "image", image, 65464, 32768);
  passes_on(station, ppt, "F_l_m_t_Bootstrap_loading", "F_l_m_t_CPU_2_Bootstrap_loading");
  passes_on(station, ppt, "F_l_m_01STEP3", "F_l_m_01CPU_2_STEP3");
  passes_on(station, ppt, "F_l_m_02TEST_FAILED", "F_l_m_02CPU_2_TEST_FAILED");
  unit_reads(station, "bootscript.txt", "setenv bootdelay 1\n", 0);
  station.unit_reads_verdict("F_l_m_03PPT_FAILED");
  EXPECT_EQ(station.daemon->exit_status(), 2);
  ppt.expects_nothing(milliseconds(100));
  EXPECT_EQ(board.calls(), "envtool ppt_flag=failed\nenvtool ppt_flag=failed\n");

  std::string reads = "RRQ bootscript.txt\n";
  for (int i = 0; i < 10; ++i) reads += "RRQ image\n";
  station::expect_output(*station.daemon,
                         InNetwork::start_lines() + reads + "Requested blksize=65464 we support 32768\n",
                         std::string("Cmd received: F_l_m_t_Bootstrap_loading\n"
                                     "Message receiver initialized. IP: 172.30.0.254 Port=12345\n"
                                     "Cmd received: F_l_m_01STEP3\n"
                                     "Cmd received: F_l_m_02TEST_FAILED\n"
                                     "RRQ bootscript.txt\n"
                                     "Cmd received: F_l_m_03PPT_FAILED\n") +
                             station::kMessageServerGone + station::kServerGone,
                         {station::kSenderStopped, station::kReceiverStopped});
}

TEST_F(Run, BootScriptGoesOutOnceASecondUntilTheFirstVerdict) {
  InNetwork station;
  UdpPeer ppt = station.ppt_server();
  UdpPeer radio = station.unit(station::kMessagePort, "0.0.0.0");
  station.daemon = station.start();
  radio.expects(station::boot_script());
  EXPECT_EQ(radio.their_ip(), TestNetwork::kStation);
  EXPECT_EQ(radio.their_port(), station::kMessagePort);
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < 3; ++i) radio.expects(station::boot_script());
  const auto time = std::chrono::steady_clock::now() - start;
  EXPECT_GE(time, milliseconds(2500));
  EXPECT_LE(time, milliseconds(4500));
  passes_on(station, ppt, "F_l_m_01STEP3", "F_l_m_01CPU_2_STEP3");
  ASSERT_TRUE(station.daemon->prints(station::kSenderStopped));
  while (radio.receives(milliseconds(1))) {
  }
  radio.expects_nothing(milliseconds(2500));
}

TEST_F(Run, BootScriptReachesTheUnitByItsAddressOfAll) {
  InNetwork station;
  UdpPeer radio = station.unit(station::kMessagePort, TestNetwork::kBroadcast);
  UdpPeer deaf = station.unit(station::kMessagePort);
  station.daemon = station.start();
  radio.expects(station::boot_script());
  deaf.expects_nothing(milliseconds(1200));
}

// A run of nothing but one final verdict: its lines, and what the board is told.
void final_verdict(const std::string& name, const std::string& told) {
  const FakeBoard board;
  InNetwork station;
  UdpPeer ppt = station.ppt_server();
  station.boots();
  station.unit_reads_verdict(name);
  EXPECT_EQ(station.daemon->exit_status(), 2);
  ppt.expects_nothing(milliseconds(100));
  EXPECT_EQ(board.calls(), told);
  station::expect_output(
      *station.daemon, InNetwork::start_lines(),
      "Cmd received: " + name + "\n" + kRefused + station::kMessageServerGone + station::kServerGone,
      {station::kSenderStopped});
}

TEST_F(Run, EndsWithStatus2WhenPassed) {
  final_verdict("F_l_m_01PPT_PASSED", "");
  final_verdict("F_l_m_PPT_PASSED and more", "");
}

TEST_F(Run, EndsWithStatus2AndMarksTheBoardWhenFailed) {
  final_verdict("F_l_m_01PPT_FAILED", "envtool ppt_flag=failed\n");
  final_verdict("F_l_m_PPT_PASSEDPPT_FAILED", "envtool ppt_flag=failed\n");
  final_verdict("F_l_m_01TEST_FAILEDPPT_FAILED", "envtool ppt_flag=failed\n");
}

TEST_F(Run, PassedOutranksAFailedStep) {
  final_verdict("F_l_m_01TEST_FAILEDPPT_PASSED", "");
}

TEST_F(Run, FailedStepMarksTheBoardBeforeItIsPassedOn) {
  const FakeBoard board;
  InNetwork station;
  UdpPeer ppt = station.ppt_server();
  station.boots();
  station.unit_reads_verdict("F_l_m_01TEST_FAILED");
  ppt.expects(rrq("F_l_m_01CPU_2_TEST_FAILED"));
  EXPECT_EQ(board.calls(), "envtool ppt_flag=failed\n");
  EXPECT_EQ(station.daemon->exit_status(milliseconds(0)), Daemon::kStillRunning);
}

TEST_F(Run, GoesOnWithoutTheBoardsTool) {
  InNetwork station;
  station.boots();
  station.unit_reads_verdict("F_l_m_01PPT_FAILED");
  EXPECT_EQ(station.daemon->exit_status(), 2);
}

TEST_F(Run, VerdictEndsItOnLoopbackToo) {
  const OnLoopback station;
  UdpPeer unit = station.asks(rrq("F_l_m_01PPT_PASSED"));
  unit.expects(data(1, ""));
  station.has_ended(2,
                    "Cmd received: F_l_m_01PPT_PASSED\n"
                    "ERROR on connect() to 172.30.0.254:12345. Network is unreachable\n"
                    "Error: Failed to initialize receiver\n");
}

TEST_F(Run, VerdictDoesNotWaitForOpenTransfers) {
  const OnLoopback station;
  write_whole_file("file", noise(2000));
  UdpPeer reader = station.asks(rrq("file"));
  reader.expects(data(1, noise(2000).substr(0, 512)));
  UdpPeer unit = station.client(2002);
  unit.sends(rrq("F_l_m_01PPT_PASSED"));
  unit.expects(data(1, ""));
  EXPECT_EQ(station.daemon->exit_status(milliseconds(3000)), 2);
}

TEST_F(Run, EveryDatagramTakesTheNextClientPort) {
  const OnLoopback station;
  write_whole_file("file", "contents");
  UdpPeer client = station.client();
  std::string lines;
  for (int n = 1; n <= 340; ++n) {
    client.aims_at("127.0.0.1", station::kTftpPort);
    const bool accepted = n % 10 == 0;
    client.sends(accepted ? rrq("file") : ack(n));
    client.expects(accepted ? data(1, "contents") : error(4, ""));
    EXPECT_EQ(client.their_port(), (100 * n + 33033) % 65536) << "datagram " << n;
    if (accepted) client.sends(ack(1));
    lines += accepted ? "RRQ file\n" : "Unexpected packet\n";
  }
  station.printed(lines);
}

TEST_F(Run, TakenClientPortLeavesTheTransferToAnother) {
  const OnLoopback station;
  write_whole_file("file", "contents");
  const UdpPeer occupant("0.0.0.0", 33133);
  UdpPeer client = station.client();
  EXPECT_EQ(read_by_tftp(client, rrq("file")), "contents");
  EXPECT_NE(client.their_port(), 33133);
  station.printed("RRQ file\n");
}

TEST_F(Run, BlockNumbersGoRoundAfter65535) {
  const OnLoopback station;
  const std::string contents = noise(65600 * 8 + 3);
  write_whole_file("file", contents);
  std::vector<std::unique_ptr<FileReader>> reader;
  reader.push_back(std::make_unique<FileReader>("127.0.0.1", station::kTftpPort, "file", 8, contents));
  EXPECT_EQ(run(reader), 1) << reader.front()->failure();
  station.printed("RRQ file\n");
}

TEST_F(Run, FilesOfAllLengthsAroundABlockArrive) {
  const OnLoopback station;
  std::string lines;
  for (const std::size_t length : std::vector<std::size_t>{0, 1, 511, 512, 513, 1000, 1024, 1025}) {
    const std::string name = std::to_string(length);
    write_whole_file(name, noise(length));
    UdpPeer client = station.client();
    EXPECT_TRUE(read_by_tftp(client, rrq(name)) == noise(length)) << length << " bytes";
    lines += "RRQ " + name + "\n";
  }
  station.printed(lines);
}

TEST_F(Run, FilesAreFoundByTheirPaths) {
  const OnLoopback station;
  std::filesystem::create_directory("below");
  write_whole_file("below/file", "contents");
  for (const std::string& name :
       {std::string("below/file"), std::string("./below/../below/file"), station.files.file("below/file")}) {
    UdpPeer client = station.client();
    EXPECT_EQ(read_by_tftp(client, rrq(name)), "contents");
  }
  station.printed("RRQ below/file\nRRQ ./below/../below/file\nRRQ " + station.files.file("below/file") +
                  "\n");
}

}  // namespace
