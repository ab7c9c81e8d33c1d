#include <gtest/gtest.h>

#include <cerrno>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <future>
#include <string>
#include <vector>

#include "support/descriptors.h"
#include "support/fault.h"
#include "support/file_transfer_record.h"
#include "support/sanitized.h"

using namespace tftp;

namespace {

constexpr char kWaitFailed[] = "Error in select(): \n";
constexpr char kReceiveFailed[] = "recv() error in waitForPackage()\n";
constexpr char kEmptyDatagram[] = "Connection was closed by server\n";
constexpr char kFileNotFound[] = "Error! Error code: 1\nError message: File not found\n";

class FileDownload : public FileTransferTest {
 protected:
  // As a server sends it that ignores options.
  static std::vector<std::string> blocks_of(const std::string& contents) {
    std::vector<std::string> blocks;
    for (std::size_t at = 0; at <= contents.size(); at += 512) {
      blocks.push_back(data(static_cast<int>(at / 512) + 1, contents.substr(at, 512)));
    }
    return blocks;
  }
  // The server's acknowledgement of a wait that no test has to sit through.
  static std::string no_wait() { return oack({{"timeout", "0"}}); }
};

// The request

TEST_F(FileDownload, AsksForTimeoutBlockSizeAndSizeInThisOrder) {
  downloads({data(1, "")});
  expects_all(server, {bytes("\0\1boot.img\0octet\0timeout\0"
                             "5\0blksize\0"
                             "512\0tsize\0"
                             "0\0")});
}

TEST_F(FileDownload, AsksForTheClientsOwnTimeoutAndBlockSize) {
  client.timeout = 70;
  client.block_size = -1432;
  downloads({data(1, "")});
  expects_all(server, {rrq("boot.img", {{"timeout", "70"}, {"blksize", "-1432"}, {"tsize", "0"}})});
}

TEST_F(FileDownload, CutsItsRequestAt1024Bytes) {
  transfer.sends(data(1, ""));
  EXPECT_EQ(outcome_of([&] { return client.getFile(std::string(2000, 'n'), "local.img"); }),
            (Outcome{1, kTransferStarted}));
  expects_all(server, {bytes("\0\1") + std::string(1022, 'n')});
}

TEST_F(FileDownload, GoesOnWhenItsRequestCouldNotBeSent) {
  transfer.sends(data(1, "contents"));
  const Fault unreachable(Call::kSendto, ENETUNREACH);
  EXPECT_EQ(downloads(), (Outcome{1, kTransferStarted}));
  EXPECT_EQ(local_file(), "contents");
  expects_all(server, {});
  expects_acks({1});
}

// Files of all sizes, from a server that ignores options

class FileOfLength : public FileDownload, public testing::WithParamInterface<std::size_t> {};

TEST_P(FileOfLength, ArrivesWholeAndEachBlockIsAcknowledgedOnce) {
  const std::string contents = noise(GetParam());
  const std::vector<std::string> blocks = blocks_of(contents);
  EXPECT_EQ(downloads(blocks), (Outcome{1, kTransferStarted}));
  EXPECT_TRUE(local_file() == contents);
  expects_request();
  std::vector<int> acks;
  for (std::size_t block = 1; block <= blocks.size(); ++block) acks.push_back(static_cast<int>(block));
  expects_acks(acks);
}

INSTANTIATE_TEST_SUITE_P(, FileOfLength, testing::Values(0, 1, 511, 512, 513, 1024, 5000),
                         testing::PrintToStringParamName());

TEST_F(FileDownload, Of1024BytesEndsWithAnEmptyThirdBlock) {
  EXPECT_EQ(downloads({data(1, std::string(512, 'a')), data(2, std::string(512, 'b')), data(3, "")}),
            (Outcome{1, kTransferStarted}));
  EXPECT_EQ(local_file(), std::string(512, 'a') + std::string(512, 'b'));
  expects_acks({1, 2, 3});
}

// The local file

TEST_F(FileDownload, ReplacesWhatTheLocalFileHeld) {
  has_local_file("longer than what comes");
  EXPECT_EQ(downloads({data(1, bytes("new\r\n\x1a\0"))}).result, 1);
  EXPECT_EQ(local_file(), bytes("new\r\n\x1a\0"));
}

TEST_F(FileDownload, RunsToItsEndWhenTheLocalFileCannotBeOpened) {
  for (const std::string& block : blocks_of(std::string(600, 'x'))) transfer.sends(block);
  EXPECT_EQ(outcome_of([&] { return client.getFile("boot.img", "no such directory/local.img"); }),
            (Outcome{1, kTransferStarted}));
  expects_request();
  expects_acks({1, 2});
  EXPECT_TRUE(std::filesystem::is_empty(directory.path()));
}

TEST_F(FileDownload, HasTheSameResultWhenTheLocalFileCannotBeClosed) {
  const auto has_a_file_without_room = [this] {
    std::filesystem::create_symlink("/dev/full", directory.file("local.img"));
    std::ofstream file(directory.file("local.img"));
    file << "written when it is closed";
    file.close();
    EXPECT_TRUE(file.fail());
  };
  has_a_file_without_room();
  EXPECT_EQ(downloads({data(1, "contents")}), (Outcome{1, kTransferStarted}));
  expects_acks({1});
  std::filesystem::remove(directory.file("local.img"));
  has_a_file_without_room();
  EXPECT_EQ(downloads({data(1, std::string(512, 'a')), error(1, "")}),
            (Outcome{0, std::string(kTransferStarted) + kFileNotFound}));
  EXPECT_FALSE(std::filesystem::is_symlink(directory.file("local.img")));
}

TEST_F(FileDownload, LeavesNoDescriptorOpen) {
  const int before = open_descriptors();
  downloads({data(1, "contents")});
  EXPECT_EQ(open_descriptors(), before);
  downloads({error(1, "")});
  EXPECT_EQ(open_descriptors(), before);
}

// The first reply

TEST_F(FileDownload, TakesBackItsOptionsWhenTheFirstReplyIsData) {
  client.timeout = 70;
  client.block_size = 1024;
  EXPECT_EQ(downloads({data(1, std::string(512, 'a')), data(2, "b")}), (Outcome{1, kTransferStarted}));
  EXPECT_EQ(client.timeout, 5);
  EXPECT_EQ(client.block_size, 512);
  EXPECT_EQ(local_file(), std::string(512, 'a') + "b");
  expects_acks({1, 2});
}

TEST_F(FileDownload, RemovesTheFileWhenTheFirstReplyIsAnError) {
  has_local_file("from the last download");
  EXPECT_EQ(downloads({error(1, "text of the server")}), (Outcome{0, kFileNotFound}));
  EXPECT_EQ(local_file(), kNoFile);
  expects_request();
  expects_acks({});
}

TEST_F(FileDownload, PrintsTheServersTextOfAnErrorWithoutCode) {
  EXPECT_EQ(downloads({error(0, "out of order")}),
            (Outcome{0, "Error! Error code: 0\nError message: out of order\n"}));
  EXPECT_EQ(local_file(), kNoFile);
}

TEST_F(FileDownload, TakesAnAckOfBlockOneForAnEmptyFile) {
  client.timeout = 70;
  EXPECT_EQ(downloads({ack(1)}), (Outcome{1, ""}));
  EXPECT_EQ(local_file(), "");
  EXPECT_EQ(client.timeout, 70);
  expects_acks({1});
}

TEST_F(FileDownload, StillAwaitsItsFirstReplyAfterAnAckThatCountsAsBlock) {
  client.timeout = 70;
  EXPECT_EQ(downloads({ack(1) + std::string(512, 'a'), oack({{"timeout", "3"}}), data(2, "b")}),
            (Outcome{1, kTransferStarted}));
  EXPECT_EQ(client.timeout, 3);
  EXPECT_EQ(local_file(), std::string(512, 'a') + "b");
  expects_acks({1, 0, 2});
}

TEST_F(FileDownload, DropsPacketsOfOtherKindsBeforeItsFirstReply) {
  client.timeout = 70;
  EXPECT_EQ(
      downloads({rrq("a"), ack(2), bytes("\0"), bytes("\0\7\0\1"), data(1, "contents")}),
      (Outcome{1, mismatch(1, 0) + mismatch(1, 2) + mismatch(1, 0) + mismatch(1, 0) + kTransferStarted}));
  EXPECT_EQ(client.timeout, 5);
  EXPECT_EQ(local_file(), "contents");
  expects_acks({1});
}

TEST_F(FileDownload, TakesDataWithoutBlockNumberAsBlockZero) {
  EXPECT_EQ(downloads({bytes("\0\3"), bytes("\0\3\1"), data(1, "contents")}),
            (Outcome{1, kTransferStarted + mismatch(1, 0) + mismatch(1, 256)}));
  EXPECT_EQ(local_file(), "contents");
  expects_acks({1});
}

// Blocks

TEST_F(FileDownload, DropsARepeatedBlock) {
  EXPECT_EQ(downloads({data(1, std::string(512, '1')), data(2, std::string(512, '2')),
                       data(3, std::string(512, '3')), data(4, std::string(512, '4')),
                       data(4, std::string(512, 'X')), data(5, "5")}),
            (Outcome{1, kTransferStarted + mismatch(5, 4)}));
  EXPECT_EQ(local_file(), std::string(512, '1') + std::string(512, '2') + std::string(512, '3') +
                              std::string(512, '4') + "5");
  expects_acks({1, 2, 3, 4, 5});
}

TEST_F(FileDownload, DropsABlockThatComesTooEarlyEvenIfItIsShort) {
  EXPECT_EQ(downloads({data(2, "X"), data(65535, "X"), data(1, "contents")}),
            (Outcome{1, kTransferStarted + mismatch(1, 2) + mismatch(1, 65535)}));
  EXPECT_EQ(local_file(), "contents");
  expects_acks({1});
}

TEST_F(FileDownload, DropsPacketsOfOtherKindsBetweenBlocks) {
  EXPECT_EQ(downloads({data(1, std::string(512, 'a')), rrq("a"), oack({{"blksize", "8"}, {"tsize", "1"}}),
                       ack(1), data(2, "b")}),
            (Outcome{1, kTransferStarted + mismatch(2, 0) + mismatch(2, 0) + mismatch(2, 1)}));
  EXPECT_EQ(client.block_size, 512);
  EXPECT_EQ(local_file(), std::string(512, 'a') + "b");
  expects_acks({1, 2});
}

TEST_F(FileDownload, TakesAnAckOfTheExpectedNumberForABlock) {
  EXPECT_EQ(downloads({data(1, std::string(512, 'a')), ack(2) + "b"}), (Outcome{1, kTransferStarted}));
  EXPECT_EQ(local_file(), std::string(512, 'a') + "b");
  expects_acks({1, 2});
}

TEST_F(FileDownload, WritesAFirstBlockThatIsTooLongWholeAndCutsLaterOnes) {
  EXPECT_EQ(downloads({data(1, std::string(600, 'a')), data(2, std::string(600, 'b')), data(3, "c")}),
            (Outcome{1, kTransferStarted}));
  EXPECT_EQ(local_file(), std::string(600, 'a') + std::string(512, 'b') + "c");
  expects_acks({1, 2, 3});
}

TEST_F(FileDownload, MakesRoomForOneBlockAfterAMismatchToo) {
  client.block_size = 20;
  EXPECT_EQ(downloads({ack(9), data(1, std::string(100, 'a'))}),
            (Outcome{1, mismatch(1, 9) + kTransferStarted}));
  EXPECT_EQ(local_file(), std::string(20, 'a'));
  EXPECT_EQ(client.received_packet.max_size, 24);
}

TEST_F(FileDownload, AnswersWhoeverSentTheBlock) {
  UdpPeer stranger;
  stranger.aims_at("127.0.0.1", server.their_port());
  transfer.sends(data(1, std::string(512, 'a')));
  stranger.sends(data(2, std::string(512, 'b')));
  transfer.sends(data(3, "c"));
  EXPECT_EQ(downloads(), (Outcome{1, kTransferStarted}));
  expects_acks({1, 3});
  expects_all(stranger, {ack(2)});
}

TEST_F(FileDownload, RemovesAPartWhenAnErrorFollows) {
  EXPECT_EQ(downloads({data(1, std::string(512, 'a')), error(3, "")}),
            (Outcome{0, std::string(kTransferStarted) +
                            "Error! Error code: 3\nError message: Disk full or allocation exceeded\n"}));
  EXPECT_EQ(local_file(), kNoFile);
  expects_acks({1});
}

TEST_F(FileDownload, EndsWithAnErrorAfterTheOptionsOrAfterAMismatch) {
  EXPECT_EQ(downloads({no_wait(), error(1, "")}),
            (Outcome{0, std::string(kTransferStarted) + kFileNotFound}));
  EXPECT_EQ(local_file(), kNoFile);
  expects_acks({0});
  EXPECT_EQ(downloads({data(3, "X"), error(1, "")}),
            (Outcome{0, kTransferStarted + mismatch(1, 3) + kFileNotFound}));
  EXPECT_EQ(local_file(), kNoFile);
}

// Block numbers beyond 65535

class FileDownloadBeyondBlock65535 : public FileDownload {
 protected:
  // So many whole blocks of eight bytes, some ahead of their acknowledgements, and then the last datagram.
  Outcome downloads_blocks_of_eight(int count, const std::string& last) {
    contents_ = noise(static_cast<std::size_t>(count) * 8);
    transfer.sends(oack({{"blksize", "8"}}));
    const CapturedOutput output;
    auto result = std::async(std::launch::async, [&] {
      const int received = client.getFile("boot.img", "local.img");
      timespec used = {};
      clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
      seconds_used_ = static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) * 1e-9;
      return received;
    });
    constexpr int kAhead = 64;
    QuickPeer peer(transfer);
    bool in_order = true;
    for (int sent = 0, acknowledged = 0; in_order && acknowledged <= count; ++acknowledged) {
      for (; sent < count && sent < acknowledged + kAhead; ++sent) {
        peer.sends(data(sent + 1, contents_.substr(static_cast<std::size_t>(sent) * 8, 8)));
      }
      in_order = peer.receives() == ack(acknowledged);
    }
    EXPECT_TRUE(in_order);
    peer.sends(last);
    return {result.get(), output.text()};
  }

  std::string contents_;
  double seconds_used_ = 0;
};

TEST_F(FileDownloadBeyondBlock65535, GoesOnWithBlockZeroInUnderTwoSeconds) {
  EXPECT_EQ(downloads_blocks_of_eight(65538, data(65539, "end")), (Outcome{1, kTransferStarted}));
  EXPECT_TRUE(local_file() == contents_ + "end");
  expects_acks({3});
  // The thread's own time: the machine may be busy with other tests.
  EXPECT_LT(seconds_used_, kSanitized ? 20 : 2);
}

TEST_F(FileDownloadBeyondBlock65535, TakesAnyPacketWithoutNumberForBlockZero) {
  EXPECT_EQ(downloads_blocks_of_eight(65535, oack({{"tsize", ""}})), (Outcome{1, kTransferStarted}));
  EXPECT_TRUE(local_file() == contents_ + bytes("ize\0\0"));
  expects_acks({0});
}

TEST_F(FileDownloadBeyondBlock65535, EndsWithAnEmptyDatagramThatCountsAsBlockZero) {
  EXPECT_EQ(downloads_blocks_of_eight(65535, ""),
            (Outcome{1, std::string(kTransferStarted) + kEmptyDatagram}));
  EXPECT_TRUE(local_file() == contents_);
  expects_acks({0});
}

// Acknowledgements that cannot be sent

class FileDownloadWithoutAck : public FileTransferTest, public testing::WithParamInterface<int> {};

TEST_P(FileDownloadWithoutAck, IsCompleteThoughItCouldNotBeSent) {
  transfer.sends(data(1, std::string(512, 'a')));
  transfer.sends(data(2, "b"));
  const Fault unreachable(Call::kSendto, ENETUNREACH, 1 + GetParam());
  EXPECT_EQ(downloads(), (Outcome{1, kTransferStarted}));
  EXPECT_EQ(unreachable.struck(), 1);
  EXPECT_EQ(local_file(), std::string(512, 'a') + "b");
  expects_acks({3 - GetParam()});
}

INSTANTIATE_TEST_SUITE_P(OfBlock, FileDownloadWithoutAck, testing::Values(1, 2),
                         testing::PrintToStringParamName());

TEST_F(FileDownload, GoesOnAfterAShortBlockWhoseAckWasSentWithNoByte) {
  transfer.sends(data(1, "a"));
  transfer.sends(data(2, "b"));
  const Fault nothing_sent(Call::kSendto, 0, 2);
  EXPECT_EQ(downloads(), (Outcome{1, kTransferStarted}));
  EXPECT_EQ(nothing_sent.struck(), 1);
  EXPECT_EQ(local_file(), "ab");
  expects_acks({2});
}

// Waits and receives that fail

TEST_F(FileDownload, DropsFailuresBeforeItsFirstReply) {
  transfer.sends("");
  transfer.sends("lost by the receive that fails");
  transfer.sends(data(1, "contents"));
  const Fault interrupted(Call::kSelect, EINTR);
  const Fault refused(Call::kRecvfrom, ECONNREFUSED, 2);
  const Outcome outcome = downloads();
  EXPECT_EQ(refused.struck(), 1);
  // The refused receive left its datagram in the socket.
  EXPECT_EQ(outcome, (Outcome{1, kWaitFailed + mismatch(1, 0) + kEmptyDatagram + mismatch(1, 0) +
                                     kReceiveFailed + mismatch(1, 0) + mismatch(1, 0) + kTransferStarted}));
  EXPECT_EQ(local_file(), "contents");
  expects_request();
  expects_acks({1});
}

TEST_F(FileDownload, DropsFailuresBetweenBlocks) {
  for (const std::string& datagram :
       {data(1, std::string(512, 'a')), data(2, std::string(512, 'b')), std::string(), data(3, "c")}) {
    transfer.sends(datagram);
  }
  const Fault refused(Call::kRecvfrom, ECONNREFUSED, 3);
  EXPECT_EQ(downloads(), (Outcome{1, kTransferStarted + (kReceiveFailed + mismatch(3, 0)) + kEmptyDatagram +
                                         mismatch(3, 0)}));
  EXPECT_EQ(refused.struck(), 1);
  EXPECT_EQ(local_file(), std::string(512, 'a') + std::string(512, 'b') + "c");
  expects_acks({1, 2, 3});
}

TEST_F(FileDownload, JudgesTheBlockBeforeOnceMoreWhenAWaitFails) {
  for (const std::string& datagram : {no_wait(), data(1, std::string(512, 'a')), data(2, "b")}) {
    transfer.sends(datagram);
  }
  const Fault interrupted(Call::kSelect, EINTR, 3);
  EXPECT_EQ(downloads(), (Outcome{1, std::string(kTransferStarted) + kWaitFailed + mismatch(2, 1)}));
  EXPECT_EQ(local_file(), std::string(512, 'a') + "b");
  expects_acks({0, 1, 2});
}

// What the packet still holds from before, when the first wait fails

class FileDownloadWhoseFirstWaitFails : public FileDownload {
 protected:
  Outcome downloads_after(const std::string& earlier) {
    client.received_packet.clear();
    EXPECT_TRUE(client.received_packet.addMemory(earlier.data(), static_cast<int>(earlier.size())));
    const Fault interrupted(Call::kSelect, EINTR);
    return downloads();
  }
};

TEST_F(FileDownloadWhoseFirstWaitFails, KeepsAnEmptyFileAfterAnEarlierError) {
  EXPECT_EQ(downloads_after(error(1, "")), (Outcome{1, kWaitFailed}));
  EXPECT_EQ(local_file(), "");
  expects_request();
  expects_acks({});
}

TEST_F(FileDownloadWhoseFirstWaitFails, AfterADownloadThatEndedWithAnErrorSucceeds) {
  EXPECT_EQ(downloads({error(1, "")}).result, 0);
  const Fault interrupted(Call::kSelect, EINTR);
  EXPECT_EQ(downloads(), (Outcome{1, kWaitFailed}));
  EXPECT_EQ(local_file(), "");
}

TEST_F(FileDownloadWhoseFirstWaitFails, TakesAnEarlierBlockOne) {
  client.timeout = 70;
  EXPECT_EQ(downloads_after(data(1, "old")), (Outcome{1, std::string(kWaitFailed) + kTransferStarted}));
  EXPECT_EQ(local_file(), "old");
  EXPECT_EQ(client.timeout, 5);
  server.expects(rrq("boot.img", {{"timeout", "70"}, {"blksize", "512"}, {"tsize", "0"}}));
  expects_all(server, {ack(1)});
}

TEST_F(FileDownloadWhoseFirstWaitFails, TakesEarlierOptions) {
  EXPECT_EQ(
      downloads_after(oack({{"timeout", "0"}, {"tsize", "9"}})),
      (Outcome{0, std::string(kWaitFailed) + "Remote file is 9 byte\n" + kTransferStarted + silence(10)}));
  EXPECT_EQ(client.timeout, 0);
}

TEST_F(FileDownloadWhoseFirstWaitFails, DropsAnEarlierBlockOfAnotherNumber) {
  transfer.sends(data(1, "new"));
  EXPECT_EQ(downloads_after(data(7, "old")), (Outcome{1, kWaitFailed + (kTransferStarted + mismatch(1, 7))}));
  EXPECT_EQ(local_file(), "new");
}

TEST_F(FileDownloadWhoseFirstWaitFails, ForgetsAnEarlierPacketWhenTheReceiveFailsInstead) {
  EXPECT_EQ(downloads({error(1, "")}).result, 0);
  transfer.sends(data(1, "contents"));
  const Fault refused(Call::kRecvfrom, ECONNREFUSED);
  EXPECT_EQ(downloads(), (Outcome{1, kReceiveFailed + mismatch(1, 0) + kTransferStarted}));
  EXPECT_EQ(local_file(), "contents");
}

// One client, several downloads

TEST_F(FileDownload, OfTheSameClientAsksAtTheTransferPortForWhatWasAcknowledgedBefore) {
  EXPECT_EQ(downloads({oack({{"timeout", "3"}, {"blksize", "20"}}), data(1, "first")}).result, 1);
  expects_acks({0, 1});
  EXPECT_EQ(downloads({data(1, "second")}).result, 1);
  EXPECT_EQ(local_file(), "second");
  expects_all(transfer, {rrq("boot.img", {{"timeout", "3"}, {"blksize", "20"}, {"tsize", "0"}}), ack(1)});
}

TEST_F(FileDownload, TakesNoMoreOfTheFirstReplyThanThePacketHasRoomFor) {
  client.received_packet.reSize(24);
  EXPECT_EQ(downloads({data(1, std::string(512, 'a'))}), (Outcome{1, kTransferStarted}));
  EXPECT_EQ(local_file(), std::string(20, 'a'));
  EXPECT_EQ(client.received_packet.max_size, 24);
}

}  // namespace
