#include "wire/wire_record.h"

#include <gtest/gtest.h>

#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "record/reader.h"
#include "record/run_entry.h"
#include "support/scratch_directory.h"

namespace {

// What a file holds, an item a line.
std::string in_words(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  record::Reader reader(file);
  std::string text;
  while (const auto item = reader.next()) {
    if (const auto* const link = std::get_if<record::Interface>(&*item)) text += "link " + link->name + "\n";
    if (const auto* const frame = std::get_if<record::Frame>(&*item)) {
      text += std::to_string(frame->interface) + " " + std::to_string(frame->at) + " " +
              std::string(frame->bytes) + "\n";
    }
    if (std::holds_alternative<record::Entry>(*item)) text += "entry\n";
  }
  return text + reader.problem();
}

WireFates fates_in(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return read_fates(file);
}

TEST(WireRecord, BeginsWithItsLinks) {
  const ScratchDirectory directory;
  write_whole_file("record", std::string(100, 'x'));
  const WireRecord record("record", {"lan0", "ppt0"});
  EXPECT_EQ(in_words("record"), "link lan0\nlink ppt0\n");
}

TEST(WireRecord, FramesStandWithTheirLinkAndTimeOnceTheyAreFlushed) {
  const ScratchDirectory directory;
  WireRecord record("record", {"lan0", "ppt0"});
  EXPECT_EQ(record.add_frame(1, "first", 1700000000000000001), 1U);
  EXPECT_EQ(record.add_frame(0, "the second", 1700000001999999999), 2U);
  EXPECT_EQ(in_words("record"), "link lan0\nlink ppt0\n");
  record.flush();
  record.flush();
  EXPECT_EQ(in_words("record"),
            "link lan0\nlink ppt0\n1 1700000000000000001 first\n0 1700000001999999999 the second\n");
}

TEST(WireRecord, LongestFramesFillTheBufferSeveralTimesAndNoneIsCut) {
  const ScratchDirectory directory;
  WireRecord record("record", {"lan0"});
  std::string expected = "link lan0\n";
  for (int i = 0; i < 50; ++i) {
    const std::string frame(65535, static_cast<char>('A' + i));
    record.add_frame(0, frame, i);
    expected += "0 " + std::to_string(i) + " " + frame + "\n";
  }
  record.flush();
  EXPECT_TRUE(in_words("record") == expected);
}

TEST(WireRecord, FatesAreReadAsTheCommentsOfTheirFrames) {
  const ScratchDirectory directory;
  WireRecord record("record", {"lan0"});
  for (int i = 0; i < 5; ++i) record.add_frame(0, "frame", i);
  record.add_fate(1, Fate::kLostByChance, 1);
  record.add_fate(2, Fate::kLostByCut, 2);
  record.add_fate(5, Fate::kDuplicated, 3);
  record.add_fate(5, Fate::kSwapped, 4);
  record.add_fate(5, Fate::kLostAtTheEnd, 5);
  record.flush();
  const std::map<std::uint64_t, std::vector<std::string>> expected = {
      {1, {"lost: by chance"}},
      {2, {"lost: the cable was out"}},
      {5, {"duplicated", "swapped with the next one", "lost: the far end took none"}}};
  EXPECT_EQ(fates_in("record").of_frames, expected);
  EXPECT_TRUE(fates_in("record").cuts.empty());
}

TEST(WireRecord, CutsAreEntriesOfARun) {
  const ScratchDirectory directory;
  WireRecord record("record", {"lan0"});
  record.add_cut(500000000, 1700000000123456000);
  record.flush();
  const WireFates fates = fates_in("record");
  ASSERT_EQ(fates.cuts.size(), 1U);
  EXPECT_EQ(fates.cuts[0].at, 1700000000123456000);
  EXPECT_EQ(std::get<record::Cut>(record::said_by(fates.cuts[0]).value()).lasts, 500000000);
  EXPECT_TRUE(fates.of_frames.empty());
}

TEST(WireRecord, OfAFileThatIsCutShortTheFatesBeforeAreRead) {
  const ScratchDirectory directory;
  WireRecord record("record", {"lan0"});
  record.add_fate(1, Fate::kLostByChance, 1);
  record.add_fate(2, Fate::kLostByChance, 1);
  record.flush();
  const std::string whole = whole_file("record");
  write_whole_file("record", whole.substr(0, whole.size() - 1));
  EXPECT_EQ(fates_in("record").of_frames.size(), 1U);
}

void expect_refused(const std::string& path, const std::string& reason) {
  try {
    WireRecord record(path, {"lan0"});
    FAIL() << "was made";
  } catch (const std::runtime_error& error) {
    EXPECT_EQ(error.what(), "expected a file that can be written: " + path + ": " + reason);
  }
}

TEST(WireRecord, AFileThatCannotBeMadeIsRefused) {
  expect_refused("/nowhere/record", "No such file or directory");
}

TEST(WireRecord, AFullDiskIsRefused) {
  expect_refused("/dev/full", "No space left on device");
}

}  // namespace
