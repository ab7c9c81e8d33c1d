#include <gtest/gtest.h>

#include <string>

#include "support/station.h"

namespace {

using namespace station;

constexpr std::size_t kLargestDatagram = 65536;

class BadOptions : public testing::Test {
 protected:
  void SetUp() override { NEEDS_SANDBOX(); }
};

// The options of one read request, the acknowledgement, of which only the first bytes may have room, and all
// that is printed about it.
void are_acknowledged(const Options& asked, const Options& acknowledged, const std::string& lines = "",
                      std::size_t room = kLargestDatagram) {
  OnLoopback station;
  write_whole_file("file", "contents");
  UdpPeer client = station.asks(rrq("file", asked));
  client.expects(oack(acknowledged).substr(0, room));
  station.printed("RRQ file\n" + lines);
}

void block_size_is_acknowledged(const std::string& value, std::size_t room) {
  are_acknowledged({{"blksize", value}}, {{"blksize", value}}, "", room);
}

void block_size_is_lowered(const std::string& value, const std::string& printed) {
  are_acknowledged({{"blksize", value}}, {{"blksize", "32768"}},
                   "Requested blksize=" + printed + " we support 32768\n");
}

TEST_F(BadOptions, TimeoutBelowFiveBecomesFive) {
  for (const std::string value : {"4", "1", "0", "-1", "-2000000000", "", "abc", "x9", "+4", "4s"}) {
    are_acknowledged({{"timeout", value}}, {{"timeout", "5"}});
  }
}

TEST_F(BadOptions, TimeoutOfFiveAndAboveIsAcknowledgedAsItCame) {
  for (const std::string value : {"5", "6", "255", "256", "2000000000", " 7", "+8", "9s", "007"}) {
    are_acknowledged({{"timeout", value}}, {{"timeout", value}});
  }
}

TEST_F(BadOptions, TimeoutIsJudgedByItsLow32Bits) {
  are_acknowledged({{"timeout", "2147483648"}}, {{"timeout", "5"}});
  are_acknowledged({{"timeout", "4294967295"}}, {{"timeout", "5"}});
  are_acknowledged({{"timeout", "4294967296"}}, {{"timeout", "5"}});
  are_acknowledged({{"timeout", "4294967302"}}, {{"timeout", "4294967302"}});
  are_acknowledged({{"timeout", "2147483647"}}, {{"timeout", "2147483647"}});
}

TEST_F(BadOptions, BlockSizeAbove32768IsLowered) {
  block_size_is_lowered("32769", "32769");
  block_size_is_lowered("65464", "65464");
  block_size_is_lowered("2147483647", "2147483647");
  block_size_is_lowered("0065464 bytes", "65464");
}

TEST_F(BadOptions, BlockSizeIsJudgedByItsLow32Bits) {
  block_size_is_lowered("4295000065", "32769");
  block_size_is_lowered("6442450943", "2147483647");
  block_size_is_acknowledged("4294968320", kLargestDatagram);  // 1024
  block_size_is_acknowledged("4294967296", 4);                 // 0
  block_size_is_acknowledged("4294967295", 3);                 // -1
  block_size_is_acknowledged("2147483648", 0);                 // -2147483648
}

TEST_F(BadOptions, SmallBlockSizesCutTheAcknowledgement) {
  block_size_is_acknowledged("8", 12);
  block_size_is_acknowledged("7", 11);
  block_size_is_acknowledged("1", 5);
  block_size_is_acknowledged("0", 4);
  block_size_is_acknowledged("", 4);
  block_size_is_acknowledged("abc", 4);
}

TEST_F(BadOptions, NegativeBlockSizesLeaveLessAndLessRoom) {
  block_size_is_acknowledged("-1", 3);
  block_size_is_acknowledged("-2", 2);
  block_size_is_acknowledged("-3", 1);
  block_size_is_acknowledged("-4", 0);
  block_size_is_acknowledged("-5", 0);
  block_size_is_acknowledged("-32768", 0);
  block_size_is_acknowledged("-2147483648", 0);
}

TEST_F(BadOptions, BlockSizeOfZeroGivesBlocksWithoutBytes) {
  OnLoopback station;
  write_whole_file("file", "contents");
  UdpPeer client = station.asks(rrq("file", {{"blksize", "0"}}));
  client.expects(bytes("\0\6bl"));
  for (int block = 1; block <= 3; ++block) {
    client.sends(ack(block - 1));
    client.expects(data(block, ""));
  }
  station.printed("RRQ file\n");
}

TEST_F(BadOptions, NegativeBlockSizeGivesEmptyDatagrams) {
  OnLoopback station;
  write_whole_file("file", "contents");
  UdpPeer client = station.asks(rrq("file", {{"blksize", "-5"}}));
  client.expects("");
  client.sends(ack(0));
  client.expects("");
  station.printed("RRQ file\n");
}

TEST_F(BadOptions, TransferSizeIsAnsweredWhateverWasAsked) {
  for (const std::string value : {"0", "", "-1", "abc", "99999999999999999999"}) {
    are_acknowledged({{"tsize", value}}, {{"tsize", "8"}});
  }
}

TEST_F(BadOptions, UnknownOptionsAreAcknowledgedAsTheyCame) {
  are_acknowledged({{"multicast", ""}}, {{"multicast", ""}});
  are_acknowledged({{"BLKSIZE", "8"}, {"Timeout", "1"}, {"TSIZE", "0"}},
                   {{"BLKSIZE", "8"}, {"Timeout", "1"}, {"TSIZE", "0"}});
  are_acknowledged({{"", ""}}, {{"", ""}});
  are_acknowledged({{"blksize ", "8"}}, {{"blksize ", "8"}});
}

TEST_F(BadOptions, RepeatedOptionsAreAllAcknowledgedAndTheLastOneCounts) {
  OnLoopback station;
  write_whole_file("file", "contents!");
  UdpPeer client =
      station.asks(rrq("file", {{"blksize", "600"}, {"tsize", "0"}, {"blksize", "60"}, {"tsize", "1"}}));
  client.expects(oack({{"blksize", "600"}, {"tsize", "9"}, {"blksize", "60"}, {"tsize", "9"}}));
  client.sends(ack(0));
  client.expects(data(1, "contents!"));
  client.sends(ack(1));
  station.printed("RRQ file\n");
}

TEST_F(BadOptions, NameWithoutValueGetsAnEmptyOne) {
  OnLoopback station;
  write_whole_file("file", "contents");
  UdpPeer client = station.asks(rrq("file") + bytes("multicast\0"));
  client.expects(oack({{"multicast", ""}}));
  station.printed("RRQ file\n");
}

TEST_F(BadOptions, LastValueMayLackItsNul) {
  OnLoopback station;
  write_whole_file("file", "contents");
  UdpPeer client = station.asks(rrq("file") + bytes("timeout\0"
                                                    "17"));
  client.expects(oack({{"timeout", "17"}}));
  station.printed("RRQ file\n");
}

TEST_F(BadOptions, AcknowledgementKeepsTheOrderOfTheRequest) {
  OnLoopback station;
  write_whole_file("file", noise(3000));
  UdpPeer client = station.asks(rrq("file", {{"blksize", "1024"}, {"timeout", "2"}, {"tsize", "0"}}));
  client.expects(oack({{"blksize", "1024"}, {"timeout", "5"}, {"tsize", "3000"}}));
  client.expects_nothing(std::chrono::milliseconds(300));
  client.sends(ack(0));
  client.expects(data(1, noise(3000).substr(0, 1024)));
  station.printed("RRQ file\n");
}

}  // namespace
