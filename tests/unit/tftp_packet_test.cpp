#include "tftp_packet/tftp_packet.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <cstring>
#include <iomanip>
#include <iostream>
#include <type_traits>

#include "support/captured_output.h"
#include "support/flush_recorder.h"
#include "support/whole_file.h"

using namespace std::string_literals;

namespace {

using Texts = std::vector<std::string>;

std::string array_of(const TFTP_Packet& packet) {
  return {reinterpret_cast<const char*>(packet.data), static_cast<std::size_t>(packet.max_size)};
}

std::string bytes_of(const TFTP_Packet& packet) {
  return array_of(packet).substr(0, static_cast<std::size_t>(packet.size));
}

// Puts bytes at the beginning of the array, as a receive does, and leaves size alone.
void lay_in(TFTP_Packet& packet, const std::string& bytes) {
  std::memcpy(packet.data, bytes.data(), bytes.size());
}

void receive(TFTP_Packet& packet, const std::string& bytes) {
  lay_in(packet, bytes);
  packet.setSize(static_cast<int>(bytes.size()));
}

// A packet whose array is exactly as long as the bytes it holds.
class FullPacket : public TFTP_Packet {
 public:
  explicit FullPacket(const std::string& bytes) {
    reSize(static_cast<int>(bytes.size()));
    receive(*this, bytes);
  }
};

// What hasOption or isOACK makes of a packet; the lists are not empty before.
struct Parsed {
  using Parser = bool (TFTP_Packet::*)(Texts&, Texts&) const;
  Parsed(Parser parser, const TFTP_Packet& packet) : result((packet.*parser)(names, values)) {}
  Parsed(Parser parser, const std::string& bytes) {
    TFTP_Packet packet;
    receive(packet, bytes);
    result = (packet.*parser)(names, values);
  }

  bool lists_are_empty() const { return names.empty() && values.empty(); }

  Texts names{"left over"};
  Texts values{"left", "over"};
  bool result;
};

Parsed options_of(const std::string& request) {
  return {&TFTP_Packet::hasOption, request};
}

Parsed acknowledged_by(const std::string& oack) {
  return {&TFTP_Packet::isOACK, oack};
}

}  // namespace

TEST(TftpPacket, StartsEmptyWithTheDefaultCapacityAllZero) {
  const TFTP_Packet packet;
  EXPECT_EQ(packet.size, 0);
  EXPECT_EQ(packet.max_size, 32768);
  EXPECT_EQ(array_of(packet), std::string(32768, '\0'));
}

TEST(TftpPacket, LaysOutItsFieldsAsSizeCapacityAndBytes) {
  EXPECT_TRUE((std::is_same_v<decltype(TFTP_Packet::size), std::int32_t>));
  EXPECT_TRUE((std::is_same_v<decltype(TFTP_Packet::max_size), std::int32_t>));
  EXPECT_EQ(sizeof(*TFTP_Packet::data), 1U);
  const TFTP_Packet packet;
  EXPECT_LT(static_cast<const void*>(&packet.size), static_cast<const void*>(&packet.max_size));
  EXPECT_LT(static_cast<const void*>(&packet.max_size), static_cast<const void*>(&packet.data));
}

TEST(TftpPacket, ClearEmptiesItAndFillsTheWholeCapacityWithZero) {
  TFTP_Packet packet;
  receive(packet, std::string(32768, 'x'));
  packet.setSize(3);
  packet.clear();
  EXPECT_EQ(packet.size, 0);
  EXPECT_EQ(packet.max_size, 32768);
  EXPECT_EQ(array_of(packet), std::string(32768, '\0'));
}

TEST(TftpPacket, ReSizeReplacesTheArrayAndEmptiesThePacket) {
  TFTP_Packet packet;
  for (int capacity : {516, 4, 1, 0, 32767, 32768}) {
    packet.setSize(1);
    EXPECT_TRUE(packet.reSize(capacity));
    EXPECT_EQ(packet.max_size, capacity);
    EXPECT_EQ(packet.size, 0);
    std::memset(packet.getData(0), 'x', static_cast<std::size_t>(capacity));
  }
}

TEST(TftpPacket, ReSizeToThePresentCapacityKeepsTheContents) {
  TFTP_Packet packet;
  packet.reSize(8);
  receive(packet, "contents");
  packet.setSize(5);
  const std::uint8_t* const array = packet.data;
  EXPECT_TRUE(packet.reSize(8));
  EXPECT_EQ(packet.size, 5);
  EXPECT_EQ(packet.data, array);
  EXPECT_EQ(array_of(packet), "contents");
}

TEST(TftpPacket, ReSizeAboveTheDefaultCapacityIsRefusedAndChangesNothing) {
  FullPacket packet("contents");
  for (int capacity : {32769, 32772, INT_MAX}) {
    EXPECT_FALSE(packet.reSize(capacity));
    EXPECT_EQ(packet.max_size, 8);
    EXPECT_EQ(bytes_of(packet), "contents");
  }
}

TEST(TftpPacket, ReSizeForBlockAddsTheHeaderToTheBlock) {
  TFTP_Packet packet;
  for (int block_size : {0, 1, 512, 32764, 32765, 32766, 32767, 32768}) {
    packet.setSize(1);
    EXPECT_TRUE(packet.reSizeForBlock(block_size));
    EXPECT_EQ(packet.max_size, block_size + 4);
    const std::string block = noise(static_cast<std::size_t>(block_size));
    packet.createData(1, block.data(), block_size);
    EXPECT_EQ(bytes_of(packet), "\0\3\0\1"s + block);
    packet.clear();
    EXPECT_EQ(array_of(packet), std::string(static_cast<std::size_t>(block_size) + 4, '\0'));
  }
}

TEST(TftpPacket, ReSizeForBlockEmptiesAPacketOfAnotherCapacityOnly) {
  FullPacket packet("contents");
  EXPECT_TRUE(packet.reSizeForBlock(4));
  EXPECT_EQ(bytes_of(packet), "contents");
  EXPECT_TRUE(packet.reSizeForBlock(5));
  EXPECT_EQ(packet.size, 0);
}

TEST(TftpPacket, ReSizeForBlockAboveTheDefaultCapacityIsRefusedAndChangesNothing) {
  FullPacket packet("contents");
  for (int block_size : {32769, INT_MAX}) {
    EXPECT_FALSE(packet.reSizeForBlock(block_size));
    EXPECT_EQ(packet.max_size, 8);
    EXPECT_EQ(bytes_of(packet), "contents");
  }
}

TEST(TftpPacket, ReSizeRefusesWhatOnlyABlockMayHaveEvenWhenItIsThePresentCapacity) {
  TFTP_Packet packet;
  packet.reSizeForBlock(32768);
  packet.setSize(7);
  EXPECT_FALSE(packet.reSize(32772));
  EXPECT_EQ(packet.max_size, 32772);
  EXPECT_EQ(packet.size, 7);
}

TEST(TftpPacket, SetSizeIsMeasuredAgainstTheDefaultCapacityAndNotItsOwn) {
  TFTP_Packet packet;
  packet.reSize(4);
  EXPECT_TRUE(packet.setSize(1000));
  EXPECT_EQ(packet.size, 1000);
  EXPECT_FALSE(packet.setSize(40000));
  EXPECT_FALSE(packet.setSize(32769));
  EXPECT_EQ(packet.size, 1000);
  EXPECT_TRUE(packet.setSize(32768));
  EXPECT_EQ(packet.size, 32768);
  EXPECT_TRUE(packet.setSize(-1));
  EXPECT_EQ(packet.size, -1);
  EXPECT_EQ(packet.max_size, 4);
}

TEST(TftpPacket, SetSizeIsMeasuredAgainstTheDefaultCapacityAlsoWhenItsOwnIsLarger) {
  TFTP_Packet packet;
  packet.reSizeForBlock(32768);
  EXPECT_FALSE(packet.setSize(32772));
  EXPECT_EQ(packet.size, 0);
}

TEST(TftpPacket, GetDataPointsIntoTheArray) {
  TFTP_Packet packet;
  EXPECT_EQ(packet.getData(0), packet.data);
  EXPECT_EQ(packet.getData(4), packet.data + 4);
  EXPECT_EQ(packet.getData(32768), packet.data + 32768);
}

TEST(TftpPacket, WithoutAnArrayHoldsAndGivesNothing) {
  TFTP_Packet packet;
  delete[] packet.data;
  packet.data = nullptr;
  packet.setSize(2);
  char destination[] = "same";
  EXPECT_EQ(packet.getData(0), nullptr);
  EXPECT_EQ(packet.getData(4), nullptr);
  EXPECT_FALSE(packet.copyData(0, destination, 4));
  EXPECT_STREQ(destination, "same");
  EXPECT_FALSE(packet.addMemory("a", 1));
  EXPECT_EQ(packet.size, 2);
  packet.clear();
  EXPECT_EQ(packet.size, 0);
  EXPECT_EQ(packet.receivableSize(), 0);
}

TEST(TftpPacket, SendableAndReceivableSizesStayWithinTheArray) {
  struct Case {
    int capacity, size, sendable, receivable;
  };
  for (const Case& expected : {Case{8, 5, 5, 8}, Case{8, 8, 8, 8}, Case{8, 9, 8, 8}, Case{4, 1000, 4, 4},
                               Case{8, -1, 0, 8}, Case{0, 3, 0, 0}, Case{-5, 3, 0, 0}, Case{-5, 0, 0, 0}}) {
    TFTP_Packet packet;
    packet.reSize(expected.capacity);
    packet.setSize(expected.size);
    EXPECT_EQ(packet.sendableSize(), expected.sendable) << expected.capacity << " " << expected.size;
    EXPECT_EQ(packet.receivableSize(), expected.receivable) << expected.capacity << " " << expected.size;
  }
}

TEST(TftpPacket, CopyDataRefusesToLeaveARemainder) {
  TFTP_Packet packet;
  receive(packet, "0123456789abcdefghij");
  std::string destination(16, '.');
  EXPECT_FALSE(packet.copyData(4, destination.data(), 10));
  EXPECT_FALSE(packet.copyData(4, destination.data(), 15));
  EXPECT_EQ(destination, std::string(16, '.'));
  EXPECT_TRUE(packet.copyData(4, destination.data(), 16));
  EXPECT_EQ(destination, "456789abcdefghij");
}

TEST(TftpPacket, CopyDataCopiesAsMuchAsAskedAlsoFromBehindTheEnd) {
  TFTP_Packet packet;
  receive(packet, "0123456789");
  packet.setSize(4);
  std::string destination(9, '.');
  EXPECT_TRUE(packet.copyData(1, destination.data(), 8));
  EXPECT_EQ(destination, "12345678.");
}

TEST(TftpPacket, CopyDataFromTheEndIsAllowedAndFromBehindItIsNot) {
  TFTP_Packet packet;
  receive(packet, "0123456789");
  packet.setSize(4);
  std::string destination(3, '.');
  EXPECT_TRUE(packet.copyData(4, destination.data(), 0));
  EXPECT_EQ(destination, "...");
  EXPECT_TRUE(packet.copyData(4, destination.data(), 2));
  EXPECT_EQ(destination, "45.");
  EXPECT_FALSE(packet.copyData(5, destination.data(), 2));
  EXPECT_EQ(destination, "45.");
}

TEST(TftpPacket, CopyDataGivesZerosForWhatLiesBehindTheArray) {
  const FullPacket packet("0123");
  std::string destination(7, '.');
  EXPECT_TRUE(packet.copyData(1, destination.data(), 6));
  EXPECT_EQ(destination, "123\0\0\0."s);
}

TEST(TftpPacket, CopyDataOfAPacketThatClaimsMoreThanItsArrayStaysInside) {
  FullPacket packet("0123");
  packet.setSize(6);
  std::string destination(7, '.');
  EXPECT_TRUE(packet.copyData(5, destination.data(), 1));
  EXPECT_EQ(destination, "\0......"s);
  EXPECT_TRUE(packet.copyData(0, destination.data(), 6));
  EXPECT_EQ(destination, "0123\0\0."s);
}

TEST(TftpPacket, CopyDataFromBeforeTheArrayIsRefused) {
  const FullPacket packet("0123");
  std::string destination(6, '.');
  EXPECT_FALSE(packet.copyData(-1, destination.data(), 6));
  EXPECT_EQ(destination, "......");
}

TEST(TftpPacket, DumpDataPrintsTheBytesOnOneLine) {
  TFTP_Packet packet;
  packet.createData(1, "A", 1);
  const CapturedOutput output;
  packet.dumpData();
  EXPECT_EQ(output.text(),
            "\n--------------DATA DUMP---------------------\n"
            "Size: 5\n"
            "00 0x3 00 0x1 0x41 "
            "\n--------------------------------------------\n\n");
}

TEST(TftpPacket, DumpDataPrintsBytesAsUnsignedInLowerCase) {
  const FullPacket packet("\xff\x80\xab\n\x10");
  const CapturedOutput output;
  packet.dumpData();
  EXPECT_EQ(output.text(),
            "\n--------------DATA DUMP---------------------\n"
            "Size: 5\n"
            "0xff 0x80 0xab 0xa 0x10 "
            "\n--------------------------------------------\n\n");
}

TEST(TftpPacket, DumpDataFlushesAfterTheSizeOnly) {
  const FullPacket packet("\1");
  const CapturedOutput restores_the_number_format;
  const FlushRecorder output;
  packet.dumpData();
  EXPECT_EQ(output.text(),
            "\n--------------DATA DUMP---------------------\n"
            "Size: 1\n<flush>"
            "0x1 "
            "\n--------------------------------------------\n\n");
}

TEST(TftpPacket, DumpDataLeavesTheStreamInHexadecimal) {
  const FullPacket packet("\x12");
  const CapturedOutput output;
  packet.dumpData();
  const std::size_t dump = output.text().size();
  std::cout << 255 << " " << 0 << " " << 12345 << " [" << std::setw(6) << 10 << "]\n";
  EXPECT_EQ(output.text().substr(dump), "0xff 0 0x3039 [0x000a]\n");
}

TEST(TftpPacket, DumpDataPrintsTheSizeOfALaterDumpInHexadecimal) {
  TFTP_Packet packet;
  packet.createACK(7);
  const CapturedOutput output;
  packet.dumpData();
  const std::size_t first_dump = output.text().size();
  FullPacket(std::string(16, '\0')).dumpData();
  EXPECT_EQ(output.text().substr(first_dump),
            "\n--------------DATA DUMP---------------------\n"
            "Size: 0x10\n"
            "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 "
            "\n--------------------------------------------\n\n");
}

TEST(TftpPacket, DumpDataOfAnEmptyPacketLeavesTheStreamAsItWas) {
  const TFTP_Packet packet;
  const CapturedOutput output;
  packet.dumpData();
  std::cout << std::setw(4) << 255 << "\n";
  EXPECT_EQ(output.text(),
            "\n--------------DATA DUMP---------------------\n"
            "Size: 0\n"
            "\n--------------------------------------------\n\n"
            " 255\n");
}

TEST(TftpPacket, DumpDataOfAPacketThatClaimsMoreThanItsArrayPrintsZerosBehindIt) {
  FullPacket packet("\1\2\3\4");
  packet.setSize(6);
  const CapturedOutput output;
  packet.dumpData();
  EXPECT_EQ(output.text(),
            "\n--------------DATA DUMP---------------------\n"
            "Size: 6\n"
            "0x1 0x2 0x3 0x4 00 00 "
            "\n--------------------------------------------\n\n");
}

TEST(TftpPacket, AddByteAppendsUntilThePacketIsFull) {
  TFTP_Packet packet;
  packet.reSize(2);
  EXPECT_TRUE(packet.addByte('a'));
  EXPECT_EQ(packet.size, 1);
  EXPECT_TRUE(packet.addByte(0xFF));
  EXPECT_FALSE(packet.addByte('c'));
  EXPECT_EQ(bytes_of(packet), "a\xff");
}

TEST(TftpPacket, AddByteAppendsAtTheSizeThatWasSet) {
  FullPacket packet("0123");
  packet.setSize(2);
  EXPECT_TRUE(packet.addByte('x'));
  EXPECT_EQ(packet.size, 3);
  EXPECT_EQ(array_of(packet), "01x3");
}

TEST(TftpPacket, WritersRefuseWhileTheSizeIsOutsideTheArray) {
  FullPacket packet("0123");
  const CapturedOutput output;
  for (int size : {-1, INT_MIN, 5, 1000}) {
    packet.setSize(size);
    EXPECT_FALSE(packet.addByte('x'));
    EXPECT_FALSE(packet.addWord(0x7878));
    EXPECT_FALSE(packet.addString("x"));
    EXPECT_FALSE(packet.addMemory("x", 1));
    EXPECT_EQ(packet.size, size);
  }
  EXPECT_EQ(array_of(packet), "0123");
}

TEST(TftpPacket, AddWordWritesTheHighByteFirst) {
  TFTP_Packet packet;
  packet.addWord(0x0102);
  packet.addWord(0xFFFE);
  EXPECT_EQ(bytes_of(packet), "\1\2\xff\xfe");
}

TEST(TftpPacket, AddWordReportsSuccessOnlyWhenItsLowByteDoesNotFit) {
  TFTP_Packet packet;
  packet.reSize(5);
  EXPECT_FALSE(packet.addWord(0x6162));
  EXPECT_FALSE(packet.addWord(0x6364));
  EXPECT_TRUE(packet.addWord(0x6566));
  EXPECT_FALSE(packet.addWord(0x6768));
  EXPECT_EQ(bytes_of(packet), "abcde");
}

TEST(TftpPacket, AddStringAppendsTheTextAndANul) {
  TFTP_Packet packet;
  EXPECT_TRUE(packet.addString("ab"));
  EXPECT_TRUE(packet.addString(""));
  EXPECT_TRUE(packet.addString("c"));
  EXPECT_EQ(bytes_of(packet), "ab\0\0c\0"s);
}

TEST(TftpPacket, AddStringDoesNotCountTheNulAmongWhatMustFit) {
  TFTP_Packet packet;
  packet.reSize(3);
  EXPECT_TRUE(packet.addString("abc"));
  EXPECT_EQ(bytes_of(packet), "abc");
  EXPECT_TRUE(packet.addString(""));
  EXPECT_EQ(bytes_of(packet), "abc");
}

TEST(TftpPacket, AddStringKeepsWhatFittedOfATextThatDoesNot) {
  TFTP_Packet packet;
  packet.reSize(3);
  EXPECT_FALSE(packet.addString("abcd"));
  EXPECT_EQ(bytes_of(packet), "abc");
}

TEST(TftpPacket, AddMemoryAppendsAllBytes) {
  TFTP_Packet packet;
  packet.reSize(5);
  const CapturedOutput output;
  EXPECT_TRUE(packet.addMemory("a\0b", 3));
  EXPECT_TRUE(packet.addMemory("cd", 2));
  EXPECT_TRUE(packet.addMemory("e", 0));
  EXPECT_EQ(bytes_of(packet), "a\0bcd"s);
  EXPECT_EQ(output.text(), "");
}

TEST(TftpPacket, AddMemoryWritesNothingOfWhatDoesNotFitAndSaysSoWithoutAFlush) {
  TFTP_Packet packet;
  packet.reSize(5);
  packet.addMemory("abc", 3);
  const FlushRecorder output;
  EXPECT_FALSE(packet.addMemory("def", 3));
  EXPECT_EQ(packet.size, 3);
  EXPECT_EQ(array_of(packet), "abc\0\0"s);
  EXPECT_EQ(output.text(), "Packet max size exceeded\n");
  EXPECT_FALSE(packet.addMemory("def", INT_MAX));
  EXPECT_EQ(packet.size, 3);
  EXPECT_EQ(output.text(), "Packet max size exceeded\nPacket max size exceeded\n");
}

TEST(TftpPacket, WithASizeBelowZeroRefusesEveryWriter) {
  TFTP_Packet packet;
  ASSERT_TRUE(packet.setSize(-1));
  const CapturedOutput output;
  EXPECT_FALSE(packet.addByte(1));
  EXPECT_FALSE(packet.addWord(1));
  EXPECT_FALSE(packet.addString("a"));
  EXPECT_FALSE(packet.addMemory("a", 1));
  EXPECT_EQ(packet.size, -1);
  EXPECT_EQ(output.text(), "");
}

TEST(TftpPacket, WithoutRoomForAByteRefusesEveryWriter) {
  for (int capacity : {0, -1, -5, INT_MIN}) {
    TFTP_Packet packet;
    ASSERT_TRUE(packet.reSize(capacity));
    const CapturedOutput output;
    EXPECT_EQ(packet.max_size, capacity);
    EXPECT_FALSE(packet.addByte(1));
    EXPECT_FALSE(packet.addWord(1));
    EXPECT_FALSE(packet.addString("a"));
    EXPECT_FALSE(packet.addMemory("a", 1));
    EXPECT_EQ(packet.size, 0);
    EXPECT_EQ(output.text(), "Packet max size exceeded\n");
  }
}

TEST(TftpPacket, WithoutRoomForAByteReadsAsNothing) {
  for (int capacity : {0, -1, -5, INT_MIN}) {
    TFTP_Packet packet;
    packet.reSize(capacity);
    packet.setSize(20);
    char text[] = "......";
    EXPECT_EQ(packet.getByte(0), 0);
    EXPECT_EQ(packet.getWord(0), 0);
    EXPECT_TRUE(packet.getString(0, text, 6));
    EXPECT_EQ(std::string(text, 6), "\0\0\0\0\0."s);
    EXPECT_EQ(packet.getNumber(), 0);
    EXPECT_FALSE(packet.isRRQ() || packet.isWRQ() || packet.isData() || packet.isACK() || packet.isError());
    EXPECT_FALSE(Parsed(&TFTP_Packet::hasOption, packet).result);
    EXPECT_FALSE(Parsed(&TFTP_Packet::isOACK, packet).result);
    packet.clear();
    EXPECT_EQ(packet.size, 0);
    EXPECT_EQ(packet.max_size, capacity);
  }
}

TEST(TftpPacket, WithoutRoomForAByteBuildsEmptyPackets) {
  TFTP_Packet packet;
  packet.reSizeForBlock(-5);
  EXPECT_EQ(packet.max_size, -1);
  const CapturedOutput output;
  EXPECT_TRUE(packet.createRRQ("f", {"blksize"}, {"8"}));
  EXPECT_TRUE(packet.createWRQ("f"));
  EXPECT_TRUE(packet.createError(1, "x"));
  EXPECT_TRUE(packet.createOACK({"blksize"}, {"8"}));
  EXPECT_EQ(output.text(), "");
  EXPECT_TRUE(packet.createData(1, "x", 1));
  EXPECT_EQ(output.text(), "Packet max size exceeded\n");
  EXPECT_EQ(packet.size, 0);
  EXPECT_EQ(packet.sendableSize(), 0);
}

TEST(TftpPacket, ReSizeForBlockTakesAnyNegativeBlockSize) {
  for (int block_size : {-1, -4, -5, INT_MIN}) {
    TFTP_Packet packet;
    EXPECT_TRUE(packet.reSizeForBlock(block_size));
    EXPECT_EQ(packet.max_size, block_size + 4);
    EXPECT_EQ(packet.size, 0);
  }
}

TEST(TftpPacket, ComesBackFromANegativeCapacity) {
  TFTP_Packet packet;
  packet.reSize(-5);
  EXPECT_TRUE(packet.reSize(16));
  EXPECT_TRUE(packet.createACK(258));
  EXPECT_EQ(bytes_of(packet), "\0\4\1\2"s);
}

TEST(TftpPacket, GetByteIsUnsigned) {
  const FullPacket packet("\xff\x01");
  EXPECT_EQ(packet.getByte(0), 255);
  EXPECT_EQ(packet.getByte(1), 1);
  EXPECT_TRUE((std::is_same_v<decltype(packet.getByte(0)), std::uint8_t>));
}

TEST(TftpPacket, GetWordIsUnsignedAndBigEndian) {
  const FullPacket packet("\xff\xfe\x01");
  EXPECT_EQ(packet.getWord(0), 0xFFFE);
  EXPECT_EQ(packet.getWord(1), 0xFE01);
  EXPECT_TRUE((std::is_same_v<decltype(packet.getWord(0)), std::uint16_t>));
}

TEST(TftpPacket, GetByteAndGetWordReadZerosOutsideTheArray) {
  const FullPacket packet("\x12\x34");
  EXPECT_EQ(packet.getWord(1), 0x3400);
  for (int offset : {2, 3, 1000, INT_MAX}) {
    EXPECT_EQ(packet.getByte(offset), 0);
    EXPECT_EQ(packet.getWord(offset), 0);
  }
  for (int offset : {-1, -1000, INT_MIN}) EXPECT_EQ(packet.getByte(offset), 0);
  for (int offset : {-2, -1000, INT_MIN}) EXPECT_EQ(packet.getWord(offset), 0);
}

TEST(TftpPacket, GetByteAndGetWordReadBehindTheSizeWithinTheArray) {
  FullPacket packet("\x12\x34\x56\x78");
  packet.setSize(0);
  EXPECT_EQ(packet.getByte(3), 0x78);
  EXPECT_EQ(packet.getWord(2), 0x5678);
}

TEST(TftpPacket, GetStringCopiesAShorterTextAndPadsItWithNuls) {
  TFTP_Packet packet;
  receive(packet, "..text\0more"s);
  std::string destination(10, 'x');
  EXPECT_TRUE(packet.getString(2, destination.data(), 9));
  EXPECT_EQ(destination, "text\0\0\0\0xx"s);
}

TEST(TftpPacket, GetStringCutsALongerTextAndWritesNoNulOfItsOwn) {
  TFTP_Packet packet;
  receive(packet, "text\0"s);
  std::string destination(6, 'x');
  EXPECT_TRUE(packet.getString(0, destination.data(), 4));
  EXPECT_EQ(destination, "texxxx");
  destination = "xxxxxx";
  EXPECT_TRUE(packet.getString(0, destination.data(), 5));
  EXPECT_EQ(destination, "textxx");
}

TEST(TftpPacket, GetStringWithoutRoomForACharacterCopiesNothing) {
  TFTP_Packet packet;
  receive(packet, "text\0"s);
  char destination[] = "same";
  for (int length : {1, 0, -1, INT_MIN}) {
    EXPECT_TRUE(packet.getString(0, destination, length));
    EXPECT_STREQ(destination, "same");
  }
}

TEST(TftpPacket, GetStringFromTheSizeOnIsRefused) {
  TFTP_Packet packet;
  receive(packet, "0123456");
  packet.setSize(4);
  char destination[] = "same";
  EXPECT_FALSE(packet.getString(4, destination, 5));
  EXPECT_FALSE(packet.getString(5, destination, 5));
  EXPECT_FALSE(packet.getString(-1, destination, 5));
  EXPECT_STREQ(destination, "same");
  EXPECT_TRUE(packet.getString(3, destination, 5));
  EXPECT_STREQ(destination, "3456");
}

TEST(TftpPacket, GetStringEndsWithTheArray) {
  FullPacket packet("text");
  packet.setSize(1000);
  std::string destination(8, 'x');
  EXPECT_TRUE(packet.getString(1, destination.data(), 8));
  EXPECT_EQ(destination, "ext\0\0\0\0x"s);
  EXPECT_TRUE(packet.getString(4, destination.data(), 8));
  EXPECT_TRUE(packet.getString(999, destination.data(), 8));
  EXPECT_EQ(destination, "\0\0\0\0\0\0\0x"s);
}

TEST(TftpPacket, GetNumberIsTheBlockOfDataAndAckOnly) {
  for (char opcode = 0; opcode <= 7; ++opcode) {
    TFTP_Packet packet;
    receive(packet, "\0"s + opcode + "\xfe\xdc");
    EXPECT_EQ(packet.getNumber(), opcode == 3 || opcode == 4 ? 0xFEDC : 0) << int{opcode};
  }
}

TEST(TftpPacket, CreateRRQWritesNameModeAndOptions) {
  TFTP_Packet packet;
  EXPECT_TRUE(packet.createRRQ("f", {"blksize"}, {"1024"}));
  EXPECT_EQ(bytes_of(packet), "\0\1f\0octet\0blksize\0001024\0"s);
  EXPECT_TRUE(packet.createRRQ("name", {"timeout", "", "tsize"}, {"5", "v", ""}));
  EXPECT_EQ(bytes_of(packet), "\0\1name\0octet\0timeout\0005\0\0v\0tsize\0\0"s);
}

TEST(TftpPacket, CreateRRQWritesNoOptionsWhenTheListsDifferOrAreEmpty) {
  TFTP_Packet packet;
  EXPECT_TRUE(packet.createRRQ("f", {"blksize"}, {"1024", "0"}));
  EXPECT_EQ(bytes_of(packet), "\0\1f\0octet\0"s);
  EXPECT_TRUE(packet.createRRQ("f", {"blksize", "tsize"}, {"1024"}));
  EXPECT_EQ(bytes_of(packet), "\0\1f\0octet\0"s);
  EXPECT_TRUE(packet.createRRQ("f", {}, {"1024"}));
  EXPECT_EQ(bytes_of(packet), "\0\1f\0octet\0"s);
  EXPECT_TRUE(packet.createRRQ("f", {}, {}));
  EXPECT_EQ(bytes_of(packet), "\0\1f\0octet\0"s);
}

TEST(TftpPacket, CreateRRQIsCutOffAtTheCapacity) {
  TFTP_Packet packet;
  packet.reSize(8);
  EXPECT_TRUE(packet.createRRQ("long_name", {"tsize"}, {"0"}));
  EXPECT_EQ(bytes_of(packet), "\0\1long_n"s);
  EXPECT_TRUE(packet.createRRQ("f", {}, {}));
  EXPECT_EQ(bytes_of(packet), "\0\1f\0octe"s);
}

TEST(TftpPacket, CreateWRQDoublesTheNulsAfterNameAndMode) {
  TFTP_Packet packet;
  EXPECT_TRUE(packet.createWRQ("a"));
  EXPECT_EQ(bytes_of(packet), "\x00\x02\x61\x00\x00\x6f\x63\x74\x65\x74\x00\x00"s);
}

TEST(TftpPacket, CreateDataWritesBlockNumberAndBytes) {
  TFTP_Packet packet;
  EXPECT_TRUE(packet.createData(258, "a\0b", 3));
  EXPECT_EQ(bytes_of(packet), "\0\3\1\2a\0b"s);
}

TEST(TftpPacket, CreateDataWithoutBytesIsTheHeaderAlone) {
  TFTP_Packet packet;
  EXPECT_TRUE(packet.createData(3, nullptr, 0));
  EXPECT_EQ(bytes_of(packet), "\0\3\0\3"s);
}

TEST(TftpPacket, CreateDataOfMoreThanTheCapacityIsTheHeaderAlone) {
  TFTP_Packet packet;
  packet.reSize(8);
  const CapturedOutput output;
  EXPECT_TRUE(packet.createData(1, "abcd", 4));
  EXPECT_EQ(output.text(), "");
  EXPECT_TRUE(packet.createData(1, "abcde", 5));
  EXPECT_EQ(bytes_of(packet), "\0\3\0\1"s);
  EXPECT_EQ(output.text(), "Packet max size exceeded\n");
}

TEST(TftpPacket, CreateDataWithoutBytesSaysNothingHoweverSmallThePacket) {
  TFTP_Packet packet;
  packet.reSize(-1);
  const CapturedOutput output;
  EXPECT_TRUE(packet.createData(1, "x", 0));
  EXPECT_EQ(output.text(), "");
}

TEST(TftpPacket, RoomForDataIsWhereAWholeBlockBelongs) {
  TFTP_Packet packet;
  packet.reSize(8);
  EXPECT_EQ(reinterpret_cast<std::uint8_t*>(packet.roomForData(4)), packet.getData(4));
  EXPECT_EQ(reinterpret_cast<std::uint8_t*>(packet.roomForData(0)), packet.getData(4));
  EXPECT_EQ(packet.roomForData(5), nullptr);
  packet.reSize(3);
  EXPECT_EQ(packet.roomForData(0), nullptr);
  packet.reSize(-1);
  EXPECT_EQ(packet.roomForData(0), nullptr);
}

TEST(TftpPacket, CreateDataInPlaceTakesWhatStandsInItsRoomAndZeroesTheRest) {
  TFTP_Packet packet;
  packet.reSize(12);
  receive(packet, "xxxxxxxxxxxx");
  std::memcpy(packet.roomForData(8), "abc", 3);
  packet.createDataInPlace(258, 3);
  EXPECT_EQ(bytes_of(packet), "\0\3\1\2abc"s);
  EXPECT_EQ(array_of(packet), "\0\3\1\2abc\0\0\0\0\0"s);
}

TEST(TftpPacket, CreateDataInPlaceHoldsNoMoreThanItsCapacity) {
  TFTP_Packet packet;
  packet.reSize(8);
  packet.createDataInPlace(1, 5);
  EXPECT_EQ(packet.size, 8);
  packet.createDataInPlace(1, -1);
  EXPECT_EQ(bytes_of(packet), "\0\3\0\1"s);
}

// The packet is cleared before its bytes are copied.
TEST(TftpPacket, CreateDataFromItsOwnBytesCopiesWhatClearingMakesOfThem) {
  TFTP_Packet packet;
  packet.reSize(16);
  receive(packet, "abcdefghijklmnop");
  EXPECT_TRUE(packet.createData(258, reinterpret_cast<char*>(packet.getData(4)), 5));
  EXPECT_EQ(array_of(packet), "\0\3\1\2\0\0\0\0\0\0\0\0\0\0\0\0"s);
  EXPECT_EQ(packet.size, 9);
  receive(packet, "abcdefghijklmnop");
  EXPECT_TRUE(packet.createData(258, reinterpret_cast<char*>(packet.getData(2)), 6));
  EXPECT_EQ(array_of(packet), "\0\3\1\2\1\2\0\0\0\0\0\0\0\0\0\0"s);
  EXPECT_EQ(packet.size, 10);
  receive(packet, "abcdefghijklmnop");
  EXPECT_TRUE(packet.createData(258, reinterpret_cast<char*>(packet.getData(15)), 1));
  EXPECT_EQ(bytes_of(packet), "\0\3\1\2\0"s);
}

TEST(TftpPacket, GivesItsArrayBack) {
  TFTP_Packet packet;
  receive(packet, "abc");
  packet.release();
  EXPECT_EQ(packet.data, nullptr);
  EXPECT_EQ(packet.size, 0);
  EXPECT_EQ(packet.max_size, 32768);
  EXPECT_EQ(packet.sendableSize(), 0);
  packet.clear();
  EXPECT_FALSE(packet.addByte(1));
  EXPECT_TRUE(packet.reSize(4));
  EXPECT_TRUE(packet.addByte(1));
}

TEST(TftpPacket, StringOfAPacketThatClaimsMoreThanItHasIsEmpty) {
  TFTP_Packet packet;
  packet.release();
  packet.size = 10;
  char text[] = "text";
  EXPECT_TRUE(packet.getString(2, text, sizeof text));
  EXPECT_STREQ(text, "");
}

TEST(TftpPacket, NamesFileAndModeOfARequest) {
  TFTP_Packet packet;
  receive(packet, "\0\1name\0netascii\0blksize\0008\0"s);
  EXPECT_EQ(packet.fileName(), "name");
  EXPECT_EQ(packet.mode(), "netascii");
  receive(packet, "\0\1name"s);
  EXPECT_EQ(packet.mode(), "");
  receive(packet, "\0\1"s);
  EXPECT_EQ(packet.fileName(), "");
}

TEST(TftpPacket, CutsFileAndModeTo255Characters) {
  const std::string name(300, 'n');
  TFTP_Packet packet;
  receive(packet, "\0\1"s + name + "\0octet\0"s);
  EXPECT_EQ(packet.fileName(), std::string(255, 'n'));
  EXPECT_EQ(packet.mode(), std::string(44, 'n'));  // one character is taken for the NUL
  receive(packet, "\0\1f\0"s + name + "\0"s);
  EXPECT_EQ(packet.mode(), std::string(255, 'n'));
}

TEST(TftpPacket, NamesErrorsByTheirCode) {
  const char* const texts[] = {"own text",
                               "File not found",
                               "Access violation",
                               "Disk full or allocation exceeded",
                               "Illegal TFTP operation",
                               "Unknown transfer ID",
                               "File already exists",
                               "No such user",
                               "Not defined",
                               "Not defined"};
  TFTP_Packet packet;
  for (int code = 0; code < 10; ++code) {
    packet.createError(code, "own text");
    EXPECT_EQ(packet.errorCode(), code);
    EXPECT_EQ(packet.errorText(), texts[code]);
  }
  packet.createError(65535, "");
  EXPECT_EQ(packet.errorCode(), 65535);
  EXPECT_EQ(packet.errorText(), "Not defined");
  packet.createError(0, std::string(300, 'x'));
  EXPECT_EQ(packet.errorText(), std::string(255, 'x'));
}

TEST(TftpPacket, ANewPacketMayHaveAnotherCapacity) {
  const TFTP_Packet packet(12);
  EXPECT_EQ(packet.size, 0);
  EXPECT_EQ(packet.max_size, 12);
  EXPECT_EQ(array_of(packet), std::string(12, '\0'));
}

TEST(TftpPacket, CreateACKLeavesACapacityOfFourBytes) {
  TFTP_Packet packet;
  EXPECT_TRUE(packet.createACK(7));
  EXPECT_EQ(bytes_of(packet), "\x00\x04\x00\x07"s);
  EXPECT_EQ(packet.max_size, 4);
  EXPECT_TRUE(packet.createACK(8));
  EXPECT_EQ(bytes_of(packet), "\x00\x04\x00\x08"s);
  EXPECT_TRUE(packet.createWRQ("name"));
  EXPECT_EQ(bytes_of(packet), "\0\2na"s);
}

TEST(TftpPacket, NumbersAreCutToSixteenBits) {
  TFTP_Packet packet;
  packet.createData(65536, nullptr, 0);
  EXPECT_EQ(bytes_of(packet), "\0\3\0\0"s);
  packet.createData(-1, nullptr, 0);
  EXPECT_EQ(bytes_of(packet), "\0\3\xff\xff"s);
  packet.createError(65537, "");
  EXPECT_EQ(bytes_of(packet), "\0\5\0\1\0\0"s);
  packet.createACK(65536);
  EXPECT_EQ(bytes_of(packet), "\0\4\0\0"s);
  packet.createACK(65535);
  EXPECT_EQ(bytes_of(packet), "\0\4\xff\xff"s);
}

TEST(TftpPacket, CreateErrorDoublesTheNulAfterTheMessage) {
  TFTP_Packet packet;
  EXPECT_TRUE(packet.createError(1, "x"));
  EXPECT_EQ(bytes_of(packet), "\x00\x05\x00\x01\x78\x00\x00"s);
  EXPECT_TRUE(packet.createError(0x0102, ""));
  EXPECT_EQ(bytes_of(packet), "\0\5\1\2\0\0"s);
}

TEST(TftpPacket, CreateOACKWritesAValueForEveryName) {
  TFTP_Packet packet;
  EXPECT_TRUE(packet.createOACK({"blksize", "tsize"}, {"1024", "0", "unused"}));
  EXPECT_EQ(bytes_of(packet), "\0\6blksize\0001024\0tsize\0000\0"s);
  EXPECT_TRUE(packet.createOACK({}, {}));
  EXPECT_EQ(bytes_of(packet), "\0\6"s);
}

TEST(TftpPacket, EveryBuilderZeroesTheWholeCapacityFirst) {
  const auto built_over_old_contents = [](auto build) {
    TFTP_Packet packet;
    receive(packet, std::string(32768, 'x'));
    build(packet);
    return array_of(packet).substr(static_cast<std::size_t>(packet.size));
  };
  const auto zeros_after = [](std::size_t size) { return std::string(32768 - size, '\0'); };
  EXPECT_EQ(built_over_old_contents([](auto& packet) { packet.createRRQ("f", {}, {}); }), zeros_after(10));
  EXPECT_EQ(built_over_old_contents([](auto& packet) { packet.createWRQ("f"); }), zeros_after(12));
  EXPECT_EQ(built_over_old_contents([](auto& packet) { packet.createData(1, "x", 1); }), zeros_after(5));
  EXPECT_EQ(built_over_old_contents([](auto& packet) { packet.createError(1, "x"); }), zeros_after(7));
  EXPECT_EQ(built_over_old_contents([](auto& packet) { packet.createOACK({}, {}); }), zeros_after(2));
}

TEST(TftpPacket, KindsAreToldByTheOpcodeAloneAndNotByTheSize) {
  for (int size : {0, 4}) {
    for (char opcode = 0; opcode <= 7; ++opcode) {
      TFTP_Packet packet;
      lay_in(packet, "\0"s + opcode);
      packet.setSize(size);
      EXPECT_EQ(packet.isRRQ(), opcode == 1);
      EXPECT_EQ(packet.isWRQ(), opcode == 2);
      EXPECT_EQ(packet.isData(), opcode == 3);
      EXPECT_EQ(packet.isACK(), opcode == 4);
      EXPECT_EQ(packet.isError(), opcode == 5);
      EXPECT_EQ(Parsed(&TFTP_Packet::isOACK, packet).result, opcode == 6);
    }
  }
}

TEST(TftpPacket, KindsAreToldByBothBytesOfTheOpcode) {
  for (char opcode = 1; opcode <= 6; ++opcode) {
    const FullPacket packet("\1"s + opcode + "abcd");
    EXPECT_FALSE(packet.isRRQ() || packet.isWRQ() || packet.isData() || packet.isACK() || packet.isError());
    EXPECT_FALSE(Parsed(&TFTP_Packet::isOACK, packet).result);
    EXPECT_FALSE(Parsed(&TFTP_Packet::hasOption, packet).result);
  }
}

TEST(TftpPacket, HasOptionFindsNothingInARequestWithoutOptions) {
  for (const std::string& request : {"\0\1f\0octet\0"s, "\0\2f\0octet\0"s, "\0\1\0\0"s, "\0\1"s, ""s}) {
    const Parsed parsed = options_of(request);
    EXPECT_FALSE(parsed.result);
    EXPECT_TRUE(parsed.lists_are_empty());
  }
}

TEST(TftpPacket, HasOptionFindsNothingInOtherKinds) {
  for (char opcode : {'\0', '\3', '\4', '\5', '\6', '\7'}) {
    const Parsed parsed = options_of("\0"s + opcode + "f\0octet\0tsize\0000\0"s);
    EXPECT_FALSE(parsed.result) << int{opcode};
    EXPECT_TRUE(parsed.lists_are_empty());
  }
}

TEST(TftpPacket, HasOptionGivesNamesAndValues) {
  for (const std::string& opcode : {"\0\1"s, "\0\2"s}) {
    const Parsed parsed = options_of(opcode + "f\0octet\0tsize\0000\0"s);
    EXPECT_TRUE(parsed.result);
    EXPECT_EQ(parsed.names, (Texts{"tsize"}));
    EXPECT_EQ(parsed.values, (Texts{"0"}));
  }
}

TEST(TftpPacket, HasOptionTakesNamesAndValuesAsTheyAreAndInOrder) {
  const Parsed parsed = options_of("\0\1f\0octet\0BLKSIZE\0x y\0unknown\0\0\0v\0tsize\0001\0tsize\0002\0"s);
  EXPECT_TRUE(parsed.result);
  EXPECT_EQ(parsed.names, (Texts{"BLKSIZE", "unknown", "", "tsize", "tsize"}));
  EXPECT_EQ(parsed.values, (Texts{"x y", "", "v", "1", "2"}));
}

TEST(TftpPacket, HasOptionTakesAsValueOfALastNameWhatFollowsInTheArray) {
  TFTP_Packet packet;
  receive(packet, "\0\1f\0octet\0tsize\0"s);
  const Parsed before(&TFTP_Packet::hasOption, packet);
  EXPECT_TRUE(before.result);
  EXPECT_EQ(before.names, (Texts{"tsize"}));
  EXPECT_EQ(before.values, (Texts{""}));

  lay_in(packet, "\0\1f\0octet\0tsize\0behind\0more\0"s);
  const Parsed after(&TFTP_Packet::hasOption, packet);
  EXPECT_EQ(after.names, (Texts{"tsize"}));
  EXPECT_EQ(after.values, (Texts{"behind"}));
}

TEST(TftpPacket, HasOptionTakesAnUnendedNameOrValueUpToTheNextNul) {
  TFTP_Packet packet;
  lay_in(packet, "\0\1f\0octet\0tsize\000123\0"s);
  packet.setSize(12);
  const Parsed parsed(&TFTP_Packet::hasOption, packet);
  EXPECT_EQ(parsed.names, (Texts{"tsize"}));
  EXPECT_EQ(parsed.values, (Texts{"123"}));
}

TEST(TftpPacket, HasOptionFindsTheModeOfItsOwnWRQAsAnOption) {
  TFTP_Packet packet;
  packet.createWRQ("a");
  const Parsed parsed(&TFTP_Packet::hasOption, packet);
  EXPECT_TRUE(parsed.result);
  EXPECT_EQ(parsed.names, (Texts{"octet"}));
  EXPECT_EQ(parsed.values, (Texts{""}));
}

TEST(TftpPacket, HasOptionNeverLeavesTheArray) {
  const std::string request = "\0\1f\0octet\0tsize\000123"s;
  for (std::size_t length = 0; length <= request.size(); ++length) {
    FullPacket packet(request.substr(0, length));
    const Parsed parsed(&TFTP_Packet::hasOption, packet);
    EXPECT_EQ(parsed.result, length > 10) << length;
    packet.setSize(32768);
    const Parsed claims_more(&TFTP_Packet::hasOption, packet);
    EXPECT_EQ(claims_more.result, length > 1) << length;
    EXPECT_EQ(claims_more.names.size(), claims_more.values.size());
  }
  const Parsed parsed(&TFTP_Packet::hasOption, FullPacket(request));
  EXPECT_EQ(parsed.names, (Texts{"tsize"}));
  EXPECT_EQ(parsed.values, (Texts{"123"}));
}

TEST(TftpPacket, HasOptionOfARequestThatFillsTheArrayWithoutANulFindsNothing) {
  const Parsed parsed(&TFTP_Packet::hasOption, FullPacket("\0\1"s + std::string(510, 'x')));
  EXPECT_FALSE(parsed.result);
  EXPECT_EQ(parsed.names, Texts{});
}

TEST(TftpPacket, IsOACKAcceptsOneWithoutOptions) {
  const Parsed parsed = acknowledged_by("\0\6"s);
  EXPECT_TRUE(parsed.result);
  EXPECT_TRUE(parsed.lists_are_empty());
}

TEST(TftpPacket, IsOACKRefusesOtherKinds) {
  for (char opcode : {'\0', '\1', '\2', '\3', '\4', '\5', '\7'}) {
    const Parsed parsed = acknowledged_by("\0"s + opcode + "tsize\0000\0"s);
    EXPECT_FALSE(parsed.result) << int{opcode};
    EXPECT_TRUE(parsed.lists_are_empty());
  }
}

TEST(TftpPacket, IsOACKGivesNamesAndValuesAsTheyAreAndInOrder) {
  const Parsed parsed = acknowledged_by("\0\6TSIZE\0002000\0x\0\0x\0y\0"s);
  EXPECT_TRUE(parsed.result);
  EXPECT_EQ(parsed.names, (Texts{"TSIZE", "x", "x"}));
  EXPECT_EQ(parsed.values, (Texts{"2000", "", "y"}));
}

TEST(TftpPacket, IsOACKTakesASingleByteBehindTheOpcodeAsAPair) {
  const Parsed parsed = acknowledged_by("\0\6\0"s);
  EXPECT_TRUE(parsed.result);
  EXPECT_EQ(parsed.names, (Texts{""}));
  EXPECT_EQ(parsed.values, (Texts{""}));
}

TEST(TftpPacket, IsOACKNeverLeavesTheArray) {
  const std::string oack = "\0\6tsize\000123"s;
  for (std::size_t length = 0; length <= oack.size(); ++length) {
    FullPacket packet(oack.substr(0, length));
    EXPECT_EQ(Parsed(&TFTP_Packet::isOACK, packet).result, length > 1) << length;
    packet.setSize(32768);
    const Parsed claims_more(&TFTP_Packet::isOACK, packet);
    EXPECT_EQ(claims_more.result, length > 1) << length;
    EXPECT_EQ(claims_more.names.size(), claims_more.values.size());
  }
  const Parsed parsed(&TFTP_Packet::isOACK, FullPacket(oack));
  EXPECT_EQ(parsed.names, (Texts{"tsize"}));
  EXPECT_EQ(parsed.values, (Texts{"123"}));
}
