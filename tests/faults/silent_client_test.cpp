#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "faults/faulty_station.h"

namespace {

using namespace station;

// A client is given eleven times five seconds. Where a library can be loaded into the program, the tests that
// wait for them all have it take a tenth of a second for a second.

constexpr int kRepeats = 10;
constexpr milliseconds kRealSecond(1000);
constexpr milliseconds kSecond = kSanitized || kEmulated ? kRealSecond : kRealSecond / 10;

std::string timeouts(int count) {
  std::string lines;
  for (int i = 0; i < count; ++i) lines += "Client timeout\n";
  return lines;
}

class SilentClient : public testing::Test {
 protected:
  void SetUp() override { NEEDS_SANDBOX(); }

  void starts(milliseconds second = kSecond) {
    wait_ = 5 * second;
    std::optional<Preloaded> clock;
    if (second != kRealSecond) clock.emplace("SECOND", std::to_string(second.count()));
    station_.emplace(std::vector<std::string>{}, OnLoopback::Relay::kHasNoAddress);
    client_.emplace(station_->client());
  }
  // The packet comes again after each of `count` waits, and not before.
  void comes_again(const std::string& packet, int count) {
    const auto start = std::chrono::steady_clock::now();
    for (int i = 1; i <= count; ++i) {
      client_->expects(packet, wait_ + milliseconds(2500));
      EXPECT_GE(std::chrono::steady_clock::now(), start + wait_ * i - wait_ * 3 / 10) << "repeat " << i;
    }
  }
  void is_dropped() {
    client_->expects_nothing(wait_ + milliseconds(1500));
    client_->sends(ack(1));
    client_->expects_nothing(milliseconds(200));
  }

  milliseconds wait_{0};
  std::optional<OnLoopback> station_;
  std::optional<UdpPeer> client_;
};

TEST_F(SilentClient, GetsItsBlockTenTimesMoreWhileOthersAreServed) {
  starts();
  const std::string contents = noise(1000);
  write_whole_file("file", contents);
  const std::string block = data(1, contents.substr(0, 512));
  client_->sends(rrq("file"));
  client_->expects(block);
  comes_again(block, 3);
  station_->serves_the_next_client();
  comes_again(block, kRepeats - 3);
  is_dropped();
  station_->printed("RRQ file\n" + timeouts(3) + "RRQ next\n" + timeouts(kRepeats + 1 - 3));
}

TEST_F(SilentClient, GetsItsOptionsTenTimesMore) {
  starts();
  write_whole_file("file", "contents");
  const std::string options = oack({{"blksize", "1024"}, {"tsize", "8"}});
  client_->sends(rrq("file", {{"blksize", "1024"}, {"tsize", "0"}}));
  client_->expects(options);
  comes_again(options, kRepeats);
  is_dropped();
  station_->printed("RRQ file\n" + timeouts(kRepeats + 1));
}

TEST_F(SilentClient, IsGivenAllItsWaitsAgainAfterOneDatagram) {
  starts();
  write_whole_file("file", "contents");
  client_->sends(rrq("file"));
  client_->expects(data(1, "contents"));
  comes_again(data(1, "contents"), 1);
  client_->sends(ack(0));
  client_->expects(data(1, "contents"));
  comes_again(data(1, "contents"), kRepeats);
  is_dropped();
  station_->printed("RRQ file\n" + timeouts(1 + kRepeats + 1));
}

TEST_F(SilentClient, IsWaitedForAsLongAsItAsked) {
  starts(kRealSecond);
  write_whole_file("file", "contents");
  client_->sends(rrq("file", {{"timeout", "8"}}));
  client_->expects(oack({{"timeout", "8"}}));
  client_->expects_nothing(milliseconds(7000));
  client_->expects(oack({{"timeout", "8"}}), milliseconds(3000));
  station_->printed("RRQ file\n" + timeouts(1));
}

TEST_F(SilentClient, MayCarryOnAfterALongSilence) {
  starts(kRealSecond);
  const std::string contents = noise(1000);
  write_whole_file("file", contents);
  client_->sends(rrq("file"));
  client_->expects(data(1, contents.substr(0, 512)));
  comes_again(data(1, contents.substr(0, 512)), 2);
  client_->sends(ack(1));
  client_->expects(data(2, contents.substr(512)));
  client_->sends(ack(2));
  client_->expects_nothing(wait_ + milliseconds(500));
  station_->printed("RRQ file\n" + timeouts(2));
}

}  // namespace
