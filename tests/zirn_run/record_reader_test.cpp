#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <limits>
#include <sstream>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <vector>

#include "record/reader.h"
#include "record/writer.h"
#include "support/scratch_directory.h"
#include "zirn_run/made_record.h"

namespace {

using record::Clock;
using record::Entry;
using record::Frame;
using record::Interface;
using record::Item;
using record::NotARecord;
using record::Reader;
using record::Statistics;

constexpr std::uint32_t kMicroseconds = 0xa1b2c3d4;
constexpr std::uint32_t kNanoseconds = 0xa1b23c4d;
const std::string kEntry = "__REALTIME_TIMESTAMP=1700000000123456\nMESSAGE=a line\n";

std::string words(const Item& item) {
  std::ostringstream text;
  if (const auto* interface = std::get_if<Interface>(&item)) {
    text << "interface '" << interface->name << "' filter '" << interface->filter << "' link "
         << interface->link_type << " snap " << interface->snap_length;
  } else if (const auto* frame = std::get_if<Frame>(&item)) {
    text << frame->number << ": interface " << frame->interface << " link " << frame->link_type << " at "
         << frame->at << (frame->is_timed ? "" : "?") << " '" << frame->bytes << "' of " << frame->size;
    for (const std::string& comment : frame->comments) text << " (" << comment << ")";
  } else if (const auto* entry = std::get_if<Entry>(&item)) {
    text << entry->number << ": entry at " << entry->at;
    for (const auto& [name, value] : entry->fields) text << " " << name << "=" << value;
  } else if (const auto* statistics = std::get_if<Statistics>(&item)) {
    text << "interface " << statistics->interface << " at " << statistics->at;
    if (statistics->received) text << " received " << *statistics->received;
    if (statistics->dropped) text << " dropped " << *statistics->dropped;
  }
  return text.str();
}

using Words = std::vector<std::string>;

// Everything in a file, and the problem at the end of it where there is one.
Words read(std::istream& file) {
  Words result;
  try {
    Reader reader(file);
    while (const auto item = reader.next()) result.push_back(words(*item));
    EXPECT_FALSE(reader.next());
    if (!reader.problem().empty()) result.push_back(reader.problem());
  } catch (const NotARecord& error) {
    result.push_back(error.what());
  }
  return result;
}

Words read(const std::string& contents) {
  std::istringstream file(contents);
  return read(file);
}

class RecordReader : public testing::TestWithParam<bool> {
 protected:
  const MadeRecord made{GetParam()};
};

INSTANTIATE_TEST_SUITE_P(OrderOfBytes, RecordReader, testing::Bool(),
                         [](const auto& big) { return big.param ? "BigEndian" : "LittleEndian"; });

TEST_P(RecordReader, ReadsAnInterface) {
  EXPECT_EQ(read(made.section() +
                 made.interface(276, 96,
                                made.option(2, "lan0") + made.option(9, "\x09") +
                                    made.option(11, std::string(1, '\0') + "udp") + made.end_of_options())),
            Words({"interface 'lan0' filter 'udp' link 276 snap 96"}));
}

TEST_P(RecordReader, AFilterThatIsNoTextIsNotTold) {
  EXPECT_EQ(read(made.section() +
                 made.interface(1, 0,
                                made.option(11,
                                            "\x01"
                                            "bpf")) +
                 made.interface(1, 0, made.option(11, ""))),
            Words({"interface '' filter '' link 1 snap 0", "interface '' filter '' link 1 snap 0"}));
}

TEST_P(RecordReader, ReadsAFrameWithItsComments) {
  EXPECT_EQ(
      read(made.section() + made.interface(1, 0, made.option(9, "\x09")) +
           made.enhanced(0, 1700000000123456789, "a frame", 1514,
                         made.option(1, "lost: by chance") + made.option(2, "flag") + made.option(1, "two") +
                             made.end_of_options() + made.option(1, "beyond"))),
      Words({"interface '' filter '' link 1 snap 0",
             "1: interface 0 link 1 at 1700000000123456789 'a frame' of 1514 (lost: by chance) (two)"}));
}

TEST_P(RecordReader, AFrameIsNoShorterOnTheWireThanWhatIsKept) {
  EXPECT_EQ(read(made.section() + made.interface(1, 0) + made.enhanced(0, 0, "a frame", 2)).back(),
            "1: interface 0 link 1 at 0 'a frame' of 7");
}

TEST_P(RecordReader, WithoutAResolutionTimesAreMicroseconds) {
  EXPECT_EQ(read(made.section() + made.interface(1, 0) + made.enhanced(0, 1700000000123456, "", 0)).back(),
            "1: interface 0 link 1 at 1700000000123456000 '' of 0");
}

TEST_P(RecordReader, EachInterfaceHasItsResolutionAndOffset) {
  EXPECT_EQ(
      read(made.section() + made.interface(1, 0, made.option(9, "\x03")) +
           made.interface(1, 0, made.option(9, "\x8a")) +
           made.interface(1, 0, made.option(9, std::string(1, '\0')) + made.option(14, made.u64(1000))) +
           made.interface(1, 0, made.option(14, made.u64(~std::uint64_t{0}))) +
           made.enhanced(0, 1001, "", 0) + made.enhanced(1, 1536, "", 0) + made.enhanced(2, 5, "", 0) +
           made.enhanced(3, 1000000, "", 0)),
      Words({"interface '' filter '' link 1 snap 0", "interface '' filter '' link 1 snap 0",
             "interface '' filter '' link 1 snap 0", "interface '' filter '' link 1 snap 0",
             "1: interface 0 link 1 at 1001000000 '' of 0", "2: interface 1 link 1 at 1500000000 '' of 0",
             "3: interface 2 link 1 at 1005000000000 '' of 0", "4: interface 3 link 1 at 0 '' of 0"}));
}

TEST_P(RecordReader, ReadsAnObsoleteFrame) {
  EXPECT_EQ(read(made.section() + made.interface(1, 0) + made.interface(113, 0) +
                 made.obsolete(1, 2000000, "a frame", 1514, made.option(1, "old")))
                .back(),
            "1: interface 1 link 113 at 2000000000 'a frame' of 1514 (old)");
}

TEST_P(RecordReader, ASimpleFrameIsOfTheFirstInterfaceAndHasNoTime) {
  EXPECT_EQ(
      read(made.section() + made.interface(113, 0) + made.interface(1, 0) + made.simple("a frame", 7) +
           made.enhanced(1, 2000000, "", 0) + made.simple("a frame", 7)),
      Words({"interface '' filter '' link 113 snap 0", "interface '' filter '' link 1 snap 0",
             "1: interface 0 link 113 at 0? 'a frame' of 7", "2: interface 1 link 1 at 2000000000 '' of 0",
             "3: interface 0 link 113 at 2000000000? 'a frame' of 7"}));
}

TEST_P(RecordReader, ASimpleFrameIsCutWhereItsInterfaceCutsFrames) {
  EXPECT_EQ(read(made.section() + made.interface(1, 3) + made.simple("a f", 7)).back(),
            "1: interface 0 link 1 at 0? 'a f' of 7");
}

TEST_P(RecordReader, ReadsAnEntry) {
  const std::string bytes = "PRIORITY=6\nMESSAGE\n" + MadeRecord(false).u64(3) + "a\nb\n";
  EXPECT_EQ(read(made.section() + made.journal(kEntry + bytes)),
            Words({"1: entry at 1700000000123456000 MESSAGE=a line PRIORITY=6 MESSAGE=a\nb"}));
}

TEST_P(RecordReader, AnEmptyLineEndsAnEntry) {
  EXPECT_EQ(read(made.section() + made.journal(kEntry + "\nPRIORITY=6\n")),
            Words({"1: entry at 1700000000123456000 MESSAGE=a line"}));
}

TEST_P(RecordReader, TheTimeOfAnEntryMayStandAnywhere) {
  EXPECT_EQ(read(made.section() + made.journal("A=1\n__REALTIME_TIMESTAMP=7\nB=2\n")),
            Words({"1: entry at 7000 A=1 B=2"}));
}

TEST_P(RecordReader, ReadsStatistics) {
  EXPECT_EQ(read(made.section() + made.interface(1, 0) +
                 made.statistics(0, 5,
                                 made.option(4, made.u64(1000000000000)) + made.option(5, made.u64(7)) +
                                     made.option(7, made.u64(8))))
                .back(),
            "interface 0 at 5000 received 1000000000000 dropped 7");
  EXPECT_EQ(
      read(made.section() + made.interface(1, 0) + made.statistics(0, 5, made.option(7, made.u64(8)))).back(),
      "interface 0 at 5000 dropped 8");
  EXPECT_EQ(
      read(made.section() + made.interface(1, 0) + made.statistics(0, 5, made.option(4, "four"))).back(),
      "interface 0 at 5000");
}

TEST_P(RecordReader, CountsWhatWiresharkCounts) {
  EXPECT_EQ(
      read(made.section() + made.interface(1, 0) + made.block(4, made.u32(0)) + made.block(0x1234, "what") +
           made.block(0x80001234, "") + made.enhanced(0, 0, "", 0) + made.journal(kEntry) +
           made.block(0xbad, made.u32(1)) + made.block(0x40000bad, made.u32(1)) +
           made.block(0x204, std::string(30, '\0') + "ab") + made.block(0x216, std::string(32, '\0')) +
           made.block(0x221, std::string(32, '\0')) + made.simple("", 0) + made.obsolete(0, 0, "", 0)),
      Words({"interface '' filter '' link 1 snap 0", "1: interface 0 link 1 at 0 '' of 0",
             "2: entry at 1700000000123456000 MESSAGE=a line",
             "8: interface 0 link 1 at 1700000000123456000? '' of 0", "9: interface 0 link 1 at 0 '' of 0"}));
}

TEST_P(RecordReader, ASectionHasItsOwnInterfacesAndOrderOfBytes) {
  const MadeRecord other(!GetParam());
  EXPECT_EQ(read(made.section() + made.interface(1, 0) + made.interface(1, 0) + made.enhanced(1, 0, "", 0) +
                 other.section() + other.interface(113, 0) + other.enhanced(0, 1, "", 0)),
            Words({"interface '' filter '' link 1 snap 0", "interface '' filter '' link 1 snap 0",
                   "1: interface 1 link 1 at 0 '' of 0", "interface '' filter '' link 113 snap 0",
                   "2: interface 2 link 113 at 1000 '' of 0"}));
}

TEST_P(RecordReader, WhatIsDamagedInOptionsIsLeftOut) {
  EXPECT_EQ(read(made.section() + made.interface(1, 0) +
                 made.enhanced(0, 0, "", 0, made.option(1, "good") + made.u16(1) + made.u16(9) + "too far.")),
            Words({"interface '' filter '' link 1 snap 0", "1: interface 0 link 1 at 0 '' of 0 (good)"}));
}

TEST_P(RecordReader, OfAThousandCommentsAHundredAreKept) {
  std::string comments;
  for (int i = 0; i < 1000; ++i) comments += made.option(1, "x");
  std::istringstream file(made.section() + made.interface(1, 0) + made.enhanced(0, 0, "", 0, comments));
  Reader reader(file);
  reader.next();
  EXPECT_EQ(std::get<Frame>(*reader.next()).comments.size(), 100U);
}

TEST_P(RecordReader, ReadsAClassicCapture) {
  EXPECT_EQ(read(made.pcap_header(kMicroseconds, 1) + made.pcap_frame(1700000000, 123456, "a frame", 1514) +
                 made.pcap_frame(1700000001, 999999, "", 0) + made.pcap_frame(1700000002, 0, "more", 2)),
            Words({"interface '' filter '' link 1 snap 65535",
                   "1: interface 0 link 1 at 1700000000123456000 'a frame' of 1514",
                   "2: interface 0 link 1 at 1700000001999999000 '' of 0",
                   "3: interface 0 link 1 at 1700000002000000000 'more' of 4"}));
}

TEST_P(RecordReader, ReadsAClassicCaptureInNanoseconds) {
  EXPECT_EQ(
      read(made.pcap_header(kNanoseconds, 113) + made.pcap_frame(1700000000, 123456789, "a frame", 7)).back(),
      "1: interface 0 link 113 at 1700000000123456789 'a frame' of 7");
  EXPECT_EQ(read(made.pcap_header(kNanoseconds, 1) + made.pcap_frame(0xffffffff, 0xffffffff, "", 0)).back(),
            "1: interface 0 link 1 at 4294967299294967295 '' of 0");
}

TEST_P(RecordReader, OfALinkTypeTheCheckSumsAreMasked) {
  EXPECT_EQ(read(made.pcap_header(kMicroseconds, 0x44000071, 0)),
            Words({"interface '' filter '' link 113 snap 0"}));
}

TEST_P(RecordReader, ACaptureWithoutFramesIsWhole) {
  EXPECT_EQ(read(made.pcap_header(kMicroseconds, 1)), Words({"interface '' filter '' link 1 snap 65535"}));
  EXPECT_EQ(read(made.section()), Words({}));
}

// All kinds of blocks.
std::string sample(const MadeRecord& made) {
  return made.section() + made.interface(1, 0, made.option(2, "lan0") + made.end_of_options()) +
         made.enhanced(0, 1, "a frame", 7, made.option(1, "lost") + made.end_of_options()) +
         made.journal(kEntry) + made.block(0x1234, "what") + made.obsolete(0, 2, "frame", 5) +
         made.simple("four", 4) + made.statistics(0, 5, made.option(5, made.u64(7)) + made.end_of_options());
}

// Where the blocks or frames begin, and the file's end.
std::vector<std::size_t> places(const std::string& file, const std::vector<std::size_t>& sizes) {
  std::vector<std::size_t> result = {0};
  for (const std::size_t size : sizes) result.push_back(result.back() + size);
  EXPECT_EQ(result.back(), file.size());
  return result;
}

// Of what is cut within an item: all before it, and one sentence that says where it begins.
void expect_cut_everywhere(const std::string& file, const std::vector<std::size_t>& begins,
                           const Words& items, const std::vector<std::size_t>& items_before) {
  for (std::size_t size = 4; size < file.size(); ++size) {
    std::size_t block = 0;
    while (begins[block + 1] <= size) ++block;
    Words expected(items.begin(), items.begin() + static_cast<std::ptrdiff_t>(items_before[block]));
    Words found = read(file.substr(0, size));
    if (begins[block] != size) {
      ASSERT_FALSE(found.empty()) << size;
      const std::string begin = "byte " + std::to_string(begins[block]) +
                                ": the file is cut short: " + std::to_string(size - begins[block]) + " of ";
      EXPECT_EQ(found.back().substr(0, begin.size()), begin) << size;
      found.pop_back();
    }
    EXPECT_EQ(found, expected) << size;
  }
}

TEST_P(RecordReader, CutAnywhereARecordIsReadUpToTheCut) {
  const std::string file = sample(made);
  const Words items = read(file);
  ASSERT_EQ(items.size(), 6U);
  const std::vector<std::size_t> begins =
      places(file, {28, 32, 52, made.journal(kEntry).size(), 16, 40, 20, 40});
  expect_cut_everywhere(file, begins, items, {0, 0, 1, 2, 3, 3, 4, 5});
  EXPECT_EQ(read(file.substr(0, 61)).back(),
            "byte 60: the file is cut short: 1 of 12 bytes of a block are there");
  EXPECT_EQ(read(file.substr(0, 80)).back(),
            "byte 60: the file is cut short: 20 of 52 bytes of the block are there");
}

TEST_P(RecordReader, CutAnywhereAClassicCaptureIsReadUpToTheCut) {
  const std::string file = made.pcap_header(kMicroseconds, 1) + made.pcap_frame(1, 2, "a frame", 7) +
                           made.pcap_frame(3, 4, "", 0) + made.pcap_frame(5, 6, "four", 4);
  expect_cut_everywhere(file, places(file, {24, 23, 16, 20}), read(file), {0, 1, 2, 3});
  EXPECT_EQ(read(file.substr(0, 20)).back(),
            "byte 0: the file is cut short: 20 of 24 bytes of the file's header are there");
  EXPECT_EQ(read(file.substr(0, 46)).back(),
            "byte 24: the file is cut short: 22 of 23 bytes of a frame are there");
}

// What comes after a good frame.
// A file cut between two blocks looks whole; ours do not.
TEST_P(RecordReader, TellsARecordOfOursThatBreaksOffBetweenTwoBlocksFromAWholeOne) {
  const std::string beginning = made.section(made.option(4, "zirn-run 9.9")) + made.interface(1, 0) +
                                made.interface(1, 0) + made.enhanced(0, 5, "frame", 5);
  const std::string first = made.statistics(0, 6, ""), second = made.statistics(1, 6, "");
  for (const std::string& cut : {beginning, beginning + first, beginning + first + made.journal(kEntry),
                                 beginning + first + second + made.journal(kEntry)}) {
    EXPECT_EQ(read(cut).back(),
              "byte " + std::to_string(cut.size()) +
                  ": the record breaks off, or another tool has saved it anew: expected the "
                  "statistics of each network at its end, found none");
  }
  EXPECT_EQ(read(beginning + first + second).back(), "interface 1 at 6000");
  EXPECT_EQ(read(made.section(made.option(4, "zirn-run 9.9"))), Words{});
}

TEST_P(RecordReader, ExpectsNoStatisticsOfOtherTools) {
  const std::string rest = made.interface(1, 0) + made.enhanced(0, 5, "frame", 5);
  EXPECT_EQ(read(made.section() + rest).size(), 2U);
  EXPECT_EQ(read(made.section(made.option(4, "Dumpcap 4.0")) + rest).size(), 2U);
  EXPECT_EQ(read(made.section(made.option(4, "zirn-run 9.9")) + made.section() + rest).size(), 2U);
}

std::string problem_with(const MadeRecord& made, const std::string& block) {
  const std::string before = made.section() + made.interface(1, 0) + made.enhanced(0, 0, "", 0);
  const Words found = read(before + block);
  EXPECT_EQ(found.size(), 3U);
  const std::string place = "byte " + std::to_string(before.size()) + ": ";
  EXPECT_EQ(found.back().substr(0, place.size()), place);
  return found.back().substr(place.size());
}

TEST_P(RecordReader, LengthsThatCannotBeEndTheItems) {
  const std::string expected = " bytes, expected a multiple of 4 from 12 to 16777216";
  for (const std::uint32_t length :
       {0U, 1U, 8U, 11U, 13U, 16777220U, 0x7fffffffU, 0xffffffffU, 0xfffffffcU}) {
    EXPECT_EQ(problem_with(made, made.u32(6) + made.u32(length) + std::string(100, '\0')),
              "a block of " + std::to_string(length) + expected);
  }
  EXPECT_EQ(problem_with(made, made.u32(6) + made.u32(16777216) + std::string(100, '\0')),
            "the file is cut short: 108 of 16777216 bytes of the block are there");
  EXPECT_EQ(problem_with(made, made.u32(0x1234) + made.u32(12) + made.u32(16)),
            "a block of 12 bytes has the length 16 at its end");
}

TEST_P(RecordReader, ABlockMayHaveSixteenMebibytes) {
  const std::string file = made.section() + made.interface(1, 0) +
                           made.enhanced(0, 0, std::string((16U << 20U) - 32, 'x'), 0) +
                           made.enhanced(0, 0, "", 0);
  const Words found = read(file);
  ASSERT_EQ(found.size(), 3U);
  EXPECT_EQ(found[2], "2: interface 0 link 1 at 0 '' of 0");
}

TEST_P(RecordReader, BlocksThatContradictThemselvesEndTheItems) {
  const std::string no_room = "a block with 0 bytes of contents, expected ";
  EXPECT_EQ(problem_with(made, made.block(6, "")), no_room + "20 at the least");
  EXPECT_EQ(problem_with(made, made.block(2, "")), no_room + "20 at the least");
  EXPECT_EQ(problem_with(made, made.block(3, "")), no_room + "4 at the least");
  EXPECT_EQ(problem_with(made, made.block(1, "")), no_room + "8 at the least");
  EXPECT_EQ(problem_with(made, made.block(5, "")), no_room + "12 at the least");
  EXPECT_EQ(problem_with(made, made.block(0x0a0d0d0a, made.u32(0x1a2b3c4d))),
            "a block with 4 bytes of contents, expected 16 at the least");
  EXPECT_EQ(problem_with(made, made.block(6, made.u32(0) + made.u64(0) + made.u32(5) + made.u32(5) + "four")),
            "a frame of 5 bytes in a block that has 4 for it");
  EXPECT_EQ(problem_with(made, made.block(6, made.u32(0) + made.u64(0) + made.u32(0xffffffff) + made.u32(5))),
            "a frame of 4294967295 bytes in a block that has 0 for it");
  EXPECT_EQ(problem_with(made, made.simple("four", 5)), "a frame of 5 bytes in a block that has 4 for it");
  EXPECT_EQ(problem_with(made, made.enhanced(1, 0, "", 0)),
            "interface 1, expected one of the 1 that were described");
  EXPECT_EQ(problem_with(made, made.obsolete(0xffff, 0, "", 0)),
            "interface 65535, expected one of the 1 that were described");
  EXPECT_EQ(problem_with(made, made.statistics(7, 0, "")),
            "interface 7, expected one of the 1 that were described");
}

TEST_P(RecordReader, AFrameNeedsAnInterfaceOfItsSection) {
  EXPECT_EQ(read(made.section() + made.interface(1, 0) + made.section() + made.simple("", 0)).back(),
            "byte 76: interface 0, expected one of the 0 that were described");
}

TEST_P(RecordReader, SectionsOfAnotherFormatEndTheItems) {
  EXPECT_EQ(problem_with(
                made, made.block(0x0a0d0d0a, made.u32(0x1a2b3c4d) + made.u16(2) + made.u16(0) + made.u64(0))),
            "version 2 of the format, expected 1");
  EXPECT_EQ(problem_with(
                made, made.block(0x0a0d0d0a, made.u32(0x1a2b3c4e) + made.u16(1) + made.u16(0) + made.u64(0))),
            "a section without the mark of its order of bytes");
}

TEST_P(RecordReader, EntriesThatAreDamagedEndTheItems) {
  const std::string damaged = "a journal entry that is damaged, or has no time";
  const std::string length = MadeRecord(false).u64(100);
  for (const std::string& text :
       {std::string(), std::string("MESSAGE=no time\n"), kEntry + "NO END", kEntry + "NO=END",
        kEntry + "lower=1\n", kEntry + "=1\n", kEntry + "BYTES\n" + length + "few\n", kEntry + "BYTES\n12",
        kEntry + "BYTES\n" + std::string(8, '\xff') + "x\n",
        kEntry + "BYTES\n" + MadeRecord(false).u64(1) + "xx\n", std::string("__REALTIME_TIMESTAMP=noon\n")}) {
    EXPECT_EQ(problem_with(made, made.journal(text)), damaged) << text;
  }
  std::string many = kEntry;
  for (int i = 0; i < 1024; ++i) many += "A=1\n";
  EXPECT_EQ(problem_with(made, made.journal(many)), damaged);
}

TEST_P(RecordReader, InterfacesWithoutEndEndTheItems) {
  std::string file = made.section();
  for (int i = 0; i < 65537; ++i) file += made.interface(1, 0);
  const Words found = read(file);
  ASSERT_EQ(found.size(), 65537U);
  EXPECT_EQ(found.back(),
            "byte " + std::to_string(28 + 65536 * 20) + ": one more interface, expected at most 65536");
}

TEST_P(RecordReader, FramesOfAClassicCaptureThatCannotBeEndTheItems) {
  const std::string before = made.pcap_header(kMicroseconds, 1) + made.pcap_frame(0, 0, "", 0);
  EXPECT_EQ(read(before + made.u64(0) + made.u32(16777217) + made.u32(0)).back(),
            "byte 40: a frame of 16777217 bytes, expected at most 16777216");
  EXPECT_EQ(read(before + made.u64(0) + made.u32(0xffffffff) + made.u32(0)).back(),
            "byte 40: a frame of 4294967295 bytes, expected at most 16777216");
  EXPECT_EQ(read(made.u32(kMicroseconds) + made.u16(3) + std::string(18, '\0')).back(),
            "byte 0: version 3 of the format, expected 2");
}

TEST_P(RecordReader, ReadsWhatTheWriterWrites) {
  std::ostringstream file;
  record::Writer writer(file, {});
  writer.add(Interface{"lan0", "udp", record::kLinuxCooked2, 96});
  Frame frame;
  frame.at = 1700000000123456789;
  frame.bytes = "a frame";
  frame.size = 1514;
  frame.comments = {"lost: by chance", "two"};
  writer.add(frame);
  const std::string bytes("\0\n\xff", 3);
  writer.add(Entry{0, 1700000000123456999, {{"MESSAGE", "text"}, {"BYTES", bytes}, {"EMPTY", ""}}});
  writer.add(Statistics{0, 7, 8, 9});
  EXPECT_EQ(read(file.str()),
            Words({"interface 'lan0' filter 'udp' link 276 snap 96",
                   "1: interface 0 link 276 at 1700000000123456789 'a frame' of 1514 (lost: by chance) (two)",
                   "2: entry at 1700000000123456000 MESSAGE=text BYTES=" + bytes + " EMPTY=",
                   "interface 0 at 7 received 8 dropped 9"}));
}

const std::string kExpected = "expected a pcapng or pcap file, found ";

TEST(RecordReaderBegins, SaysWhatItFoundInstead) {
  EXPECT_EQ(read(std::string()), Words({kExpected + "an empty file"}));
  EXPECT_EQ(read("Cmd received: a\n"), Words({kExpected + "text"}));
  EXPECT_EQ(read("\xc3\xbc\tb\r\n"), Words({kExpected + "text"}));
  EXPECT_EQ(read("a"), Words({kExpected + "text"}));
  EXPECT_EQ(read("\x1f\x8b\x08"), Words({kExpected + "gzip data"}));
  EXPECT_EQ(read("\x7f"
                 "ELF\x02"),
            Words({kExpected + "the bytes 7f 45 4c 46"}));
  EXPECT_EQ(read(std::string("\0\xff", 2)), Words({kExpected + "no more than the bytes 00 ff"}));
  EXPECT_EQ(read(std::string(63, 'x') + "\x01"), Words({kExpected + "the bytes 78 78 78 78"}));
  EXPECT_EQ(read(std::string(64, 'x') + "\x01"), Words({kExpected + "text"}));
  EXPECT_EQ(read("\x0a\x0d\x0d"), Words({kExpected + "text"}));
  EXPECT_EQ(read(MadeRecord(false).pcap_header(0xa1b2cd34, 1)), Words({kExpected + "the bytes 34 cd b2 a1"}));
}

TEST(RecordReaderBegins, SaysThatAFolderIsNoFile) {
  const ScratchDirectory directory;
  std::ifstream file(directory.path(), std::ios::binary);
  EXPECT_EQ(read(file), Words({kExpected + "none: Is a directory"}));
}

// A file that can be read up to a place, piece by piece.
class FailingFile : public std::streambuf {
 public:
  FailingFile(std::string contents, bool fails) : contents_(std::move(contents)), fails_(fails) {}
  std::size_t given() const { return given_; }

 protected:
  int_type underflow() override {
    constexpr std::size_t kPieceBytes = 5;
    if (given_ == contents_.size() && fails_) throw std::runtime_error("the disk is gone");
    if (given_ == contents_.size()) return traits_type::eof();
    const std::size_t size = std::min(kPieceBytes, contents_.size() - given_);
    setg(&contents_[given_], &contents_[given_], &contents_[given_] + size);
    given_ += size;
    return traits_type::to_int_type(*gptr());
  }

 private:
  std::string contents_;
  bool fails_;
  std::size_t given_ = 0;
};

TEST(RecordReaderBegins, SaysWhyAFileCannotBeReadAnyFurther) {
  const MadeRecord made(false);
  for (const std::size_t more : {0U, 30U}) {
    FailingFile buffer(
        (made.section() + made.interface(1, 0) + made.enhanced(0, 0, "frame", 5)).substr(0, 48 + more), true);
    std::istream file(&buffer);
    EXPECT_EQ(read(file), Words({"interface '' filter '' link 1 snap 0",
                                 "byte 48: the file cannot be read any further: the disk is gone"}));
  }
}

TEST(RecordReaderBegins, GivesAnItemOnceItIsThere) {
  const MadeRecord made(false);
  const std::string begin = made.section() + made.interface(1, 0);
  FailingFile buffer(begin + made.enhanced(0, 0, "frame", 5), false);
  std::istream file(&buffer);
  Reader reader(file);
  EXPECT_TRUE(reader.next());
  EXPECT_LT(buffer.given(), begin.size() + 5);
  EXPECT_TRUE(reader.next());
  EXPECT_FALSE(reader.next());
  EXPECT_EQ(reader.problem(), "");
}

TEST(RecordReaderBegins, FramesLargerThanItsBufferAndManyMoreKeepTheirBytes) {
  const MadeRecord made(false);
  std::string contents = made.section() + made.interface(1, 0);
  for (std::size_t i = 0; i < 300; ++i) {
    contents += made.enhanced(0, i, std::string(i * 1000 + i % 3, static_cast<char>('a' + i % 26)), 0);
  }
  FailingFile buffer(contents, false);
  std::istream file(&buffer);
  Reader reader(file);
  reader.next();
  for (std::size_t i = 0; i < 300; ++i) {
    const auto item = reader.next();
    ASSERT_TRUE(item);
    const auto& frame = std::get<Frame>(*item);
    ASSERT_TRUE(frame.bytes == std::string(i * 1000 + i % 3, static_cast<char>('a' + i % 26))) << i;
  }
  EXPECT_FALSE(reader.next());
}

TEST(RecordClock, CountsTenthsToWhateverPower) {
  const auto decimal = [](unsigned exponent, std::uint64_t ticks) {
    return Clock{false, exponent}.nanoseconds(ticks);
  };
  EXPECT_EQ(decimal(0, 1), 1000000000);
  EXPECT_EQ(decimal(8, 123456789), 1234567890);
  EXPECT_EQ(decimal(9, 123456789), 123456789);
  EXPECT_EQ(decimal(10, 123456789), 12345678);
  EXPECT_EQ(decimal(19, 18446744073709551615U), 1844674407);
  EXPECT_EQ(decimal(20, 18446744073709551615U), 184467440);
  EXPECT_EQ(decimal(28, 18446744073709551615U), 1);
  EXPECT_EQ(decimal(29, 18446744073709551615U), 0);
  EXPECT_EQ(decimal(127, 18446744073709551615U), 0);
}

TEST(RecordClock, CountsHalvesToWhateverPower) {
  const auto binary = [](unsigned exponent, std::uint64_t ticks) {
    return Clock{true, exponent}.nanoseconds(ticks);
  };
  EXPECT_EQ(binary(0, 7), 7000000000);
  EXPECT_EQ(binary(1, 7), 3500000000);
  EXPECT_EQ(binary(20, (1700000000ULL << 20U) + 524288), 1700000000500000000);
  EXPECT_EQ(binary(32, (1700000000ULL << 32U) + 4294967295), 1700000000999999999);
  EXPECT_EQ(binary(34, 17179869183), 999999999);
  EXPECT_EQ(binary(35, 1ULL << 34U), 500000000);
  EXPECT_EQ(binary(63, 1ULL << 62U), 500000000);
  EXPECT_EQ(binary(63, 1ULL << 63U), 1000000000);
  EXPECT_EQ(binary(64, 1ULL << 63U), 500000000);
  EXPECT_EQ(binary(97, 18446744073709551615U), 0);
  EXPECT_EQ(binary(127, 18446744073709551615U), 0);
}

TEST(RecordClock, WhatIsOutOfRangeIsItsEnd) {
  constexpr auto kLatest = std::numeric_limits<record::Nanoseconds>::max();
  constexpr auto kEarliest = std::numeric_limits<record::Nanoseconds>::min();
  const auto with_offset = [](std::int64_t seconds, std::uint64_t ticks) {
    return Clock{false, 6, seconds}.nanoseconds(ticks);
  };
  EXPECT_EQ(with_offset(std::numeric_limits<std::int64_t>::max(), 0), kLatest);
  EXPECT_EQ(with_offset(std::numeric_limits<std::int64_t>::min(), 0), kEarliest);
  EXPECT_EQ(with_offset(std::numeric_limits<std::int64_t>::max(), 18446744073709551615U), kLatest);
  EXPECT_EQ(with_offset(-5, 2000000), -3000000000);
  EXPECT_EQ((Clock{false, 0}.nanoseconds(18446744073709551615U)), kLatest);
  EXPECT_EQ((Clock{false, 9}.nanoseconds(9223372036854775807U)), kLatest);
  EXPECT_EQ((Clock{false, 9}.nanoseconds(9223372036854775806U)), kLatest - 1);
  EXPECT_EQ((Clock{false, 9}.nanoseconds(9223372036854775808U)), kLatest);
  EXPECT_EQ(with_offset(-9223372036, 0), -9223372036000000000);
  EXPECT_EQ(with_offset(-9223372037, 0), kEarliest);
  EXPECT_EQ(with_offset(9223372036, 0), 9223372036000000000);
  EXPECT_EQ(with_offset(9223372036, 854776), kLatest);
  EXPECT_EQ(with_offset(9223372037, 0), kLatest);
  EXPECT_EQ((Clock{false, 0, -9223372037}.nanoseconds(18446744073709551615U)), kLatest);
  EXPECT_EQ((Clock{false, 0, -9223372037}.nanoseconds(9223372038)), 1000000000);
}

}  // namespace
