#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/file_transfer_record.h"
#include "support/flush_recorder.h"
#include "support/played_waits.h"

using namespace tftp;

namespace {

using Seconds = std::vector<long>;

// Downloads from a server that falls silent. Waits that the server sets to 0 seconds are time-outs at once.
class SilentServer : public FileTransferTest {
 protected:
  static std::string no_wait(const tftp::Options& more = {}) {
    tftp::Options options = more;
    options.emplace_back("timeout", "0");
    return oack(options);
  }
  static std::string request_event() {
    return event(rrq("boot.img", {{"timeout", "5"}, {"blksize", "512"}, {"tsize", "0"}}));
  }
  static std::vector<int> acks(int block, int count) {
    return std::vector<int>(static_cast<std::size_t>(count), block);
  }
};

// The nothing that a request gets

TEST_F(SilentServer, IsGivenUpFiveSecondsAfterTheRequest) {
  has_local_file("from the last download");
  Outcome outcome{-1, ""};
  const double seconds = seconds_of([&] { outcome = downloads(); });
  EXPECT_EQ(outcome, (Outcome{0, silence(1)}));
  EXPECT_EQ(local_file(), kNoFile);
  EXPECT_GE(seconds, 5);
  EXPECT_LT(seconds, 5.9);
  expects_request();
}

TEST_F(SilentServer, IsGivenUpAfterFiveSecondsWhateverTheClientsTimeout) {
  client.timeout = 1;
  const PlayedWaits waits;
  EXPECT_EQ(downloads(), (Outcome{0, silence(1)}));
  EXPECT_EQ(waits.seconds(), Seconds({5}));
  expects_all(server, {rrq("boot.img", {{"timeout", "1"}, {"blksize", "512"}, {"tsize", "0"}})});
}

TEST_F(SilentServer, IsGivenUpFiveSecondsAfterAPacketThatIsNoFirstReply) {
  client.timeout = 1;
  const PlayedWaits waits;
  EXPECT_EQ(downloads({ack(4)}), (Outcome{0, mismatch(1, 4) + silence(1)}));
  EXPECT_EQ(local_file(), kNoFile);
  EXPECT_EQ(waits.seconds(), Seconds({5, 5}));
  expects_acks({});
}

TEST_F(SilentServer, IsGivenUpFiveSecondsAfterAnAckThatCountedAsBlock) {
  client.timeout = 1;
  const PlayedWaits waits;
  EXPECT_EQ(downloads({ack(1) + std::string(512, 'a')}), (Outcome{0, silence(1)}));
  EXPECT_EQ(local_file(), kNoFile);
  EXPECT_EQ(waits.seconds(), Seconds({5, 5}));
  expects_acks({1});
}

TEST_F(SilentServer, LeavesALocalFileThatCouldNotBeOpenedAlone) {
  transfer.sends(no_wait());
  EXPECT_EQ(outcome_of([&] { return client.getFile("boot.img", "no such directory/local.img"); }),
            (Outcome{0, kTransferStarted + silence(10)}));
}

// Time-outs during the transfer

TEST_F(SilentServer, GetsTheAckOfItsOptionsNineMoreTimes) {
  EXPECT_EQ(downloads({no_wait()}), (Outcome{0, kTransferStarted + silence(10)}));
  EXPECT_EQ(local_file(), kNoFile);
  expects_acks(acks(0, 10));
}

TEST_F(SilentServer, GetsTheAckOfTheLastBlockNineMoreTimes) {
  EXPECT_EQ(downloads({no_wait({{"blksize", "3"}}), data(1, "abc"), data(2, "def")}),
            (Outcome{0, kTransferStarted + silence(10)}));
  EXPECT_EQ(local_file(), kNoFile);
  expects_acks({0, 1, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2});
}

TEST_F(SilentServer, MaySpeakAgainAfterTheNinthTimeOut) {
  EXPECT_EQ(downloads({no_wait()}, {{9, data(1, "late")}}), (Outcome{1, kTransferStarted + time_outs(9)}));
  EXPECT_EQ(local_file(), "late");
  std::vector<int> expected = acks(0, 10);
  expected.push_back(1);
  expects_acks(expected);
}

TEST_F(SilentServer, MayBeSilentNineTimesMoreAfterEachBlock) {
  EXPECT_EQ(downloads({no_wait({{"blksize", "3"}})}, {{9, data(1, "abc")}, {18, data(2, "de")}}),
            (Outcome{1, kTransferStarted + time_outs(18)}));
  EXPECT_EQ(local_file(), "abcde");
  std::vector<int> expected = acks(0, 10);
  for (int ack_of_block_one : acks(1, 10)) expected.push_back(ack_of_block_one);
  expected.push_back(2);
  expects_acks(expected);
}

TEST_F(SilentServer, IsGivenUpAtTheTenthTimeOutThoughBlocksOfOtherNumbersCame) {
  EXPECT_EQ(downloads({no_wait()}, {{4, data(3, "X")}, {8, rrq("a")}}),
            (Outcome{0, kTransferStarted + time_outs(4) + mismatch(1, 3) + time_outs(4) + mismatch(1, 0) +
                            silence(2)}));
  EXPECT_EQ(local_file(), kNoFile);
  expects_acks(acks(0, 10));
}

TEST_F(SilentServer, MayEndTheDownloadWithAnErrorAfterTimeOuts) {
  EXPECT_EQ(downloads({no_wait()}, {{3, error(2, "")}}),
            (Outcome{0, kTransferStarted + time_outs(3) +
                            "Error! Error code: 2\nError message: Access violation\n"}));
  EXPECT_EQ(local_file(), kNoFile);
  expects_acks(acks(0, 4));
}

TEST_F(SilentServer, GetsAnEmptyDatagramWhenNothingWasAcknowledgedYet) {
  const PlayedWaits waits;
  EXPECT_EQ(downloads({data(2, "X")}, {{1, data(1, "contents")}}),
            (Outcome{1, kTransferStarted + mismatch(1, 2) + time_outs(1)}));
  EXPECT_EQ(local_file(), "contents");
  EXPECT_EQ(waits.seconds(), Seconds({5, 5, 5}));
  expects_all(transfer, {"", ack(1)});
}

// How long each wait is

TEST_F(SilentServer, IsGivenFiveSecondsBeforeItsFirstReplyAndAsLongAsAcknowledgedAfterIt) {
  client.timeout = 1;
  const PlayedWaits waits;
  EXPECT_EQ(downloads({oack({{"timeout", "2"}, {"blksize", "3"}})},
                      {{2, data(1, "abc")}, {3, data(7, "X")}, {4, data(2, "d")}}),
            (Outcome{1, kTransferStarted + time_outs(3) + mismatch(2, 7) + time_outs(1)}));
  EXPECT_EQ(waits.seconds(), Seconds({5, 2, 2, 2, 2, 2, 2, 2}));
  expects_acks({0, 0, 0, 1, 1, 1, 2});
  EXPECT_EQ(local_file(), "abcd");
}

TEST_F(SilentServer, IsGivenFiveSecondsWhenItIgnoredTheOptions) {
  client.timeout = 1;
  const PlayedWaits waits;
  EXPECT_EQ(downloads({data(1, std::string(512, 'a'))}, {{2, data(2, "")}}),
            (Outcome{1, kTransferStarted + time_outs(2)}));
  EXPECT_EQ(waits.seconds(), Seconds({5, 5, 5, 5}));
  expects_acks({1, 1, 1, 2});
}

// The order of what is said and what is sent

TEST_F(SilentServer, IsReportedBeforeTheAckIsRepeated) {
  transfer.sends(no_wait({{"tsize", "3"}}));
  EXPECT_EQ(events_of([&] { return client.getFile("boot.img", "local.img"); }),
            request_event() + "Remote file is 3 byte\n" + event(ack(0)) + kTransferStarted +
                times(9, time_outs(1) + event(ack(0))) + silence(1) + "result 0");
}

TEST_F(SilentServer, HasItsBlocksAcknowledgedAfterTheTransferHasStarted) {
  for (const std::string& block : {data(1, std::string(512, 'a')), data(3, "X"), data(2, "b")}) {
    transfer.sends(block);
  }
  EXPECT_EQ(events_of([&] { return client.getFile("boot.img", "local.img"); }),
            request_event() + kTransferStarted + event(ack(1)) + mismatch(2, 3) + event(ack(2)) + "result 1");
}

TEST_F(SilentServer, IsReportedInLinesThatAreFlushedExceptForTheStart) {
  for (const std::string& reply : {no_wait({{"tsize", "3"}}), data(2, "X")}) transfer.sends(reply);
  const FlushRecorder output;
  EXPECT_EQ(client.getFile("f", "local.img"), 0);
  EXPECT_EQ(output.text(),
            "Remote file is 3 byte\n<flush>Transfer started\n"
            "Block number mismatch. Last_packet=1 From server = 2\n<flush>" +
                times(10, "ERROR: Select Timeout. File: f\n<flush>") + "Connection timeout\n<flush>");
}

// The removal of what was received

TEST_F(SilentServer, LosesTheFileOnlyWhenItIsGivenUp) {
  transfer.sends(no_wait());
  bool was_there = false;
  {
    const SpoilingOutput output([&](const std::string& piece) {
      if (piece == "Connection timeout") was_there = local_file() != kNoFile;
    });
    EXPECT_EQ(client.getFile("boot.img", "local.img"), 0);
  }
  EXPECT_TRUE(was_there);
  EXPECT_EQ(local_file(), kNoFile);
}

}  // namespace
