#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <ostream>
#include <string>
#include <vector>

#include "support/fault.h"
#include "support/file_transfer_record.h"

using namespace tftp;

namespace {

constexpr char kEmptyDatagram[] = "Connection was closed by server\n";
constexpr char kWaitFailed[] = "Error in select(): \n";

// The option acknowledgement that answers a download's request.
class FileDownloadOptions : public FileTransferTest {
 protected:
  // Downloads a small file in one block behind this acknowledgement.
  Outcome downloads_behind(const std::string& acknowledgement) {
    return downloads({acknowledgement, data(1, "end")});
  }
  // The waits behind this block size last no time, so that silence is short.
  Outcome downloads_with_block_size(const std::string& block_size, std::vector<std::string> blocks) {
    blocks.insert(blocks.begin(), oack({{"blksize", block_size}, {"timeout", "0"}}));
    return downloads(blocks);
  }
};

TEST_F(FileDownloadOptions, AreAcknowledgedAsBlockZeroAndTheFileFollows) {
  const std::string contents = noise(2000);
  EXPECT_EQ(downloads({oack({{"blksize", "1024"}, {"tsize", "2000"}}), data(1, contents.substr(0, 1024)),
                       data(2, contents.substr(1024))}),
            (Outcome{1, "Remote file is 2000 byte\nTransfer started\n"}));
  EXPECT_TRUE(local_file() == contents);
  EXPECT_EQ(client.block_size, 1024);
  EXPECT_EQ(client.timeout, 5);
  expects_request();
  expects_acks({0, 1, 2});
}

TEST_F(FileDownloadOptions, AreTakenInTheirOrderAndTheLastOfANameCounts) {
  EXPECT_EQ(downloads_behind(oack({{"tsize", "2"},
                                   {"timeout", "7"},
                                   {"blksize", "8"},
                                   {"timeout", "9"},
                                   {"blksize", "16"},
                                   {"tsize", "1"}})),
            (Outcome{1, "Remote file is 2 byte\nRemote file is 1 byte\nTransfer started\n"}));
  EXPECT_EQ(client.timeout, 9);
  EXPECT_EQ(client.block_size, 16);
  EXPECT_EQ(client.received_packet.max_size, 20);
}

TEST_F(FileDownloadOptions, WithoutAnyPairKeepWhatTheClientAskedFor) {
  client.timeout = 70;
  client.block_size = 5;
  EXPECT_EQ(downloads({oack({}), data(1, "12345"), data(2, "6789")}), (Outcome{1, kTransferStarted}));
  EXPECT_EQ(client.timeout, 70);
  EXPECT_EQ(client.block_size, 5);
  EXPECT_EQ(local_file(), "123456789");
  expects_acks({0, 1, 2});
}

TEST_F(FileDownloadOptions, OfOtherNamesAreIgnored) {
  EXPECT_EQ(downloads_behind(oack({{"TIMEOUT", "9"},
                                   {"Blksize", "8"},
                                   {"tSize", "3"},
                                   {"blksize2", "8"},
                                   {"tsiz", "3"},
                                   {"windowsize", "4"},
                                   {"", "6"},
                                   {"8", "blksize"}})),
            (Outcome{1, kTransferStarted}));
  EXPECT_EQ(client.timeout, 5);
  EXPECT_EQ(client.block_size, 512);
  EXPECT_EQ(local_file(), "end");
  expects_acks({0, 1});
}

TEST_F(FileDownloadOptions, PrintTheSizeAsTheTextThatCame) {
  EXPECT_EQ(downloads_behind(oack({{"tsize", ""}, {"tsize", "0x10 or so"}, {"tsize", "-1"}})),
            (Outcome{1,
                     "Remote file is  byte\nRemote file is 0x10 or so byte\nRemote file is -1 byte\n"
                     "Transfer started\n"}));
}

TEST_F(FileDownloadOptions, WithANameBehindTheLastPairTakeItsValueForEmpty) {
  EXPECT_EQ(downloads_behind(bytes("\0\6tsize\0\062\0timeout")),
            (Outcome{1, "Remote file is 2 byte\nTransfer started\n"}));
  EXPECT_EQ(client.timeout, 0);
}

TEST_F(FileDownloadOptions, ThatFillThePacketEndWithIt) {
  client.received_packet.reSize(13);
  EXPECT_EQ(downloads_behind(oack({{"blksize", "10240"}})), (Outcome{1, kTransferStarted}));
  EXPECT_EQ(client.block_size, 102);
  expects_acks({0, 1});
}

TEST_F(FileDownloadOptions, CountOnlyInTheFirstReply) {
  EXPECT_EQ(downloads({oack({{"blksize", "64"}}), oack({{"blksize", "8"}, {"timeout", "1"}, {"tsize", "1"}}),
                       data(1, "end")}),
            (Outcome{1, kTransferStarted + mismatch(1, 0)}));
  EXPECT_EQ(client.block_size, 64);
  EXPECT_EQ(client.timeout, 5);
  expects_acks({0, 1});
}

TEST_F(FileDownloadOptions, MayComeAfterPacketsThatWereDropped) {
  EXPECT_EQ(downloads({tftp::ack(3), oack({{"timeout", "1"}}), data(1, "end")}),
            (Outcome{1, mismatch(1, 3) + kTransferStarted}));
  EXPECT_EQ(client.timeout, 1);
  expects_acks({0, 1});
}

// Each number that an acknowledged text stands for

struct Number {
  const char* name;
  const char* text;
  std::int32_t value;
};

void PrintTo(const Number& number, std::ostream* stream) {
  *stream << '"' << number.text << '"';
}

constexpr std::int32_t kMax = std::numeric_limits<std::int32_t>::max();
constexpr std::int32_t kMin = std::numeric_limits<std::int32_t>::min();

class AcknowledgedNumber : public FileDownloadOptions, public testing::WithParamInterface<Number> {};

TEST_P(AcknowledgedNumber, IsTheBlockSize) {
  EXPECT_EQ(downloads_with_block_size(GetParam().text, {}), (Outcome{0, kTransferStarted + silence(10)}));
  const std::int32_t value = GetParam().value;
  EXPECT_EQ(client.block_size, value);
  EXPECT_EQ(client.received_packet.max_size, value > 32764 ? 32768 : value + 4);
  EXPECT_EQ(local_file(), kNoFile);
}

TEST_P(AcknowledgedNumber, IsTheTimeout) {
  for (const std::string& reply : {oack({{"timeout", GetParam().text}}), data(1, "end")})
    transfer.sends(reply);
  // No select takes a negative time; the first wait that finds a datagram all the same is the third.
  const bool is_negative = GetParam().value < 0;
  const Fault ready(Call::kSelect, 0, is_negative ? 4 : 1000);
  const std::string failures = times(is_negative ? 2 : 0, kWaitFailed + mismatch(1, 0));
  EXPECT_EQ(downloads(), (Outcome{1, kTransferStarted + failures}));
  EXPECT_EQ(client.timeout, GetParam().value);
  EXPECT_EQ(local_file(), "end");
  expects_acks({0, 1});
}

INSTANTIATE_TEST_SUITE_P(
    , AcknowledgedNumber,
    testing::Values(
        Number{"Plain", "1432", 1432}, Number{"LeadingZeros", "0016", 16}, Number{"LeadingBlank", " 16", 16},
        Number{"PlusSign", "+16", 16}, Number{"TextBehind", "16 bytes", 16},
        Number{"HexadecimalIsZero", "0x10", 0}, Number{"WordIsZero", "big", 0},
        Number{"NothingIsZero", "", 0}, Number{"Zero", "0", 0}, Number{"Negative", "-5", -5},
        Number{"HeaderBelowZero", "-4", -4}, Number{"OneTooLong", "32769", 32769},
        Number{"Most", "2147483647", kMax}, Number{"OneMore", "2147483648", kMin},
        Number{"Least", "-2147483648", kMin},
        // Of more than 32 bits the low ones count; of more than 64, those of the largest or smallest.
        Number{"BeyondTheField", "4294967301", 5}, Number{"BelowTheField", "-4294967301", -5},
        Number{"OneMoreThan64Bits", "9223372036854775808", -1},
        Number{"Beyond64Bits", "99999999999999999999", -1},
        Number{"Below64Bits", "-99999999999999999999", 0}),
    [](const testing::TestParamInfo<Number>& number) { return number.param.name; });

// Blocks of sizes that make no sense

TEST_F(FileDownloadOptions, WithTheLargestBlocksThatFitThePacketBringTheWholeFile) {
  const std::string contents = noise(32764 + 100);
  EXPECT_EQ(downloads_with_block_size("32764",
                                      {data(1, contents.substr(0, 32764)), data(2, contents.substr(32764))}),
            (Outcome{1, kTransferStarted}));
  EXPECT_TRUE(local_file() == contents);
  expects_acks({0, 1, 2});
}

class BlockSizeAboveThePacket : public FileDownloadOptions, public testing::WithParamInterface<int> {};

TEST_P(BlockSizeAboveThePacket, EndsWithTheFirstBlockCutToThePacket) {
  const std::string contents = noise(static_cast<std::size_t>(GetParam()));
  EXPECT_EQ(downloads_with_block_size(std::to_string(GetParam()), {data(1, contents), data(2, "never read")}),
            (Outcome{1, kTransferStarted}));
  EXPECT_TRUE(local_file() == contents.substr(0, 32764));
  expects_acks({0, 1});
  EXPECT_EQ(client.waitForPacket(&client.received_packet, 0), 4);
}

INSTANTIATE_TEST_SUITE_P(, BlockSizeAboveThePacket, testing::Values(32765, 32768, 32769, 40000),
                         testing::PrintToStringParamName());

TEST_F(FileDownloadOptions, WithHugeBlocksEndWithTheFirstOne) {
  for (const char* size : {"32769", "2147483647"}) {
    EXPECT_EQ(downloads_with_block_size(size, {data(1, std::string(600, 'a'))}),
              (Outcome{1, kTransferStarted}));
    EXPECT_EQ(local_file(), std::string(600, 'a'));
    EXPECT_EQ(client.received_packet.max_size, 32768);
  }
}

TEST_F(FileDownloadOptions, WithBlocksOfNoBytesAcknowledgeEachAndNeverEndByThemselves) {
  EXPECT_EQ(downloads_with_block_size("0", {data(1, "abc"), data(2, ""), data(3, "d")}),
            (Outcome{0, kTransferStarted + silence(10)}));
  EXPECT_EQ(local_file(), kNoFile);
  expects_acks({0, 1, 2, 3, 3, 3, 3, 3, 3, 3, 3, 3, 3});
}

TEST_F(FileDownloadOptions, WithoutRoomForAHeaderReceiveNothing) {
  for (const char* size : {"-4", "-5", "-2147483648"}) {
    EXPECT_EQ(downloads_with_block_size(size, {data(1, "abc"), tftp::error(1, "")}),
              (Outcome{0, kTransferStarted + times(2, kEmptyDatagram + mismatch(1, 0)) + silence(10)}));
    client.received_packet.reSize(512);
  }
}

TEST_F(FileDownloadOptions, WithRoomForPartOfAHeaderFindNoBlockNumber) {
  for (const char* size : {"-1", "-2", "-3"}) {
    EXPECT_EQ(downloads_with_block_size(size, {data(1, "abc")}),
              (Outcome{0, kTransferStarted + mismatch(1, 0) + silence(10)}));
    client.received_packet.reSize(512);
  }
}

}  // namespace
