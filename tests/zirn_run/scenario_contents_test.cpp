// The files of a record, written into a folder out of its frames.
#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>
#include <system_error>

#include "scenario/contents.h"
#include "support/scratch_directory.h"
#include "support/tftp_bytes.h"
#include "support/whole_file.h"
#include "zirn_run/made_run.h"

namespace {

namespace fs = std::filesystem;
using made::Endpoint;

constexpr Endpoint kClient{made::kUnit, 2000}, kAsked{made::kStation, 69}, kAnswering{made::kStation, 33133};

std::string request(const std::string& name, const std::string& options = "") {
  return std::string("\0\1", 2) + name + std::string("\0octet\0", 7) + options;
}
const std::string kAsksForBlocksOf1024("blksize\0001024\0", 13);
const std::string kGrants1024 = std::string("\0\6", 2) + kAsksForBlocksOf1024;

class ScenarioContents : public testing::Test {
 protected:
  void frame(const std::string& bytes, std::size_t kept = std::string::npos) {
    record::Frame frame;
    frame.number = ++number_;
    frame.at = MadeRun::kStart + static_cast<record::Nanoseconds>(number_) * MadeRun::kMillisecond;
    frame.bytes = std::string_view(bytes).substr(0, kept);
    frame.size = static_cast<std::uint32_t>(bytes.size());
    contents->take(frame);
  }
  void udp(Endpoint from, Endpoint to, const std::string& payload, std::size_t kept = std::string::npos) {
    frame(made::ethernet(made::ip(from.address, to.address, 17, made::udp(from, to, payload))), kept);
  }
  void asks(const std::string& name, const std::string& options = "", Endpoint client = kClient) {
    udp(client, kAsked, request(name, options));
  }
  void sends(int block, const std::string& data, Endpoint client = kClient, Endpoint server = kAnswering) {
    udp(server, client, tftp::data(block & 0xffff, data));
    udp(client, server, tftp::ack(block & 0xffff));
  }
  // Nothing where it is not there.
  std::optional<std::string> written(const std::string& name) {
    contents->finish();
    EXPECT_EQ(contents->file(name), fs::exists("files/" + name) ? "files/" + name : "");
    if (!fs::exists("files/" + name)) return std::nullopt;
    return whole_file("files/" + name);
  }
  static std::size_t files_in(const std::string& folder) {
    return static_cast<std::size_t>(std::distance(fs::directory_iterator(folder), fs::directory_iterator()));
  }

  const ScratchDirectory directory_;
  std::uint64_t number_ = 0;
  std::optional<scenario::Contents> contents{std::in_place, "files"};
};

TEST_F(ScenarioContents, AreTheBlocksInTheirOrder) {
  asks("kernel.img");
  sends(1, std::string(512, 'a'));
  sends(2, std::string(512, 'b'));
  sends(3, "end");
  EXPECT_EQ(written("kernel.img"), std::string(512, 'a') + std::string(512, 'b') + "end");
  EXPECT_EQ(files_in("files"), 1U);
}

TEST_F(ScenarioContents, CountARepeatedBlockOnce) {
  asks("kernel.img");
  asks("kernel.img");
  for (const int block : {1, 1, 1, 2, 1, 2}) sends(block, std::string(512, static_cast<char>('a' + block)));
  sends(3, "");
  sends(3, "");
  EXPECT_EQ(written("kernel.img"), std::string(512, 'b') + std::string(512, 'c'));
}

TEST_F(ScenarioContents, AreNotThereWhereABlockIsMissing) {
  asks("kernel.img");
  sends(1, std::string(512, 'a'));
  sends(3, "end");
  EXPECT_EQ(written("kernel.img"), std::nullopt);
  EXPECT_EQ(files_in("files"), 0U);
}

TEST_F(ScenarioContents, AreThoseOfALaterReadThatIsWhole) {
  asks("kernel.img");
  sends(2, "end");
  const Endpoint again{made::kUnit, 2001}, server{made::kStation, 33233};
  asks("kernel.img", "", again);
  sends(1, "whole", again, server);
  asks("kernel.img", "", {made::kUnit, 2002});
  sends(1, "another", {made::kUnit, 2002}, {made::kStation, 33333});
  EXPECT_EQ(written("kernel.img"), "whole");
}

TEST_F(ScenarioContents, AreNotThereWhereTheCaptureKeptAPart) {
  asks("kernel.img");
  udp(kAnswering, kClient, tftp::data(1, std::string(300, 'a')), 100);
  EXPECT_EQ(written("kernel.img"), std::nullopt);
}

TEST_F(ScenarioContents, GoOnAfterBlock65535WithBlock0) {
  asks("large.img");
  std::string all;
  for (int block = 1; block <= 65538; ++block) {
    const std::string data(block == 65538 ? 5 : 512, static_cast<char>('a' + block % 26));
    sends(block, data);
    all += data;
  }
  EXPECT_TRUE(written("large.img") == all);
}

TEST_F(ScenarioContents, HaveBlocksOfTheSizeThatWasGranted) {
  asks("kernel.img", kAsksForBlocksOf1024);
  udp(kAnswering, kClient, kGrants1024);
  sends(1, std::string(1024, 'a'));
  sends(2, std::string(600, 'b'));
  EXPECT_EQ(written("kernel.img"), std::string(1024, 'a') + std::string(600, 'b'));
}

TEST_F(ScenarioContents, AreNotGuessedWhereTheGrantIsMissing) {
  asks("kernel.img", kAsksForBlocksOf1024);
  sends(1, std::string(256, 'a'));
  EXPECT_EQ(written("kernel.img"), std::nullopt);
}

TEST_F(ScenarioContents, ArePutTogetherOutOfFragments) {
  const std::string data = std::string(1024, 'a') + "the end of a long block";
  asks("kernel.img", std::string("blksize\0008192\0", 13));
  udp(kAnswering, kClient, std::string("\0\6blksize\0008192\0", 15));
  const auto pieces = made::fragments(kAnswering, kClient, tftp::data(1, data), 7, 512);
  ASSERT_EQ(pieces.size(), 3U);
  frame(made::ethernet(pieces[0]));
  frame(made::ethernet(pieces[2]));
  for (const std::string& piece : made::fragments(kAnswering, kClient, tftp::data(1, data), 8, 512))
    frame(made::ethernet(piece));
  EXPECT_EQ(written("kernel.img"), data);
}

TEST_F(ScenarioContents, OfTwoAnswersToOneRequestAreNotMixed) {
  asks("kernel.img");
  const Endpoint second{made::kStation, 33233};
  for (const int block : {1, 2}) {
    sends(block, std::string(512, static_cast<char>('a' + block)));
    sends(block, std::string(512, static_cast<char>('a' + block)), kClient, second);
  }
  sends(3, "end");
  EXPECT_EQ(written("kernel.img"), std::string(512, 'b') + std::string(512, 'c') + "end");
  EXPECT_EQ(files_in("files"), 1U);
}

TEST_F(ScenarioContents, StayInTheirFolder) {
  write_whole_file("precious", "old");
  const std::string names[] = {"../precious",
                               "/tmp/zirn-precious",
                               "..",
                               ".",
                               ".part-1",
                               std::string(300, 'n'),
                               "a\x1b[2Jb",
                               "line\nbreak",
                               "files/a",
                               "\xe2\x80\xae"
                               "gmi.exe",
                               "a\x7f"};
  std::uint16_t port = 3000;
  for (const std::string& name : names) {
    const Endpoint client{made::kUnit, ++port};
    asks(name, "", client);
    sends(1, "evil", client);
    EXPECT_EQ(contents->file(name), "") << name;
  }
  const Endpoint client{made::kUnit, ++port};
  asks("good", "", client);
  sends(1, "well", client);
  EXPECT_EQ(written("good"), "well");
  EXPECT_EQ(files_in("files"), 1U);
  EXPECT_EQ(files_in("."), 2U);
  EXPECT_EQ(whole_file("precious"), "old");
  EXPECT_FALSE(fs::exists("/tmp/zirn-precious"));
}

TEST_F(ScenarioContents, TakeNoOtherFilesPlace) {
  fs::create_directory("full");
  write_whole_file("full/mine", "old");
  EXPECT_THROW(scenario::Contents("full"), std::system_error);
  EXPECT_THROW(scenario::Contents("full/mine"), std::system_error);
}

TEST_F(ScenarioContents, KeepFewFilesOpen) {
  for (std::uint16_t i = 0; i < 3 * scenario::Contents::kMostReads; ++i) {
    const Endpoint client{made::kUnit, static_cast<std::uint16_t>(3000 + i)};
    asks("file" + std::to_string(i), "", client);
    sends(1, std::string(512, 'a'), client);
    EXPECT_LE(files_in("files"), scenario::Contents::kMostReads);
  }
  const Endpoint last{made::kUnit, 3000 + 3 * scenario::Contents::kMostReads - 1};
  sends(2, "end", last);
  EXPECT_EQ(written("file" + std::to_string(3 * scenario::Contents::kMostReads - 1)),
            std::string(512, 'a') + "end");
}

TEST_F(ScenarioContents, AreNoVerdicts) {
  asks("F_l_m_01MEMORY_PASSED");
  sends(1, "");
  EXPECT_EQ(written("F_l_m_01MEMORY_PASSED"), std::nullopt);
}

}  // namespace
