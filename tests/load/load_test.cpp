#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <ostream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/descriptors.h"
#include "support/emulated.h"
#include "support/file_reader.h"
#include "support/station.h"
#include "support/threads.h"

// Many transfers and much noise: none fails, and nothing grows but what is kept of each finished transfer.
// The sizes that take minutes are called Long.

namespace {

using station::OnLoopback;

constexpr int kBlockSize = 512;
constexpr int kRequestsAtATime = 50;
constexpr double kAnywayKib = 1600;   // what overlapping transfers leave in the heap, however many they are
constexpr double kMostKeptKib = 0.6;  // of a finished transfer, whatever its blocks are

struct Size {
  const char* name;
  int reads;      // one after another
  int at_once;    // side by side
  int datagrams;  // of noise
};

void PrintTo(const Size& size, std::ostream* stream) {
  *stream << size.reads << " reads, " << size.at_once << " at once, " << size.datagrams << " datagrams";
}

class Load : public testing::TestWithParam<Size> {
 protected:
  void SetUp() override {
    NEEDS_SANDBOX();
    LEFT_OUT_UNDER_EMULATION("it would measure qemu");
    station.emplace(std::vector<std::string>{}, OnLoopback::Relay::kHasNoAddress);
    write_whole_file("file", contents);
    // The first transfers make what all others use again.
    for (int i = 0; i < 50; ++i) reads_file();
    waits_for_threads();
    descriptors_before = descriptors();
    resident_before_kib = status("VmRSS:");
  }
  // Its transfers' threads have ended.
  void waits_for_threads() const {
    EXPECT_TRUE(wait_until([this] { return status("Threads:") == 1; }));
  }
  void expect_no_more_descriptors() const {
    EXPECT_TRUE(wait_until([this] { return descriptors() == descriptors_before; })) << descriptors();
  }
  void reads_file(int block_size = kBlockSize) {
    std::vector<std::unique_ptr<FileReader>> one;
    one.push_back(
        std::make_unique<FileReader>("127.0.0.1", station::kTftpPort, "file", block_size, contents));
    ASSERT_EQ(run(one), 1) << one[0]->failure();
  }
  int descriptors() const {
    const std::string open = "/proc/" + std::to_string(station->daemon->pid()) + "/fd";
    return static_cast<int>(std::distance(std::filesystem::directory_iterator(open), {}));
  }
  long status(const std::string& name) const {
    std::ifstream file("/proc/" + std::to_string(station->daemon->pid()) + "/status");
    std::string word;
    long number = -1;
    while (file >> word) {
      if (word == name && file >> number) break;
    }
    return number;
  }
  // Nothing has grown since the first transfers but by so many finished ones.
  void expect_growth_by(int transfers) {
    waits_for_threads();
    expect_no_more_descriptors();
    const double grown = static_cast<double>(status("VmRSS:") - resident_before_kib);
    std::cout << "resident memory grew by " << grown << " KiB with " << transfers << " transfers";
    if (transfers > 0) std::cout << ": " << grown / transfers << " KiB each";
    std::cout << std::endl;
    EXPECT_LT(grown, kAnywayKib + kMostKeptKib * transfers);
  }

  const std::string contents = noise(3000);
  std::optional<OnLoopback> station;
  int descriptors_before = 0;
  long resident_before_kib = 0;
};

TEST_P(Load, ReadsOneAfterAnotherAllArrive) {
  for (const int block_size : {512, 1428, 32768}) {
    SCOPED_TRACE(block_size);
    reads_file(block_size);
    waits_for_threads();
    resident_before_kib = status("VmRSS:");
    for (int i = 0; i < GetParam().reads && !HasFatalFailure(); ++i) reads_file(block_size);
    expect_growth_by(GetParam().reads);
  }
}

TEST_P(Load, ReadsSideBySideAllArrive) {
  const std::string image = noise(200000);
  write_whole_file("image", image);
  std::vector<std::unique_ptr<FileReader>> readers;
  for (int i = 0; i < GetParam().at_once; ++i) {
    readers.push_back(
        std::make_unique<FileReader>("127.0.0.1", station::kTftpPort, "image", kBlockSize, image));
    // A socket holds some two hundred requests; a reader of this test asks only once.
    if (i % kRequestsAtATime == 0) std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  EXPECT_EQ(run(readers), GetParam().at_once);
  waits_for_threads();
  expect_no_more_descriptors();
}

// Sends what is no good request, so many at a time, and takes the refusal of each.
class NoiseMaker {
 public:
  static constexpr int kAtATime = 50;

  NoiseMaker() : descriptor_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {}
  ~NoiseMaker() { close(descriptor_); }
  NoiseMaker(const NoiseMaker&) = delete;
  NoiseMaker& operator=(const NoiseMaker&) = delete;

  void makes_noise() {
    const sockaddr_in server = socket_address("127.0.0.1", station::kTftpPort);
    for (int i = 0; i < kAtATime; ++i) {
      const std::string datagram = next();
      sendto(descriptor_, datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr*>(&server),
             sizeof server);
    }
    for (int i = 0; i < kAtATime; ++i) {
      pollfd waiting{descriptor_, POLLIN, 0};
      ASSERT_EQ(poll(&waiting, 1, 10000), 1) << "no refusal came";
      char reply[64];
      ASSERT_GE(recv(descriptor_, reply, sizeof reply, 0), 4);
      ASSERT_EQ(reply[1], 5) << "not a refusal";
    }
  }

 private:
  // Neither a write request, which leaves its socket and file open, nor a read request that could succeed.
  std::string next() {
    std::string bytes;
    const auto length = random_() % 600;
    for (auto i = length; i > 0; --i) bytes.push_back(static_cast<char>(random_()));
    switch (random_() % 4) {
      case 0:
        return tftp::rrq("missing", {{"blksize", bytes.substr(0, 20)}});
      case 1:
        return tftp::rrq("file", {}, bytes.substr(0, 100) + "x");
      case 2:
        return tftp::ack(static_cast<int>(random_() % 65536)) + bytes;
      default:
        if (length > 1) bytes[1] = static_cast<char>(bytes[1] | 4);
        return bytes;
    }
  }

  int descriptor_;
  std::mt19937 random_{1};
};

TEST_P(Load, NoiseHindersNoReadAndLeavesNothing) {
  constexpr int kBetweenReads = 1000;
  NoiseMaker noise_maker;
  int reads = 0;
  for (int sent = 0; sent < GetParam().datagrams && !HasFatalFailure(); sent += NoiseMaker::kAtATime) {
    noise_maker.makes_noise();
    if (sent % kBetweenReads != 0) continue;
    reads_file();
    ++reads;
  }
  expect_growth_by(reads);
}

std::string name_of(const testing::TestParamInfo<Size>& size) {
  return size.param.name;
}

INSTANTIATE_TEST_SUITE_P(Sizes, Load,
                         testing::Values(Size{"Short", 500, 60, 20000}, Size{"Long", 10000, 300, 1000000}),
                         name_of);

}  // namespace
