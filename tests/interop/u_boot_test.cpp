#include "support/u_boot.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/descriptors.h"
#include "support/lossy_wire.h"
#include "support/outcome.h"
#include "support/station.h"
#include "support/unit_machine.h"

namespace {

using station::InNetwork;
using std::chrono::seconds;

// Answers every request of the station with an empty file, until it is destroyed.
class AnsweringPptServer {
 public:
  explicit AnsweringPptServer(const InNetwork& station) : socket_(station.ppt_server()) {
    station.network.at_ppt_server(
        [&] { listener_ = std::make_unique<TcpAddress>(TestNetwork::kPptServer, station::kMessagePort); });
    thread_ = std::thread([this] { answers(); });
  }
  ~AnsweringPptServer() { stops(); }
  AnsweringPptServer(const AnsweringPptServer&) = delete;
  AnsweringPptServer& operator=(const AnsweringPptServer&) = delete;

  // Every request in the order that they came in. It answers no more.
  const std::vector<std::string>& requests() {
    stops();
    return requests_;
  }

 private:
  void answers() {
    while (!stopped_) {
      const std::optional<std::string> datagram = socket_.receives(std::chrono::milliseconds(50));
      if (!datagram || *datagram == tftp::ack(1)) continue;
      requests_.push_back(*datagram);
      socket_.sends(tftp::data(1, ""));
    }
  }
  void stops() {
    stopped_ = true;
    if (thread_.joinable()) thread_.join();
  }

  UdpPeer socket_;
  std::unique_ptr<TcpAddress> listener_;
  std::vector<std::string> requests_;
  std::atomic<bool> stopped_{false};
  std::thread thread_;
};

// As U-Boot prints it.
std::string crc32_in_hex(const std::string& bytes) {
  std::uint32_t remainder = 0xFFFFFFFF;
  for (const char byte : bytes) {
    remainder ^= static_cast<unsigned char>(byte);
    for (int bit = 0; bit < 8; ++bit) remainder = (remainder >> 1) ^ ((remainder & 1) != 0 ? 0xEDB88320 : 0);
  }
  std::array<char, 9> text;
  std::snprintf(text.data(), text.size(), "%08x", ~remainder);
  return text.data();
}

std::string hex(std::size_t number) {
  std::ostringstream text;
  text << std::hex << number;
  return text.str();
}

// The commands of the boot script that need no more than a boot loader.
std::vector<std::string> commands_of_boot_script() {
  std::vector<std::string> commands;
  std::istringstream script(station::boot_script());
  for (std::string line; std::getline(script, line, '\n');) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.rfind("setenv ", 0) == 0 || line.rfind("tftp ", 0) == 0) commands.push_back(line);
  }
  return commands;
}

// From where U-Boot says that it is done; what stands before has its speed in it.
std::string ending(const std::string& printed) {
  const std::size_t place = printed.rfind("\ndone\n");
  return place == std::string::npos ? printed : printed.substr(place + 1);
}

// U-Boot in the place of the unit.
class UBootAtTheUnit : public testing::Test {
 protected:
  void SetUp() override {
    NEEDS_U_BOOT();
    NEEDS_SANDBOX();
    station_.emplace();
  }

  void plugs_in() {
    plug_in_unit_machine(station_->network);
    station_->network.at_unit([this] {
      board_ = std::make_unique<UBoot>(kUnitMachineTap, TestNetwork::kUnit, TestNetwork::kStation);
    });
  }

  // As the unit, from the daemon.
  std::string reads(const std::string& name, std::size_t size) {
    write_whole_file(name, noise(size));
    return ending(board_->runs("tftp 46000000 " + name, seconds(120)));
  }
  static std::string done(std::size_t size) {
    return "done\nBytes transferred = " + std::to_string(size) + " (" + hex(size) + " hex)\n";
  }
  void expects_in_memory(const std::string& contents) {
    const std::size_t begin = 0x46000000;
    EXPECT_EQ(board_->runs("crc32 46000000 " + hex(contents.size())),
              "crc32 for 46000000 ... " + hex(begin + contents.size() - 1) + " ==> " +
                  crc32_in_hex(contents) + "\n");
  }

  std::optional<InNetwork> station_;
  std::unique_ptr<UBoot> board_;
};

TEST_F(UBootAtTheUnit, CarriesAWholeTestRun) {
  constexpr std::size_t kImageSize = 4 << 20;
  AnsweringPptServer ppt(*station_);
  write_whole_file("bootscript.txt", "setenv bootdelay 1\n");
  station_->boots();
  plugs_in();

  const std::vector<std::string> commands = commands_of_boot_script();
  ASSERT_EQ(commands, (std::vector<std::string>{"setenv msgport 12345", "setenv ppt_flag 1",
                                                "tftp 46000000 bootscript.txt",
                                                "tftp 45000000 F_l_m_t_Bootstrap_loading"}));
  board_->runs(commands[0]);
  board_->runs(commands[1]);
  EXPECT_EQ(ending(board_->runs(commands[2])), done(19));
  expects_in_memory("setenv bootdelay 1\n");
  EXPECT_EQ(reads("boot.img", kImageSize), done(kImageSize));
  expects_in_memory(noise(kImageSize));
  // Of an empty file it names no size.
  EXPECT_EQ(ending(board_->runs(commands[3])), "done\n");
  EXPECT_TRUE(board_->succeeded());
  ASSERT_TRUE(station_->daemon->prints("Message receiver initialized. IP: 172.30.0.254 Port=12345\n"));
  EXPECT_EQ(ending(board_->runs("tftp 45000000 F_l_m_02PPT_PASSED")), "done\n");
  EXPECT_TRUE(board_->succeeded());
  EXPECT_EQ(station_->daemon->exit_status(), 2);
  EXPECT_EQ(ppt.requests(), std::vector<std::string>{tftp::rrq("F_l_m_t_CPU_2_Bootstrap_loading")});
  station::expect_output(*station_->daemon, InNetwork::start_lines() + "RRQ bootscript.txt\nRRQ boot.img\n",
                         std::string("Cmd received: F_l_m_t_Bootstrap_loading\n"
                                     "Message receiver initialized. IP: 172.30.0.254 Port=12345\n"
                                     "Cmd received: F_l_m_02PPT_PASSED\n") +
                             station::kMessageServerGone + station::kServerGone,
                         {station::kSenderStopped, station::kReceiverStopped});
}

// In blocks of 512 bytes it is more than 65536 of them.
TEST_F(UBootAtTheUnit, ReadsAFileWhoseBlockNumbersGoRound) {
  constexpr std::size_t kSize = (33 << 20) + 1;
  station_->boots();
  plugs_in();
  board_->runs("setenv tftpblocksize 512");
  EXPECT_EQ(reads("boot.img", kSize), done(kSize));
  expects_in_memory(noise(kSize));
}

// Each lost frame costs the five seconds after which both sides repeat what they sent last.
TEST_F(UBootAtTheUnit, CarriesAWholeTestRunOverAWireThatLosesFrames) {
  NEEDS_WIRE();
  constexpr std::size_t kImageSize = 32 << 10;
  AnsweringPptServer ppt(*station_);
  const LossyWire wire(station_->network);
  write_whole_file("bootscript.txt", "setenv bootdelay 1\n");
  station_->boots();
  plugs_in();
  wire.loses(5);
  EXPECT_EQ(ending(board_->runs("tftp 46000000 bootscript.txt", seconds(60))), done(19));
  do {
    ASSERT_EQ(reads("boot.img", kImageSize), done(kImageSize));
    expects_in_memory(noise(kImageSize));
  } while (wire.lost_frames() == 0);
  EXPECT_EQ(ending(board_->runs("tftp 45000000 F_l_m_t_Bootstrap_loading", seconds(60))), "done\n");
  EXPECT_TRUE(board_->succeeded());
  // The daemon ends with the final verdict, so that nobody could repeat an answer to it that is lost.
  wire.loses(0);
  EXPECT_EQ(ending(board_->runs("tftp 45000000 F_l_m_02PPT_PASSED")), "done\n");
  EXPECT_EQ(station_->daemon->exit_status(), 2);
  // A request for a verdict that had to be repeated is a verdict of its own.
  const std::vector<std::string>& requests = ppt.requests();
  EXPECT_FALSE(requests.empty());
  for (const std::string& request : requests) {
    EXPECT_EQ(request, tftp::rrq("F_l_m_t_CPU_2_Bootstrap_loading"));
  }
}

// --- Its requests, at a server that the test plays
// -----------------------------------------------------------

class UBootAtAPlayedServer : public UBootAtTheUnit {
 protected:
  void plugs_in() {
    UBootAtTheUnit::plugs_in();
    server_.emplace(TestNetwork::kStation, station::kTftpPort);
  }
  // The board's words for the whole of it are the result.
  std::string refuses() {
    server_->sends(tftp::error(1, ""));
    return board_->finishes().value_or("no prompt");
  }
  static tftp::Options usual_options() { return {{"timeout", "5"}, {"blksize", "1468"}}; }

  std::optional<UdpPeer> server_;
};

TEST_F(UBootAtAPlayedServer, AsksForATimeoutAndABlockSize) {
  plugs_in();
  board_->types("tftp 46000000 boot.img");
  server_->expects(tftp::rrq("boot.img", usual_options()));
  EXPECT_EQ(refuses(),
            "Using virtio-net#32 device\n"
            "TFTP from server 172.40.0.1; our IP address is 172.40.0.2\n"
            "Filename 'boot.img'.\n"
            "Load address: 0x46000000\n"
            "Loading: *\b\n"
            "TFTP error: '' (1)\n"
            "Not retrying...\n");
}

TEST_F(UBootAtAPlayedServer, AsksForWhatItsVariablesSay) {
  plugs_in();
  board_->runs("setenv tftpblocksize 512");
  board_->runs("setenv tftptimeout 2000");
  board_->runs("setenv tftpwindowsize 4");
  board_->types("tftp 46000000 boot.img");
  server_->expects(tftp::rrq("boot.img", {{"timeout", "2"}, {"blksize", "512"}, {"windowsize", "4"}}));
}

TEST_F(UBootAtAPlayedServer, AsksForNoMoreThanAFrameHolds) {
  plugs_in();
  board_->runs("setenv tftpblocksize 8192");
  board_->types("tftp 46000000 boot.img");
  server_->expects(tftp::rrq("boot.img", usual_options()));
}

TEST_F(UBootAtAPlayedServer, RepeatsARequestTenTimesAndGivesUp) {
  plugs_in();
  board_->runs("setenv tftptimeout 1000");
  const std::string request = tftp::rrq("boot.img", {{"timeout", "1"}, {"blksize", "1468"}});
  board_->types("tftp 46000000 boot.img");
  const double seconds_of_all = seconds_of([&] {
    for (int i = 0; i < 11; ++i) server_->expects(request);
    ASSERT_TRUE(board_->finishes().has_value());
  });
  EXPECT_NEAR(seconds_of_all, 11, 1.5);
  EXPECT_FALSE(board_->succeeded());
}

TEST_F(UBootAtAPlayedServer, RepeatsRequestAndAcknowledgementAfterFiveSeconds) {
  plugs_in();
  board_->types("tftp 46000000 boot.img");
  server_->expects(tftp::rrq("boot.img", usual_options()));
  EXPECT_NEAR(seconds_of([&] { server_->expects(tftp::rrq("boot.img", usual_options())); }), 5, 0.9);
  server_->sends(tftp::oack(usual_options()));
  server_->expects(tftp::ack(0));
  EXPECT_NEAR(seconds_of([&] { server_->expects(tftp::ack(0)); }), 5, 0.9);
  for (int i = 0; i < 2; ++i) {
    server_->sends(tftp::data(1, noise(1468)));
    EXPECT_LT(seconds_of([&] { server_->expects(tftp::ack(1)); }), 0.9);
  }
  EXPECT_NEAR(seconds_of([&] { server_->expects(tftp::ack(1)); }), 5, 0.9);
  server_->sends(tftp::data(2, "end"));
  server_->expects(tftp::ack(2));
  ASSERT_TRUE(board_->finishes().has_value());
  expects_in_memory(noise(1468) + "end");
}

TEST_F(UBootAtAPlayedServer, TakesBlocksOnlyFromThePortThatAnsweredFirst) {
  plugs_in();
  board_->types("tftp 46000000 boot.img");
  server_->expects(tftp::rrq("boot.img", usual_options()));
  server_->sends(tftp::oack(usual_options()));
  server_->expects(tftp::ack(0));
  UdpPeer other(TestNetwork::kStation);
  other.aims_at(TestNetwork::kUnit, server_->their_port());
  other.sends(tftp::data(1, "another"));
  server_->sends(tftp::data(1, "the same"));
  server_->expects(tftp::ack(1));
  ASSERT_TRUE(board_->finishes().has_value());
  expects_in_memory("the same");
}

// --- A setting that the daemon cannot follow
// -----------------------------------------------------------------

// It acknowledges the window and sends one block at a time all the same.
TEST_F(UBootAtTheUnit, WithAWindowWaitsAtABlockForATimeOut) {
  station_->boots();
  plugs_in();
  board_->runs("setenv tftpwindowsize 4");
  std::string printed;
  EXPECT_GT(seconds_of([&] { printed = reads("boot.img", 2000); }), 4.5);
  EXPECT_EQ(printed, done(2000));
  board_->runs("setenv tftpwindowsize 1");
  EXPECT_LT(seconds_of([&] { printed = reads("boot.img", 2000); }), 4.5);
  EXPECT_EQ(printed, done(2000));
}

// The daemon acknowledges five seconds, and U-Boot insists on what it asked for. A verdict's answer has no
// acknowledgement of options in it.
TEST_F(UBootAtTheUnit, WithATimeoutOfLessThanFiveSecondsReadsNothingButVerdicts) {
  station_->boots();
  plugs_in();
  board_->runs("setenv tftptimeout 4000");
  const std::string refused =
      "Using virtio-net#32 device\n"
      "TFTP from server 172.40.0.1; our IP address is 172.40.0.2\n"
      "Filename 'boot.img'.\n"
      "Load address: 0x46000000\n"
      "Loading: *\bInvalid timeout val(=5 s)\n";
  // It tells the daemon, and may or may not still see the daemon's answer to that.
  EXPECT_EQ(reads("boot.img", 2000).substr(0, refused.size()), refused);
  EXPECT_FALSE(board_->succeeded());
  board_->runs("setenv tftptimeout 6000");
  EXPECT_EQ(reads("boot.img", 2000), done(2000));
  board_->runs("setenv tftptimeout 4000");
  EXPECT_EQ(ending(board_->runs("tftp 45000000 F_l_m_02PPT_PASSED")), "done\n");
  EXPECT_EQ(station_->daemon->exit_status(), 2);
}

}  // namespace
