#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>

#include "support/daemon.h"
#include "support/download_size.h"
#include "support/outcome.h"
#include "support/sandbox.h"
#include "support/scratch_directory.h"
#include "tftp_client/tftp_client.h"

namespace {

constexpr char kLoopback[] = "127.0.0.1";
constexpr int kPort = 69;
constexpr char kDumpOfRequest[] =
    "\n--------------DATA DUMP---------------------\n"
    "Size: 19\n"
    "00 0x2 0x6e 0x65 0x77 0x2e 0x66 0x69 0x6c 0x65 00 00 0x6f 0x63 0x74 0x65 0x74 00 00 "
    "\n--------------------------------------------\n\n";
constexpr char kNothingCame[] = "We have an error in waitForPacket()\n";

// The client and the built program as its server.
class OwnServer : public testing::Test {
 protected:
  void SetUp() override {
    NEEDS_SANDBOX();
    daemon_.emplace();
    ASSERT_TRUE(daemon_->serves());
    client_.emplace(kLoopback, kPort);
  }

  Outcome downloads(const std::string& name) {
    return outcome_of([&] { return client_->getFile(name, "local.img"); });
  }
  Outcome uploads(const std::string& contents) {
    write_whole_file("local.img", contents);
    return outcome_of([&] { return client_->sendFile("local.img", "new.file"); });
  }
  // The first acknowledgement comes and no other; every wait for one takes five seconds.
  void expects_upload_into_nothing(const std::string& contents, int silent_waits) {
    Outcome outcome{-1, ""};
    const double seconds = seconds_of([&] { outcome = uploads(contents); });
    std::string printed = std::string(kDumpOfRequest) + "ACK for packet 0(expected: 0)\n";
    for (int wait = 0; wait < silent_waits; ++wait) printed += kNothingCame;
    EXPECT_EQ(outcome, (Outcome{1, printed}));
    EXPECT_EQ(whole_file("new.file"), "");
    EXPECT_GE(seconds, 5 * silent_waits);
    EXPECT_LT(seconds, 5 * silent_waits + 0.9);
  }

  ScratchDirectory directory_;
  std::optional<Daemon> daemon_;
  std::optional<TFTPClient> client_;
};

class DownloadFromOwnServer : public OwnServer, public testing::WithParamInterface<DownloadSize> {};

TEST_P(DownloadFromOwnServer, BringsTheWholeFile) {
  const std::string contents = noise(GetParam().file);
  write_whole_file("boot.img", contents);
  client_->block_size = GetParam().block;
  EXPECT_EQ(downloads("boot.img"), (Outcome{1, started(GetParam().file)}));
  EXPECT_TRUE(whole_file("local.img") == contents);
  EXPECT_EQ(client_->block_size, GetParam().block);
  EXPECT_EQ(client_->timeout, 5);
}

INSTANTIATE_TEST_SUITE_P(, DownloadFromOwnServer,
                         testing::Values(DownloadSize{0, 512}, DownloadSize{1, 512}, DownloadSize{511, 512},
                                         DownloadSize{512, 512}, DownloadSize{513, 512},
                                         DownloadSize{10000000, 512}, DownloadSize{600000, 64},
                                         DownloadSize{10000000, 1468}, DownloadSize{10000000, 32764}),
                         name_of);

TEST_F(OwnServer, RaisesAShortTimeoutToFiveSeconds) {
  write_whole_file("boot.img", "contents");
  client_->timeout = 1;
  EXPECT_EQ(downloads("boot.img"), (Outcome{1, started(8)}));
  EXPECT_EQ(client_->timeout, 5);
}

// The server's packet for so small a block takes no more of the acknowledgement than the timeout.
TEST_F(OwnServer, BringsAFileInBlocksOfEightBytesThoughItAcknowledgesOnlyTheTimeout) {
  const std::string contents = noise(600000);
  write_whole_file("boot.img", contents);
  client_->block_size = 8;
  EXPECT_EQ(downloads("boot.img"), (Outcome{1, "Transfer started\n"}));
  EXPECT_TRUE(whole_file("local.img") == contents);
}

// The server sends whole blocks of 32768 bytes, of which the client's packet holds four less.
TEST_F(OwnServer, EndsADownloadInItsLargestBlocksAfterTheFirst) {
  const std::string contents = noise(100000);
  write_whole_file("boot.img", contents);
  client_->block_size = 65464;
  EXPECT_EQ(downloads("boot.img"), (Outcome{1, started(100000)}));
  EXPECT_EQ(client_->block_size, 32768);
  EXPECT_TRUE(whole_file("local.img") == contents.substr(0, 32764));
}

TEST_F(OwnServer, RefusesADownloadOfAFileThatIsMissing) {
  EXPECT_EQ(downloads("missing"), (Outcome{0, "Error! Error code: 1\nError message: File not found\n"}));
  EXPECT_FALSE(std::filesystem::exists("local.img"));
}

TEST_F(OwnServer, RefusesAnUploadOfAFileThatExistsAndKeepsIt) {
  write_whole_file("new.file", "as it was");
  EXPECT_EQ(uploads("contents"),
            (Outcome{0, std::string(kDumpOfRequest) +
                            "ACK expected, but got Error\nError! Error code: 0x6\n"
                            "Error message: File already exists\nServer has timed out\n"}));
  EXPECT_EQ(whole_file("new.file"), "as it was");
}

TEST_F(OwnServer, MakesAnEmptyFileOfAnUploadInOneBlock) {
  for (const std::string& contents : {std::string(), std::string("x"), noise(511)}) {
    expects_upload_into_nothing(contents, 0);
    std::filesystem::remove("new.file");
    client_.emplace(kLoopback, kPort);
  }
}

TEST_F(OwnServer, LetsAnUploadOf512BytesWaitOnce) {
  expects_upload_into_nothing(noise(512), 1);
}

TEST_F(OwnServer, LetsAnUploadOf513BytesWaitOnce) {
  expects_upload_into_nothing(noise(513), 1);
}

TEST_F(OwnServer, LetsAnUploadWaitOnceForEachBlockButTheLast) {
  expects_upload_into_nothing(noise(2000), 3);
}

TEST_F(OwnServer, RefusesASecondUploadOfTheSameName) {
  expects_upload_into_nothing("contents", 0);
  client_.emplace(kLoopback, kPort);
  EXPECT_EQ(uploads("contents").result, 0);
}

TEST_F(OwnServer, ServesOnAfterAnUpload) {
  expects_upload_into_nothing("contents", 0);
  client_.emplace(kLoopback, kPort);
  write_whole_file("boot.img", "served");
  EXPECT_EQ(downloads("boot.img"), (Outcome{1, started(6)}));
  EXPECT_EQ(whole_file("local.img"), "served");
}

}  // namespace
