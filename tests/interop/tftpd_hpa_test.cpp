#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "stage/process.h"
#include "support/download_size.h"
#include "support/outcome.h"
#include "support/sandbox.h"
#include "support/scratch_directory.h"
#include "support/tftp_bytes.h"
#include "support/udp_peer.h"
#include "tftp_client/tftp_client.h"

namespace {

constexpr char kServer[] = "/usr/sbin/in.tftpd";
constexpr char kLoopback[] = "127.0.0.1";
constexpr int kPort = 69;

// tftpd-hpa as a child process that serves a directory over the loopback interface. Its own children, one per
// transfer, are in its process group and end with it.
class TftpdHpa {
 public:
  explicit TftpdHpa(const std::string& directory)
      : process_(
            {kServer, "--foreground", "--ipv4", "--address", ":69", "--user", "root", "--secure", directory},
            [] { setpgid(0, 0); }) {}
  ~TftpdHpa() {
    kill(-process_.pid(), SIGTERM);
    process_.wait_for_end();
  }
  TftpdHpa(const TftpdHpa&) = delete;
  TftpdHpa& operator=(const TftpdHpa&) = delete;

  // Waits until it answers. False when it does not.
  bool serves() const {
    UdpPeer probe;
    for (int attempt = 0; attempt < 100; ++attempt) {
      probe.aims_at(kLoopback, kPort);
      probe.sends(tftp::rrq("no such file"));
      if (probe.receives(std::chrono::milliseconds(100))) return true;
    }
    return false;
  }

 private:
  Process process_;
};

class TftpdHpaTest : public testing::Test {
 protected:
  void SetUp() override {
    if (access(kServer, X_OK) != 0) GTEST_SKIP() << "needs " << kServer << " (package tftpd-hpa)";
    NEEDS_SANDBOX();
    if (whole_file("/proc/self/setgroups") == "deny\n") GTEST_SKIP() << kServer << " needs root";
    std::filesystem::create_directory("served");
    server_.emplace(directory_.file("served"));
    ASSERT_TRUE(server_->serves());
    client_.emplace(kLoopback, kPort);
  }

  void serves(const std::string& name, const std::string& contents) const {
    write_whole_file("served/" + name, contents);
    // It serves what everyone may read.
    std::filesystem::permissions("served/" + name, std::filesystem::perms::others_read,
                                 std::filesystem::perm_options::add);
  }
  Outcome downloads(const std::string& name) {
    return outcome_of([&] { return client_->getFile(name, "local.img"); });
  }

  ScratchDirectory directory_;
  std::optional<TftpdHpa> server_;
  std::optional<TFTPClient> client_;
};

class DownloadFromTftpdHpa : public TftpdHpaTest, public testing::WithParamInterface<DownloadSize> {};

TEST_P(DownloadFromTftpdHpa, BringsTheWholeFile) {
  const std::string contents = noise(GetParam().file);
  serves("boot.img", contents);
  client_->block_size = GetParam().block;
  EXPECT_EQ(downloads("boot.img"), (Outcome{1, started(GetParam().file)}));
  EXPECT_TRUE(whole_file("local.img") == contents);
  EXPECT_EQ(client_->block_size, GetParam().block);
  EXPECT_EQ(client_->timeout, 5);
}

INSTANTIATE_TEST_SUITE_P(, DownloadFromTftpdHpa,
                         testing::Values(DownloadSize{0, 512}, DownloadSize{1, 512}, DownloadSize{511, 512},
                                         DownloadSize{512, 512}, DownloadSize{513, 512},
                                         DownloadSize{10000000, 512}, DownloadSize{0, 8}, DownloadSize{8, 8},
                                         DownloadSize{600000, 8}, DownloadSize{10000000, 1468},
                                         DownloadSize{10000000, 32764}),
                         name_of);

TEST_F(TftpdHpaTest, SendsSeveralFilesToClientsOfTheirOwn) {
  serves("boot.img", "first");
  EXPECT_EQ(downloads("boot.img"), (Outcome{1, started(5)}));
  serves("boot.img", "second one");
  client_.emplace(kLoopback, kPort);
  EXPECT_EQ(downloads("boot.img"), (Outcome{1, started(10)}));
  EXPECT_EQ(whole_file("local.img"), "second one");
}

TEST_F(TftpdHpaTest, RefusesAFileThatIsMissing) {
  EXPECT_EQ(downloads("missing"), (Outcome{0, "Error! Error code: 1\nError message: File not found\n"}));
  EXPECT_FALSE(std::filesystem::exists("local.img"));
}

}  // namespace
