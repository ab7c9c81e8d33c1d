#include "support/threads.h"

#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/emulated.h"
#include "support/sanitized.h"
#include "support/station.h"
#include "support/whole_file.h"

// What the program's threads leave behind when they end, as the kernel sees it.

namespace {

constexpr int kTransfersBefore = 100;
constexpr int kTransfers = 500;
constexpr int kMostMaps = 10;  // that may be more afterwards; a stack has two
constexpr int kOpenTransfers = 16;
constexpr long kMostKiBPerTransfer = 512;
constexpr long kMostKiBOfOneThread = 4096;

class Threads : public testing::Test {
 protected:
  void SetUp() override {
    LEFT_OUT_UNDER_EMULATION("it would measure qemu");
    NEEDS_SANDBOX();
    if (kSanitized) GTEST_SKIP() << "a sanitizer gives threads attributes of its own";
    station_.emplace(std::vector<std::string>{}, station::OnLoopback::Relay::kHasNoAddress);
    write_whole_file("file", "contents");
  }

  void reads_files(int count) {
    for (int i = 0; i < count; ++i) {
      UdpPeer unit;
      unit.aims_at("127.0.0.1", station::kTftpPort);
      unit.sends(tftp::rrq("file"));
      unit.expects(tftp::data(1, "contents"));
      unit.sends(tftp::ack(1));
      ASSERT_TRUE(wait_until([this] { return status_number("Threads") == 1; }));
    }
  }

  std::string proc(const std::string& name) const {
    return "/proc/" + std::to_string(station_->daemon->pid()) + "/" + name;
  }

  int maps() const {
    std::ifstream file(proc("maps"));
    int lines = 0;
    for (std::string line; std::getline(file, line);) ++lines;
    return lines;
  }

  // Of a line "name: number" in the process's status; sizes are in KiB.
  long status_number(const std::string& name) const {
    std::ifstream file(proc("status"));
    std::string word;
    while (file >> word && word != name + ":") continue;
    long number = -1;
    file >> number;
    return number;
  }

  std::optional<station::OnLoopback> station_;
};

}  // namespace

TEST_F(Threads, LeaveNoMemoryMapsBehind) {
  reads_files(kTransfersBefore);
  const int before = maps();
  reads_files(kTransfers);
  EXPECT_LE(maps(), before + kMostMaps);
}

TEST_F(Threads, HaveSmallStacks) {
  const long before = status_number("VmSize");
  std::vector<std::unique_ptr<UdpPeer>> units;
  for (int i = 0; i < kOpenTransfers; ++i) {
    units.push_back(std::make_unique<UdpPeer>());
    units.back()->aims_at("127.0.0.1", station::kTftpPort);
    units.back()->sends(tftp::rrq("file"));
    units.back()->expects(tftp::data(1, "contents"));
  }
  EXPECT_TRUE(wait_until([this] { return status_number("Threads") == 1 + kOpenTransfers; }));
  EXPECT_LT(status_number("VmSize") - before, kOpenTransfers * kMostKiBPerTransfer);
}

TEST_F(Threads, HaveNoHeapsOfTheirOwn) {
  const long before = status_number("VmSize");
  reads_files(kTransfersBefore);
  EXPECT_LT(status_number("VmSize") - before, kMostKiBOfOneThread);
}
