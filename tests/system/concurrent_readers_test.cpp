#include <gtest/gtest.h>
#include <sys/resource.h>

#include <memory>
#include <string>
#include <vector>

#include "support/emulated.h"
#include "support/file_reader.h"
#include "support/sanitized.h"
#include "support/station.h"

namespace {

constexpr std::size_t kMebibyte = 1 << 20;
constexpr int kEthernetBlockSize = 1428;

using Readers = std::vector<std::unique_ptr<FileReader>>;
using namespace station;

std::string failures(const Readers& readers) {
  std::string text;
  for (const auto& reader : readers) {
    if (!reader->failure().empty()) text += reader->failure() + "\n";
  }
  return text;
}

std::string lines(const std::string& line, int count) {
  std::string text;
  for (int i = 0; i < count; ++i) text += line;
  return text;
}

class ConcurrentReaders : public testing::Test {
 protected:
  void SetUp() override { NEEDS_SANDBOX(); }
};

TEST_F(ConcurrentReaders, TwoHundredReadTheSameFileAtOnce) {
  const OnLoopback station;
  const std::string contents = noise((kSanitized ? 1 : 4) * kMebibyte);
  write_whole_file("image", contents);
  Readers readers;
  for (int i = 0; i < 200; ++i) {
    readers.push_back(
        std::make_unique<FileReader>("127.0.0.1", station::kTftpPort, "image", kEthernetBlockSize, contents));
  }
  EXPECT_EQ(run(readers), 200) << failures(readers);
  station.printed(lines("RRQ image\n", 200));
}

TEST_F(ConcurrentReaders, EachReadsItsOwnFileWithItsOwnBlockSize) {
  const OnLoopback station;
  std::vector<std::string> contents;
  for (std::size_t i = 0; i < 24; ++i) {
    contents.push_back(noise(40000).substr(97 * i, 10000 + 977 * i));
    write_whole_file(std::to_string(i), contents.back());
  }
  Readers readers;
  std::string printed;
  for (std::size_t i = 0; i < contents.size(); ++i) {
    const std::string name = std::to_string(i);
    readers.push_back(std::make_unique<FileReader>("127.0.0.1", station::kTftpPort, name,
                                                   static_cast<int>(8 + 111 * i), contents[i]));
    printed += "RRQ " + name + "\n";
  }
  EXPECT_EQ(run(readers), 24) << failures(readers);
  station.printed(printed);
}

// Raises or lowers how many descriptors a process may have, for the daemon that the test starts.
class DescriptorLimit {
 public:
  explicit DescriptorLimit(rlim_t count) {
    getrlimit(RLIMIT_NOFILE, &before_);
    const rlimit wanted = {count, before_.rlim_max};
    is_set_ = setrlimit(RLIMIT_NOFILE, &wanted) == 0;
  }
  ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &before_); }
  DescriptorLimit(const DescriptorLimit&) = delete;
  DescriptorLimit& operator=(const DescriptorLimit&) = delete;

  bool is_set() const { return is_set_; }

 private:
  rlimit before_ = {};
  bool is_set_ = false;
};

TEST_F(ConcurrentReaders, BeyondTheDescriptorSetsRequestsStayWithoutAnswer) {
  LEFT_OUT_UNDER_EMULATION("a thousand transfers at once are too slow");
  const DescriptorLimit limit(4096);
  if (!limit.is_set()) GTEST_SKIP() << "no more than 1024 descriptors are allowed here";
  const OnLoopback station;
  write_whole_file("file", "contents");
  // Each takes two descriptors for as long as it stays open.
  std::vector<UdpPeer> open;
  while (open.size() < 600) {
    UdpPeer reader = station.client(0);
    reader.sends(tftp::rrq("file"));
    if (!reader.receives(std::chrono::seconds(3))) break;
    open.push_back(std::move(reader));
  }
  const int count = static_cast<int>(open.size());
  EXPECT_GT(count, 500);
  EXPECT_LT(count, 512);
  for (UdpPeer& reader : open) reader.sends(tftp::ack(1));
  station.printed(lines("RRQ file\n", count));
}

}  // namespace
