#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "support/station.h"

namespace {

using namespace station;

// These tests wait as long as a client is given: eleven times five seconds.

constexpr int kRepeats = 10;
constexpr milliseconds kWait = std::chrono::seconds(5);

std::string timeouts(int count) {
  std::string lines;
  for (int i = 0; i < count; ++i) lines += "Client timeout\n";
  return lines;
}

// The packet comes again after each of `count` waits, and not before.
void comes_again(UdpPeer& client, const std::string& packet, int count) {
  for (int i = 0; i < count; ++i) {
    const auto start = std::chrono::steady_clock::now();
    client.expects(packet, kWait + milliseconds(2500));
    EXPECT_GE(std::chrono::steady_clock::now() - start, kWait - milliseconds(1500)) << "repeat " << i + 1;
  }
}

void is_dropped(UdpPeer& client) {
  client.expects_nothing(kWait + milliseconds(1500));
  client.sends(ack(1));
  client.expects_nothing(milliseconds(200));
}

class SilentClient : public testing::Test {
 protected:
  void SetUp() override { NEEDS_SANDBOX(); }
};

TEST_F(SilentClient, GetsItsBlockTenTimesMoreWhileOthersAreServed) {
  const OnLoopback station({}, OnLoopback::Relay::kHasNoAddress);
  const std::string contents = noise(1000);
  write_whole_file("file", contents);
  UdpPeer client = station.client();
  const std::string block = data(1, contents.substr(0, 512));
  client.sends(rrq("file"));
  client.expects(block);
  comes_again(client, block, 3);
  station.serves_the_next_client();
  comes_again(client, block, kRepeats - 3);
  is_dropped(client);
  station.printed("RRQ file\n" + timeouts(3) + "RRQ next\n" + timeouts(kRepeats + 1 - 3));
}

TEST_F(SilentClient, GetsItsOptionsTenTimesMore) {
  const OnLoopback station({}, OnLoopback::Relay::kHasNoAddress);
  write_whole_file("file", "contents");
  UdpPeer client = station.client();
  const std::string options = oack({{"blksize", "1024"}, {"tsize", "8"}});
  client.sends(rrq("file", {{"blksize", "1024"}, {"tsize", "0"}}));
  client.expects(options);
  comes_again(client, options, kRepeats);
  is_dropped(client);
  station.printed("RRQ file\n" + timeouts(kRepeats + 1));
}

TEST_F(SilentClient, IsGivenAllItsWaitsAgainAfterOneDatagram) {
  const OnLoopback station({}, OnLoopback::Relay::kHasNoAddress);
  write_whole_file("file", "contents");
  UdpPeer client = station.client();
  client.sends(rrq("file"));
  client.expects(data(1, "contents"));
  comes_again(client, data(1, "contents"), 1);
  client.sends(ack(0));
  client.expects(data(1, "contents"));
  comes_again(client, data(1, "contents"), kRepeats);
  is_dropped(client);
  station.printed("RRQ file\n" + timeouts(1 + kRepeats + 1));
}

TEST_F(SilentClient, IsWaitedForAsLongAsItAsked) {
  const OnLoopback station({}, OnLoopback::Relay::kHasNoAddress);
  write_whole_file("file", "contents");
  UdpPeer client = station.client();
  client.sends(rrq("file", {{"timeout", "8"}}));
  client.expects(oack({{"timeout", "8"}}));
  client.expects_nothing(milliseconds(7000));
  client.expects(oack({{"timeout", "8"}}), milliseconds(3000));
  station.printed("RRQ file\n" + timeouts(1));
}

TEST_F(SilentClient, MayCarryOnAfterALongSilence) {
  const OnLoopback station({}, OnLoopback::Relay::kHasNoAddress);
  const std::string contents = noise(1000);
  write_whole_file("file", contents);
  UdpPeer client = station.client();
  client.sends(rrq("file"));
  client.expects(data(1, contents.substr(0, 512)));
  comes_again(client, data(1, contents.substr(0, 512)), 2);
  client.sends(ack(1));
  client.expects(data(2, contents.substr(512)));
  client.sends(ack(2));
  client.expects_nothing(kWait + milliseconds(500));
  station.printed("RRQ file\n" + timeouts(2));
}

}  // namespace
