// The points about files, the board's commands and its time; what the check leaves as it was.
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <filesystem>

#include "stage/process.h"
#include "zirn_run/checked_station.h"

namespace {

namespace fs = std::filesystem;

class CheckBoard : public CheckedStation {};

TEST_F(CheckBoard, FindsThatARunIsUnderWay) {
  setup.run = "active, process 42";
  expect_wrong({"no run"});
  EXPECT_EQ(text("no run"), "zirn-test-station is active, process 42");
}

TEST_F(CheckBoard, FindsNoFolder) {
  setup.folder = files->file("none");
  expect_wrong({"folder"}, {"bootscript.txt", "files"});
  EXPECT_EQ(text("folder"), "there is no folder " + files->file("none"));
  fs::create_directory("none");
  EXPECT_EQ(found("folder").state, check::State::kOk);
}

TEST_F(CheckBoard, FindsNoBootScript) {
  fs::remove("bootscript.txt");
  expect_wrong({"bootscript.txt"}, {"files"});
  EXPECT_EQ(text("bootscript.txt"), "there is no " + files->file("bootscript.txt"));
  write_whole_file("bootscript.txt", "");
  expect_wrong({"bootscript.txt"});
  EXPECT_EQ(text("bootscript.txt"), files->file("bootscript.txt") + " is empty");
  fs::remove("bootscript.txt");
  fs::create_directory("bootscript.txt");
  expect_wrong({"bootscript.txt"}, {"files"});
  EXPECT_EQ(text("bootscript.txt"), files->file("bootscript.txt") + " cannot be read");
}

TEST_F(CheckBoard, FindsThatTheBootScriptLoadsWhatIsNotThere) {
  write_whole_file(
      "bootscript.txt",
      "# tftp 1 never\ntftp 47000000 kernel.img\ntftp 48000000 ramdisk.img\r\ntftp 49000000 $image\n"
      "tftp 1 /nowhere/fpga.bit\r\ntftp 45000000 F_l_m_01Loaded\r\n");
  expect_wrong({"files"});
  EXPECT_EQ(text("files"), "bootscript.txt loads what cannot be read in " + files->path() +
                               ": ramdisk.img, /nowhere/fpga.bit");
  write_whole_file("bootscript.txt", "tftp 47000000 kernel.img\ntftp 1 " + files->file("kernel.img") + "\n");
  expect_ready();
  EXPECT_EQ(text("files"), "bootscript.txt loads 2 files, all there");
}

TEST_F(CheckBoard, FindsNoEnvtool) {
  const std::string path = setup.path;
  setup.path = "/nowhere";
  expect_wrong({"envtool"}, {"tempmac", "ppt_flag"});
  EXPECT_EQ(text("envtool"), "there is no envtool in /nowhere");
  setup.path = path;
  expect_ready();
  chmod((path.substr(0, path.find(':')) + "/envtool").c_str(), 0644);
  expect_wrong({"envtool"}, {"tempmac", "ppt_flag"});
}

TEST_F(CheckBoard, FindsNoTemporaryMac) {
  board->sets_variable("tempmac", "");
  expect_wrong({"tempmac"});
  EXPECT_EQ(text("tempmac"), "envtool has an empty tempmac");
  board->is_script(Board::kEnvtool, "echo tempmac=1; echo no such variable");
  expect_wrong({"tempmac"});
  EXPECT_EQ(text("tempmac"), "envtool show tempmac ends with: \"no such variable\"");
}

TEST_F(CheckBoard, WaitsForNoEnvtoolThatHangs) {
  board->holds(Board::kEnvtool);
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(text("tempmac"), "envtool show tempmac prints nothing");
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(15));
}

TEST_F(CheckBoard, FindsTheFlagOfAnEarlierRun) {
  board->sets_variable("ppt_flag", "failed");
  expect_wrong({"ppt_flag"});
  EXPECT_EQ(text("ppt_flag"), "envtool has ppt_flag=failed, of an earlier run");
  Process({Board::kEnvtool, "ppt_flag="}).wait_for_end();
  expect_ready();
}

TEST_F(CheckBoard, FindsNoVoiceScript) {
  chmod(Board::kVoice, 0644);
  expect_wrong({"voice script"});
  EXPECT_EQ(text("voice script"), "/etc/init.d/voice cannot be executed");
  board->removes(Board::kVoice);
  expect_wrong({"voice script"});
  EXPECT_EQ(text("voice script"), "there is no /etc/init.d/voice");
}

TEST_F(CheckBoard, FindsNoTool) {
  board->removes(Board::kT1E1);
  expect_wrong({"T1/E1 tool"});
  EXPECT_EQ(text("T1/E1 tool"), "there is no /mnt/ramdisk/t1-e1");
}

TEST_F(CheckBoard, FindsAClockThatWasNeverSet) {
  setup.now = 0;
  expect_wrong({"time"});
  EXPECT_EQ(text("time"), "it is 1970-01-01 00:00:00 UTC");
}

TEST_F(CheckBoard, PrintsNothingThatATerminalObeys) {
  board->is_script(Board::kEnvtool, "printf 'tempmac\\033[2J'");
  EXPECT_EQ(
      text_of(point("tempmac"), found("tempmac")),
      "WRONG      tempmac: envtool show tempmac ends with: \"tempmac?[2J\". Then: units get a wrong MAC "
      "address. Do: give the board its temporary MAC address by envtool");
}

TEST(CheckPoints, HaveAllThatALineNeeds) {
  std::vector<std::string> names;
  for (const check::Point& point : check::points()) {
    for (const char* text : {point.name, point.looked_at, point.follows, point.to_do})
      EXPECT_GT(std::string(text).size(), 1U) << point.name;
    EXPECT_EQ(std::count(names.begin(), names.end(), point.name), 0) << point.name;
    names.emplace_back(point.name);
  }
}

// Frames that come to a link from elsewhere.
class Ears {
 public:
  explicit Ears(const char* link)
      : descriptor_(socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    sockaddr_ll at = {};
    at.sll_family = AF_PACKET;
    at.sll_protocol = htons(ETH_P_ALL);
    at.sll_ifindex = static_cast<int>(if_nametoindex(link));
    if (bind(descriptor_, reinterpret_cast<const sockaddr*>(&at), sizeof at) != 0)
      throw std::runtime_error("the link cannot be heard");
  }
  ~Ears() { close(descriptor_); }
  Ears(const Ears&) = delete;
  Ears& operator=(const Ears&) = delete;

  // "ARP", "IP 1", ...
  std::vector<std::string> hear() const {
    std::vector<std::string> kinds;
    constexpr std::size_t kProtocolAt = 9;  // in the header of IPv4
    unsigned char packet[2048] = {};
    sockaddr_ll from = {};
    socklen_t size = sizeof from;
    while (recvfrom(descriptor_, packet, sizeof packet, 0, reinterpret_cast<sockaddr*>(&from), &size) >= 0) {
      if (from.sll_pkttype == PACKET_OUTGOING) continue;
      const int kind = ntohs(from.sll_protocol);
      kinds.push_back(kind == ETH_P_ARP  ? "ARP"
                      : kind == ETH_P_IP ? "IP " + std::to_string(packet[kProtocolAt])
                                         : "another");
    }
    return kinds;
  }

 private:
  const int descriptor_;
};

std::string told_by(const Process::Arguments& command) {
  Process process(command);
  process.wait_for_end();
  return process.read_text();
}

// All that could be changed: links, addresses, routes, ports, files.
std::string state_of_station() {
  std::string state =
      told_by({"ip", "-o", "link"}) + told_by({"ip", "-o", "address"}) + told_by({"ip", "route"});
  for (const char* table : {"/proc/net/udp", "/proc/net/tcp"}) state += whole_file(table);
  for (const char* folder : {".", "/etc/init.d", "/mnt/ramdisk"})
    state += told_by({"ls", "-lR", "--time-style=full-iso", folder});
  return state;
}

TEST_F(CheckBoard, SendsNothingButArpAndAnEchoAndChangesNothing) {
  std::unique_ptr<Ears> ppt_server;
  std::unique_ptr<Ears> unit;
  network->at_ppt_server([&] { ppt_server = std::make_unique<Ears>("ppt0"); });
  network->at_unit([&] { unit = std::make_unique<Ears>("lan0"); });
  const std::string before = state_of_station();
  expect_ready();
  EXPECT_EQ(state_of_station(), before);
  EXPECT_EQ(unit->hear(), Words());
  Words heard = ppt_server->hear();
  EXPECT_GE(std::count(heard.begin(), heard.end(), "IP 1"), 1);
  const auto is_harmless = [](const std::string& kind) { return kind == "ARP" || kind == "IP 1"; };
  EXPECT_TRUE(std::all_of(heard.begin(), heard.end(), is_harmless)) << testing::PrintToString(heard);
  for (const std::string& call : board->Board::calls())
    EXPECT_TRUE(call == "envtool show tempmac" || call == "envtool show ppt_flag") << call;
}

}  // namespace
