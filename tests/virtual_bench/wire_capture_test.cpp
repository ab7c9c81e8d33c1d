#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>
#include <string>

#include "support/scratch_directory.h"
#include "wire/capture.h"
#include "wire/fates.h"

namespace {

std::string number32(std::uint32_t value) {
  return {reinterpret_cast<const char*>(&value), sizeof value};
}
std::string number16(std::uint16_t value) {
  return {reinterpret_cast<const char*>(&value), sizeof value};
}

std::string file_header() {
  return number32(0xa1b2c3d4) + number16(2) + number16(4) + number32(0) + number32(0) + number32(65535) +
         number32(1);
}

std::string_view keep(Capture& capture, const std::string& frame, std::uint64_t time) {
  std::memcpy(capture.room(), frame.data(), frame.size());
  return capture.keep(frame.size(), time);
}

TEST(WireCapture, ANewCaptureIsAFileHeaderAlone) {
  const ScratchDirectory directory;
  write_whole_file("capture", std::string(100, 'x'));
  const Capture capture("capture");
  EXPECT_EQ(whole_file("capture"), file_header());
  EXPECT_EQ(capture.count(), 0U);
}

TEST(WireCapture, EachFrameIsPrecededByItsTimeAndLength) {
  const ScratchDirectory directory;
  Capture capture("capture");
  EXPECT_EQ(keep(capture, "first", 1700000000000001), "first");
  EXPECT_EQ(keep(capture, "the second", 1700000001999999), "the second");
  EXPECT_EQ(capture.count(), 2U);
  capture.flush();
  EXPECT_EQ(whole_file("capture"), file_header() + number32(1700000000) + number32(1) + number32(5) +
                                       number32(5) + "first" + number32(1700000001) + number32(999999) +
                                       number32(10) + number32(10) + "the second");
}

TEST(WireCapture, FramesWaitForTheFlushAndAreWrittenOnce) {
  const ScratchDirectory directory;
  Capture capture("capture");
  keep(capture, "frame", 0);
  EXPECT_EQ(whole_file("capture").size(), 24U);
  capture.flush();
  capture.flush();
  EXPECT_EQ(whole_file("capture").size(), 24U + 16 + 5);
}

TEST(WireCapture, LongestFramesFillTheBufferSeveralTimesAndNoneIsCut) {
  const ScratchDirectory directory;
  Capture capture("capture");
  std::string expected = file_header();
  for (std::uint32_t i = 0; i < 50; ++i) {
    const std::string frame(Capture::kLongestFrameBytes, static_cast<char>('A' + i));
    EXPECT_EQ(keep(capture, frame, i), frame);
    expected += number32(0) + number32(i) + number32(65535) + number32(65535) + frame;
  }
  EXPECT_GT(whole_file("capture").size(), 1024U * 1024);
  capture.flush();
  EXPECT_TRUE(whole_file("capture") == expected);
}

TEST(WireCapture, AFileThatCannotBeMadeIsRefused) {
  try {
    const Capture capture("/nowhere/capture");
    FAIL() << "was made";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(),
                 "expected a file that can be written: /nowhere/capture: No such file or directory");
  }
}

TEST(WireCapture, AFullDiskIsRefused) {
  try {
    const Capture capture("/dev/full");
    FAIL() << "was written";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "expected a file that can be written: /dev/full: No space left on device");
  }
}

TEST(WireFates, EachFateIsALineOnceItIsFlushed) {
  const ScratchDirectory directory;
  Fates fates("fates");
  fates.note(1, Fate::kLost);
  fates.note(20, Fate::kDuplicated);
  fates.note(18446744073709551615U, Fate::kSwapped);
  fates.note_cut(1700000000000007, 1700000002500000);
  EXPECT_EQ(whole_file("fates"), "");
  fates.flush();
  fates.flush();
  EXPECT_EQ(whole_file("fates"),
            "1 lost\n20 duplicated\n18446744073709551615 swapped\ncut 1700000000.000007 1700000002.500000\n");
}

TEST(WireFates, AreReadAsTheyWereNoted) {
  const ScratchDirectory directory;
  Fates fates("fates");
  fates.note(1, Fate::kLost);
  fates.note(20, Fate::kDuplicated);
  fates.note_cut(1700000000000007, 1700000002500000);
  fates.note(18446744073709551615U, Fate::kSwapped);
  fates.flush();
  const RecordedFates read = read_fates("fates");
  ASSERT_EQ(read.frames.size(), 3U);
  EXPECT_EQ(read.frames[0].number, 1U);
  EXPECT_EQ(read.frames[0].fate, Fate::kLost);
  EXPECT_EQ(read.frames[1].number, 20U);
  EXPECT_EQ(read.frames[1].fate, Fate::kDuplicated);
  EXPECT_EQ(read.frames[2].number, 18446744073709551615U);
  EXPECT_EQ(read.frames[2].fate, Fate::kSwapped);
  ASSERT_EQ(read.cuts.size(), 1U);
  EXPECT_EQ(read.cuts[0].from_microseconds, 1700000000000007U);
  EXPECT_EQ(read.cuts[0].until_microseconds, 1700000002500000U);
}

TEST(WireFates, OfAFileThatIsCutShortTheWholeLinesAreRead) {
  const ScratchDirectory directory;
  write_whole_file("fates", "1 lost\n2 lo");
  EXPECT_EQ(read_fates("fates").frames.size(), 1U);
  write_whole_file("fates", "1 lost\n2 lost");
  EXPECT_EQ(read_fates("fates").frames.size(), 1U);
  EXPECT_EQ(read_fates("nowhere").frames.size(), 0U);
}

}  // namespace
