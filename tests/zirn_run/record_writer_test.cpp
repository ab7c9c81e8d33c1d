#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

#include "record/writer.h"
#include "zirn_run/made_record.h"

namespace {

using record::Entry;
using record::Frame;
using record::Interface;
using record::Maker;
using record::Nanoseconds;
using record::Statistics;
using record::Writer;

const MadeRecord made = MadeRecord::in_order_of_this_machine();
constexpr Nanoseconds kAt = 1700000000123456789;
constexpr std::size_t kMostEntryBytes = 262144;

// What an item adds to a record that has none.
template <typename Item>
std::string added(const Item& item) {
  std::ostringstream file;
  Writer writer(file, Maker{"", "", ""});
  file.str("");
  writer.add(item);
  return file.str();
}

Entry entry(std::vector<std::pair<std::string, std::string>> fields, Nanoseconds at = kAt) {
  return {0, at, std::move(fields)};
}

std::string text_of(const Entry& entry) {
  std::string block = added(entry);
  return block.substr(8, block.size() - 12);
}

TEST(RecordWriter, BeginsWithASectionThatSaysWhereAndByWhatItWasMade) {
  std::ostringstream file;
  const Writer writer(file, Maker{"armv7l", "Linux 6.1"});
  EXPECT_EQ(
      file.str(),
      made.block(0x0a0d0d0a, made.u32(0x1a2b3c4d) + made.u16(1) + made.u16(0) + made.u64(~std::uint64_t{0}) +
                                 made.option(2, "armv7l") + made.option(3, "Linux 6.1") +
                                 made.option(4, record::kApplication) + made.end_of_options()));
  EXPECT_EQ(std::string(record::kApplication).substr(0, 9), "zirn-run ");
}

TEST(RecordWriter, ASectionOfWhichNothingIsKnownHasNoOptions) {
  std::ostringstream file;
  const Writer writer(file, Maker{"", "", ""});
  EXPECT_EQ(file.str(), made.section());
}

TEST(RecordWriter, AnInterfaceHasItsNameItsFilterAndNanoseconds) {
  EXPECT_EQ(
      added(Interface{"lan0", "udp port 69", record::kLinuxCooked, 96}),
      made.interface(113, 96,
                     made.option(2, "lan0") + made.option(9, "\x09") +
                         made.option(11, std::string(1, '\0') + "udp port 69") + made.end_of_options()));
  EXPECT_EQ(added(Interface{}), made.interface(1, 0, made.option(9, "\x09") + made.end_of_options()));
}

TEST(RecordWriter, AFrameHasItsTimeItsBytesAndItsSizeOnTheWire) {
  Frame frame;
  frame.interface = 1;
  frame.at = kAt;
  frame.bytes = "a frame";
  frame.size = 1514;
  EXPECT_EQ(added(frame), made.enhanced(1, kAt, "a frame", 1514));
  frame.bytes = "";
  EXPECT_EQ(added(frame), made.enhanced(1, kAt, "", 1514));
}

TEST(RecordWriter, AFrameHasItsComments) {
  Frame frame;
  frame.bytes = "four";
  frame.size = 4;
  frame.comments = {"lost: by chance", "duplicated"};
  EXPECT_EQ(added(frame), made.enhanced(0, 0, "four", 4,
                                        made.option(1, "lost: by chance") + made.option(1, "duplicated") +
                                            made.end_of_options()));
}

TEST(RecordWriter, AFrameIsNoShorterOnTheWireThanWhatIsKept) {
  Frame frame;
  frame.bytes = "a frame";
  EXPECT_EQ(added(frame), made.enhanced(0, 0, "a frame", 7));
}

TEST(RecordWriter, OfAFrameNoMoreIsKeptThanWiresharkReads) {
  const std::string bytes(Writer::kMostFrameBytes + 1, 'x');
  Frame frame;
  frame.bytes = bytes;
  EXPECT_TRUE(added(frame) == made.enhanced(0, 0, bytes.substr(1), Writer::kMostFrameBytes + 1));
}

TEST(RecordWriter, ATimeBefore1970IsWrittenAs1970) {
  Frame frame;
  frame.at = -1;
  EXPECT_EQ(added(frame), made.enhanced(0, 0, "", 0));
  EXPECT_EQ(text_of(entry({}, -1)), MadeRecord::filled_up("__REALTIME_TIMESTAMP=0\n"));
}

TEST(RecordWriter, OfATextSixtyFourKibibytesAreWrittenAndOfCommentsAHundred) {
  Frame frame;
  frame.comments = {std::string(65536, 'x')};
  EXPECT_TRUE(added(frame) ==
              made.enhanced(0, 0, "", 0, made.option(1, std::string(65535, 'x')) + made.end_of_options()));
  frame.comments.assign(101, "x");
  std::string hundred;
  for (int i = 0; i < 100; ++i) hundred += made.option(1, "x");
  EXPECT_TRUE(added(frame) == made.enhanced(0, 0, "", 0, hundred + made.end_of_options()));
}

TEST(RecordWriter, AnEntryHasItsTimeFirstThenItsFields) {
  EXPECT_EQ(added(entry({{"MESSAGE", "Cmd received: a"}, {"PRIORITY", "6"}})),
            made.journal("__REALTIME_TIMESTAMP=1700000000123456\nMESSAGE=Cmd received: a\nPRIORITY=6\n"));
  EXPECT_EQ(added(entry({})), made.journal("__REALTIME_TIMESTAMP=1700000000123456\n"));
}

TEST(RecordWriter, AValueThatIsNoPlainTextHasItsLengthBeforeIt) {
  const std::string before = "__REALTIME_TIMESTAMP=0\nMESSAGE";
  const auto written = [](const std::string& value) { return text_of(entry({{"MESSAGE", value}}, 0)); };
  const auto plain = [&before](const std::string& value) {
    return MadeRecord::filled_up(before + "=" + value + "\n");
  };
  const auto bytes = [&before](const std::string& value) {
    return MadeRecord::filled_up(before + "\n" + MadeRecord(false).u64(value.size()) + value + "\n");
  };
  for (const char* const value : {"", "a=b", "tab\there", "\x7f", "\xc3\xbc", "\xe2\x82\xac",
                                  "\xf0\x9f\x98\x80", "\xed\x9f\xbf", "\xf4\x8f\xbf\xbf"}) {
    EXPECT_EQ(written(value), plain(value));
  }
  for (const std::string& value :
       {std::string("two\nlines"), std::string("a\0b", 3), std::string("\x1f"), std::string("\xfc"),
        std::string("\xc3"), std::string("\xc3("), std::string("\xe2\x82"), std::string("\xc0\xaf"),
        std::string("\xe0\x9f\xbf"), std::string("\xf0\x8f\xbf\xbf"), std::string("\xed\xa0\x80"),
        std::string("\xf4\x90\x80\x80"), std::string("\xf5\x80\x80\x80"), std::string("\x80"),
        std::string(300, '\n')}) {
    EXPECT_EQ(written(value), bytes(value));
  }
}

TEST(RecordWriter, WhatCannotBeAFieldIsLeftOut) {
  EXPECT_EQ(added(entry({{"", "a"},
                         {"message", "a"},
                         {"A B", "a"},
                         {"A=B", "a"},
                         {"A\nB", "a"},
                         {"__REALTIME_TIMESTAMP", "1"},
                         {"__CURSOR", "s=1"},
                         {"_PID", "1"}})),
            made.journal("__REALTIME_TIMESTAMP=1700000000123456\n__CURSOR=s=1\n_PID=1\n"));
}

TEST(RecordWriter, AnEntryThatIsTooLongIsCutInAValue) {
  const std::string text =
      text_of(entry({{"A", "1"}, {"MESSAGE", std::string(kMostEntryBytes, 'x')}, {"B", "2"}}, 0));
  EXPECT_LE(text.size(), kMostEntryBytes);
  EXPECT_GT(text.size(), kMostEntryBytes - 20);
  const std::string before = "__REALTIME_TIMESTAMP=0\nA=1\nMESSAGE=";
  EXPECT_EQ(text.substr(0, before.size()), before);
  EXPECT_EQ(text.find_first_not_of('x', before.size()), text.find('\n', before.size()));
  EXPECT_EQ(text.find_first_not_of(std::string("\n\0", 2), text.find('\n', before.size())),
            std::string::npos);
}

TEST(RecordWriter, AnEntryHasNoMoreFieldsThanTheJournalGivesIt) {
  const std::string text =
      text_of(entry(std::vector<std::pair<std::string, std::string>>(1025, {"A", "1"}), 0));
  EXPECT_EQ(text.find_last_not_of('\0') + 1, std::string("__REALTIME_TIMESTAMP=0\n").size() + 1024 * 4);
}

TEST(RecordWriter, StatisticsHaveWhatIsKnown) {
  EXPECT_EQ(added(Statistics{2, kAt, 1000000000000, 7}),
            made.statistics(2, kAt,
                            made.option(4, made.u64(1000000000000)) + made.option(5, made.u64(7)) +
                                made.end_of_options()));
  EXPECT_EQ(added(Statistics{0, kAt, std::nullopt, 0}),
            made.statistics(0, kAt, made.option(5, made.u64(0)) + made.end_of_options()));
  EXPECT_EQ(added(Statistics{0, kAt, std::nullopt, std::nullopt}), made.statistics(0, kAt, ""));
}

TEST(RecordWriter, CountsInterfacesFromZeroAndFramesWithEntriesFromOne) {
  std::ostringstream file;
  Writer writer(file, {});
  EXPECT_EQ(writer.add(Interface{}), 0U);
  EXPECT_EQ(writer.add(Interface{}), 1U);
  EXPECT_EQ(writer.add(Frame{}), 1U);
  EXPECT_EQ(writer.add(Entry{}), 2U);
  writer.add(Statistics{});
  EXPECT_EQ(writer.add(Frame{}), 3U);
}

TEST(RecordWriter, LeavesAFullDiskToTheCaller) {
  std::ofstream file("/dev/full", std::ios::binary);
  Writer writer(file, {});
  writer.add(Interface{});
  file.flush();
  EXPECT_FALSE(file);
}

}  // namespace
