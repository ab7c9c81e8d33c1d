#include <gtest/gtest.h>

#include <istream>
#include <string>
#include <system_error>

#include "record/gzip.h"
#include "record/reader.h"
#include "support/program.h"
#include "support/scratch_directory.h"
#include "zirn_run/made_record.h"

namespace {

using record::NotARecord;
using record::Reader;
using record::UnpackedFile;

constexpr std::chrono::seconds kPatience{30};
constexpr std::size_t kFrames = 20000;

std::string many_frames() {
  const MadeRecord made(false);
  std::string contents = made.section() + made.interface(1, 0);
  for (std::size_t i = 0; i < kFrames; ++i) contents += made.enhanced(0, i * i, noise(i % 100), 0);
  return contents;
}

// "COUNT frames", then the problem where there is one.
std::string read(const std::string& name) {
  UnpackedFile unpacked(name);
  std::istream file(&unpacked);
  Reader reader(file);
  std::uint64_t count = 0;
  while (const auto item = reader.next()) {
    if (const auto* frame = std::get_if<record::Frame>(&*item)) count = frame->number;
  }
  return std::to_string(count) + " frames" + (reader.problem().empty() ? "" : ", " + reader.problem());
}

class RecordGzip : public testing::Test {
 protected:
  void SetUp() override {
    NEEDS_PROGRAM("gzip", "gzip");
    write_whole_file("record", many_frames());
    Program gzip({"gzip", "--keep", "record"});
    ASSERT_EQ(gzip.exit_status(kPatience), 0) << gzip.output();
  }

  const ScratchDirectory directory_;
};

TEST_F(RecordGzip, UnpacksWhatGzipPacked) {
  EXPECT_EQ(read("record.gz"), "20000 frames");
}

TEST_F(RecordGzip, GivesWhatIsNotPackedAsItIs) {
  EXPECT_EQ(read("record"), "20000 frames");
}

TEST_F(RecordGzip, OfAFileThatIsCutShortWhatIsThereIsRead) {
  const std::string packed = whole_file("record.gz");
  write_whole_file("record.gz", packed.substr(0, packed.size() / 2));
  const std::string found = read("record.gz");
  EXPECT_GT(std::stoi(found), static_cast<int>(kFrames / 4));
  EXPECT_EQ(found.substr(found.rfind(':')), ": unexpected end of file");
  EXPECT_NE(found.find(": the file cannot be read any further: "), std::string::npos);
}

TEST_F(RecordGzip, OfAFileThatIsDamagedWhatIsBeforeIsRead) {
  std::string packed = whole_file("record.gz");
  packed[packed.size() - 8] = static_cast<char>(~packed[packed.size() - 8]);  // its check sum
  write_whole_file("record.gz", packed);
  const std::string found = read("record.gz");
  EXPECT_GT(std::stoi(found), static_cast<int>(kFrames / 4));
  EXPECT_EQ(found.substr(found.rfind(':')), ": incorrect data check");
}

TEST_F(RecordGzip, SaysWhyAFileCannotBeRead) {
  try {
    const UnpackedFile file("nowhere");
    FAIL() << "was opened";
  } catch (const std::system_error& error) {
    EXPECT_EQ(error.code(), std::errc::no_such_file_or_directory);
  }
  try {
    read(directory_.path());
    FAIL() << "was read";
  } catch (const NotARecord& error) {
    EXPECT_STREQ(error.what(), "expected a pcapng or pcap file, found none: Is a directory");
  }
}

}  // namespace
