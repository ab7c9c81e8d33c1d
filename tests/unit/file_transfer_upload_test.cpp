#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <future>
#include <iomanip>
#include <sstream>
#include <string>
#include <vector>

#include "support/descriptors.h"
#include "support/fault.h"
#include "support/file_transfer_record.h"
#include "support/flush_recorder.h"
#include "support/played_waits.h"
#include "support/sanitized.h"

using namespace tftp;

namespace {

const std::string kRequest = bytes("\0\2a\0\0octet\0\0");
constexpr char kDump[] =
    "\n--------------DATA DUMP---------------------\n"
    "Size: 12\n"
    "00 0x2 0x61 00 00 0x6f 0x63 0x74 0x65 0x74 00 00 "
    "\n--------------------------------------------\n\n";
constexpr char kNothingCame[] = "We have an error in waitForPacket()\n";
constexpr char kUnhandled[] = "Unhandled packet\n";
constexpr char kGivenUp[] = "Server has timed out\n";

class FileUpload : public FileTransferTest {
 protected:
  // Standard output is hexadecimal once the request was dumped.
  static std::string number(int value) {
    std::ostringstream text;
    text << std::showbase << std::hex << value;
    return text.str();
  }
  static std::string acknowledged(int received, int expected) {
    return "ACK for packet " + number(received) + "(expected: " + number(expected) + ")\n";
  }
  // What is printed when blocks 0 to last are acknowledged in order.
  static std::string acknowledged_to(int last) {
    std::string lines;
    for (int block = 0; block <= last; ++block) lines += acknowledged(block, block);
    return lines;
  }
  static std::vector<std::string> acks_to(int last) {
    std::vector<std::string> acks;
    for (int block = 0; block <= last; ++block) acks.push_back(ack(block));
    return acks;
  }
  static std::vector<std::string> blocks_of(const std::string& contents) {
    std::vector<std::string> blocks;
    for (std::size_t at = 0; at <= contents.size(); at += 512) {
      blocks.push_back(data(static_cast<int>(at / 512) + 1, contents.substr(at, 512)));
    }
    return blocks;
  }
};

// Whole files

class UploadOfLength : public FileUpload, public testing::WithParamInterface<std::size_t> {};

TEST_P(UploadOfLength, SendsAllBlocksAndDoesNotAwaitTheLastAck) {
  const std::string contents = noise(GetParam());
  has_local_file(contents);
  const std::vector<std::string> blocks = blocks_of(contents);
  const int last = static_cast<int>(blocks.size()) - 1;
  EXPECT_EQ(uploads(acks_to(last)), (Outcome{1, kDump + acknowledged_to(last)}));
  expects_all(server, {kRequest});
  expects_all(transfer, blocks);
}

INSTANTIATE_TEST_SUITE_P(, UploadOfLength, testing::Values(0, 1, 511, 512, 513, 1024, 5000),
                         testing::PrintToStringParamName());

TEST_F(FileUpload, OfAnEmptyFileIsOneWaitAndOneBlockWithoutData) {
  has_local_file("");
  EXPECT_EQ(uploads({ack(0), ack(1)}), (Outcome{1, std::string(kDump) + "ACK for packet 0(expected: 0)\n"}));
  expects_all(server, {kRequest});
  expects_all(transfer, {bytes("\0\3\0\1")});
  EXPECT_EQ(client.waitForPacket(&client.received_packet, 0), 4);
}

TEST_F(FileUpload, Of512BytesIsAWholeBlockAndAnEmptyOne) {
  has_local_file(std::string(512, 'a'));
  EXPECT_EQ(uploads({ack(0), ack(1)}).result, 1);
  expects_all(transfer, {data(1, std::string(512, 'a')), data(2, "")});
}

TEST_F(FileUpload, PrintsBlockNumbersInHexadecimal) {
  has_local_file(std::string(512 * 11 + 1, 'a'));
  const std::string printed = uploads(acks_to(11)).printed;
  EXPECT_EQ(printed, kDump + acknowledged_to(10) + "ACK for packet 0xb(expected: 0xb)\n");
}

TEST_F(FileUpload, UsesNeitherTheClientsBlockSizeNorItsPacket) {
  has_local_file(std::string(600, 'a'));
  client.block_size = 8;
  client.timeout = 70;
  client.received_packet.reSize(2);
  EXPECT_EQ(uploads(acks_to(1)), (Outcome{1, kDump + acknowledged_to(1)}));
  expects_all(transfer, blocks_of(std::string(600, 'a')));
  EXPECT_EQ(client.block_size, 8);
  EXPECT_EQ(client.timeout, 70);
  EXPECT_EQ(client.received_packet.size, 0);
  EXPECT_EQ(client.received_packet.max_size, 2);
}

TEST_F(FileUpload, DumpsItsRequestBeforeItIsSent) {
  has_local_file("contents");
  transfer.sends(ack(0));
  const CapturedOutput unseen;
  EXPECT_EQ(events_of([&] { return client.sendFile("local.img", "a"); }),
            kDump + event(kRequest) + acknowledged(0, 0) + event(data(1, "contents")) + "result 1");
}

TEST_F(FileUpload, FlushesEachLineBehindTheDump) {
  has_local_file("contents");
  transfer.sends(error(6, ""));
  const CapturedOutput unseen;
  const FlushRecorder output;
  EXPECT_EQ(client.sendFile("missing", "a"), 0);
  EXPECT_EQ(client.sendFile("local.img", "a"), 0);
  EXPECT_EQ(output.text(),
            "Unable to open file missing\n<flush>"
            "\n--------------DATA DUMP---------------------\nSize: 12\n<flush>"
            "00 0x2 0x61 00 00 0x6f 0x63 0x74 0x65 0x74 00 00 "
            "\n--------------------------------------------\n\n"
            "ACK expected, but got Error\n<flush>Error! Error code: 0x6\n<flush>"
            "Error message: File already exists\n<flush>Server has timed out\n<flush>");
}

TEST_F(FileUpload, DumpsItsSizeInHexadecimalAfterAnotherUpload) {
  has_local_file("");
  for (const std::string& reply : acks_to(1)) transfer.sends(reply);
  const CapturedOutput output;
  EXPECT_EQ(client.sendFile("local.img", "a") + client.sendFile("local.img", "a"), 2);
  std::string second_dump = kDump;
  second_dump.replace(second_dump.find("12"), 2, "0xc");
  EXPECT_EQ(output.text(), kDump + acknowledged(0, 0) + second_dump + acknowledged(1, 0));
}

TEST_F(FileUpload, LeavesADownloadWithHexadecimalLinesAndADecimalRequest) {
  has_local_file("");
  for (const std::string& reply : {ack(0), oack({{"timeout", "0"}, {"blksize", "1024"}, {"tsize", "2000"}}),
                                   data(31, "X"), error(10, "")}) {
    transfer.sends(reply);
  }
  const CapturedOutput output;
  EXPECT_EQ(client.sendFile("local.img", "a"), 1);
  EXPECT_EQ(client.getFile("boot.img", "local.img"), 0);
  EXPECT_EQ(output.text(), kDump + acknowledged(0, 0) + "Remote file is 2000 byte\n" + kTransferStarted +
                               "Block number mismatch. Last_packet=0x1 From server = 0x1f\n"
                               "Error! Error code: 0xa\nError message: Not defined\n");
  expects_all(transfer,
              {data(1, ""), rrq("boot.img", {{"timeout", "5"}, {"blksize", "512"}, {"tsize", "0"}}), ack(0)});
}

TEST_F(FileUpload, LeavesTheLocalFileAndNoDescriptorOpen) {
  const int before = open_descriptors();
  has_local_file("contents");
  uploads({ack(0)});
  EXPECT_EQ(open_descriptors(), before);
  uploads({error(2, "")});
  EXPECT_EQ(open_descriptors(), before);
  EXPECT_EQ(local_file(), "contents");
}

// Files that cannot be read

TEST_F(FileUpload, SendsNothingWhenTheFileCannotBeOpened) {
  EXPECT_EQ(outcome_of([&] { return client.sendFile("no such file", "a"); }),
            (Outcome{0, "Unable to open file no such file\n"}));
  expects_all(server, {});
}

TEST_F(FileUpload, OfADirectoryNeverReachesItsEnd) {
  std::filesystem::create_directory(directory.file("local.img"));
  EXPECT_EQ(uploads({ack(0), ack(1), ack(2), error(3, "")}),
            (Outcome{0, kDump + acknowledged_to(2) +
                            "ACK expected, but got Error\nError! Error code: 0x3\n"
                            "Error message: Disk full or allocation exceeded\n" +
                            kGivenUp}));
  expects_all(transfer, {data(1, ""), data(2, ""), data(3, "")});
}

// What comes instead of the ACK

TEST_F(FileUpload, IsGivenUpWhenItsRequestIsAnsweredWithAnError) {
  has_local_file("contents");
  EXPECT_EQ(uploads({error(1, "text of the server")}),
            (Outcome{0, std::string(kDump) +
                            "ACK expected, but got Error\nError! Error code: 0x1\n"
                            "Error message: File not found\n" +
                            kGivenUp}));
  expects_all(server, {kRequest});
  expects_all(transfer, {});
  EXPECT_EQ(local_file(), "contents");
}

TEST_F(FileUpload, IsGivenUpWhenABlockIsAnsweredWithAnError) {
  has_local_file(std::string(1500, 'a'));
  EXPECT_EQ(uploads({ack(0), ack(1), error(0, "no room"), ack(3)}),
            (Outcome{0, kDump + acknowledged_to(1) +
                            "ACK expected, but got Error\nError! Error code: 0\nError message: no room\n" +
                            kGivenUp}));
  expects_all(transfer, {data(1, std::string(512, 'a')), data(2, std::string(512, 'a'))});
}

TEST_F(FileUpload, GoesOnAfterAnyOtherPacket) {
  const std::string contents = noise(512 * 6 + 5);
  has_local_file(contents);
  EXPECT_EQ(uploads({ack(7), data(9, "X"), oack({{"blksize", "8"}}), rrq("a"), "", bytes("\0"), ack(5)}),
            (Outcome{1, kDump + acknowledged(7, 0) + "DATAK for packet 0x9(expected: 0x1)\n" + kUnhandled +
                            kUnhandled + "Connection was closed by server\n" + kUnhandled + kUnhandled +
                            acknowledged(5, 6)}));
  expects_all(transfer, blocks_of(contents));
}

TEST_F(FileUpload, GoesOnAfterWaitsAndReceivesThatFail) {
  const std::string contents = noise(512 * 2 + 5);
  has_local_file(contents);
  transfer.sends(ack(0));
  transfer.sends(ack(1));
  const Fault interrupted(Call::kSelect, EINTR, 2);
  const Fault refused(Call::kRecvfrom, ECONNREFUSED, 2);
  EXPECT_EQ(uploads(), (Outcome{1, kDump + acknowledged(0, 0) + "Error in select(): \n" + kUnhandled +
                                       "recv() error in waitForPackage()\n" + kUnhandled}));
  EXPECT_EQ(interrupted.struck() + refused.struck(), 2);
  expects_all(transfer, blocks_of(contents));
}

TEST_F(FileUpload, TakesNoNoticeOfSendsThatFail) {
  has_local_file(std::string(600, 'a'));
  for (const std::string& reply : acks_to(1)) transfer.sends(reply);
  const Fault unreachable(Call::kSendto, ENETUNREACH, 1, 3);
  EXPECT_EQ(uploads(), (Outcome{1, kDump + acknowledged_to(1)}));
  EXPECT_EQ(unreachable.struck(), 3);
  expects_all(server, {});
  expects_all(transfer, {});
}

TEST_F(FileUpload, WaitsFiveSecondsForEachAckAndRepeatsNothing) {
  const std::string contents = noise(512);
  has_local_file(contents);
  client.timeout = 1;
  const PlayedWaits waits;
  EXPECT_EQ(uploads(), (Outcome{1, std::string(kDump) + kNothingCame + kNothingCame}));
  EXPECT_EQ(waits.seconds(), std::vector<long>({5, 5}));
  std::vector<std::string> sent = blocks_of(contents);
  sent.insert(sent.begin(), kRequest);
  expects_all(server, sent);
}

// Long files

TEST_F(FileUpload, GoesOnWithBlockZeroAfterBlock65535) {
  constexpr int kWholeBlocks = 65537;
  const std::string contents = noise(std::size_t{512} * kWholeBlocks) + "end";
  has_local_file(contents);
  const CapturedOutput output;
  auto result = std::async(std::launch::async, [&] { return client.sendFile("local.img", "a"); });
  constexpr int kAhead = 64;
  QuickPeer peer(transfer);
  bool all_equal = true;
  for (int sent = 0, block = 1; block <= kWholeBlocks && all_equal; ++block) {
    for (; sent <= kWholeBlocks && sent < block + kAhead; ++sent) peer.sends(ack(sent));
    const auto at = std::size_t{512} * static_cast<std::size_t>(block - 1);
    all_equal = peer.receives() == data(block, contents.substr(at, 512));
  }
  ASSERT_TRUE(all_equal);
  transfer.expects(data(kWholeBlocks + 1, "end"));
  EXPECT_EQ(result.get(), 1);
  EXPECT_TRUE(output.text() == kDump + acknowledged_to(65535) + "ACK for packet 0(expected: 0x10000)\n" +
                                   "ACK for packet 0x1(expected: 0x10001)\n");
}

}  // namespace
