#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "stage/network_namespace.h"
#include "support/daemon.h"
#include "support/sandbox.h"
#include "support/station.h"
#include "support/tftp_bytes.h"
#include "support/udp_peer.h"

// The unit's datagrams on their way to the PPT server.

namespace {

using namespace station;

constexpr int kRelayPort = 12345;

// A booted station, the unit, and the PPT server where datagrams arrive.
class Relay : public testing::Test {
 protected:
  void SetUp() override {
    NEEDS_SANDBOX();
    boots({}, station::sender_ready());
  }
  void boots(const std::vector<std::string>& arguments, const std::string& last_line) {
    ppt_server.reset();
    unit.reset();
    station.reset();
    station = std::make_unique<InNetwork>(arguments);
    ppt_server.emplace(station->ppt_server(kRelayPort));
    unit.emplace(station->unit());
    unit->aims_at(TestNetwork::kStation, kRelayPort);
    station->daemon = station->start();
    ASSERT_TRUE(station->daemon->prints(last_line));
    waits_for_the_relay();
  }
  void passes_on(const std::string& datagram, const std::string& forwarded) {
    unit->sends(datagram);
    ppt_server->expects(forwarded);
  }
  // Nothing is printed about datagrams.
  void printed(const std::string& lines) const {
    station->daemon->gets_signal(SIGTERM);
    EXPECT_EQ(station->daemon->exit_status(), SIGTERM);
    station::expect_output(*station->daemon, InNetwork::start_lines(),
                           lines + station::kMessageServerGone + station::kServerGone,
                           {station::kSenderStopped});
  }

  std::unique_ptr<InNetwork> station;
  std::optional<UdpPeer> ppt_server;
  std::optional<UdpPeer> unit;

 private:
  // It listens shortly after the daemon serves.
  void waits_for_the_relay() {
    for (int i = 0; i < 100; ++i) {
      unit->sends("first");
      if (ppt_server->receives(milliseconds(50))) break;
    }
    while (ppt_server->receives(milliseconds(100))) {
    }
  }
};

TEST_F(Relay, TextArrivesAtThePptServerWithANul) {
  passes_on("ABC", bytes("ABC\0"));
  EXPECT_EQ(ppt_server->their_ip(), "172.30.0.1");
  printed("");
}

TEST_F(Relay, DatagramArrivesUpToItsFirstNul) {
  passes_on(bytes("ABC\0DEF"), bytes("ABC\0"));
  passes_on(bytes("\0DEF"), bytes("\0"));
}

TEST_F(Relay, EmptyDatagramArrivesAsOneNul) {
  passes_on("", bytes("\0"));
}

TEST_F(Relay, LongDatagramArrivesCutTo255BytesAndWithANul) {
  const std::string text = std::string(254, 'x') + "y";
  passes_on(text.substr(0, 254), text.substr(0, 254) + bytes("\0"));
  passes_on(text, text + bytes("\0"));
  passes_on(text + std::string(1000, 'z'), text + bytes("\0"));
  passes_on("ABC", bytes("ABC\0"));
  printed("");
}

TEST_F(Relay, UnitIsNotAnswered) {
  passes_on("ABC", bytes("ABC\0"));
  ppt_server->sends("answer");
  unit->expects_nothing(milliseconds(300));
  passes_on("DEF", bytes("DEF\0"));
}

TEST_F(Relay, OnlyTheStationsAddressOnTheTestNetworkIsListenedOn) {
  ppt_server->aims_at("172.30.0.1", kRelayPort);
  ppt_server->sends("ABC");
  unit->aims_at(TestNetwork::kBroadcast, kRelayPort);
  unit->sends("DEF");
  ppt_server->expects_nothing(milliseconds(300));
}

TEST_F(Relay, PortIsTheSameWhateverTheMessagePort) {
  boots({"-m", "4000"}, station::sender_ready(4000));
  passes_on("ABC", bytes("ABC\0"));
  unit->aims_at(TestNetwork::kStation, 4000);
  unit->sends("DEF");
  ppt_server->expects_nothing(milliseconds(300));
}

TEST_F(Relay, DatagramsArePassedOnAfterTheFirstTwoSecondsToo) {
  std::this_thread::sleep_for(milliseconds(2300));
  passes_on("ABC", bytes("ABC\0"));
  std::this_thread::sleep_for(milliseconds(300));
  passes_on("DEF", bytes("DEF\0"));
  printed("");
}

TEST_F(Relay, PptServerThatDoesNotListenIsNotNoticed) {
  ppt_server.reset();
  unit->sends("lost");
  std::this_thread::sleep_for(milliseconds(100));
  ppt_server.emplace(station->ppt_server(kRelayPort));
  passes_on("ABC", bytes("ABC\0"));
  printed("");
}

TEST_F(Relay, UnreachablePptServerIsReportedAndTheNextDatagramIsPassedOn) {
  ip("link set ppt0 down");
  unit->sends("lost");
  const std::string line = "UDP:ERROR in sendto. Network is unreachable\n";
  ASSERT_TRUE(station->daemon->prints(line));
  ip("link set ppt0 up");
  passes_on("ABC", bytes("ABC\0"));
  printed(line);
}

// The station without its test network.
class RelayOnLoopback : public testing::Test {
 protected:
  void SetUp() override { NEEDS_SANDBOX(); }
  void gets_address() {
    ip("address add 172.40.0.1/32 dev lo");
    has_address_ = true;
  }
  void TearDown() override {
    if (has_address_) ip("address del 172.40.0.1/32 dev lo");
  }
  static void ends(Daemon& daemon, const std::string& relays_line) {
    daemon.gets_signal(SIGTERM);
    EXPECT_EQ(daemon.exit_status(), SIGTERM);
    station::expect_output(
        daemon, station::starting("127.0.0.1", 69, "127.0.0.1") + station::kServing,
        std::string(station::kNoSender) + station::kMessageServerGone + station::kServerGone, {relays_line});
  }
  const std::vector<std::string> arguments_ = {"-s", "127.0.0.1"};

 private:
  bool has_address_ = false;
};

TEST_F(RelayOnLoopback, AddressThatIsNotTheStationsIsReportedAndNoRelayRuns) {
  UdpPeer ppt_server("127.0.0.1", kRelayPort);
  Daemon daemon(arguments_);
  ASSERT_TRUE(daemon.prints("Error: Failed to initialize sender\n"));
  ASSERT_TRUE(daemon.prints("Cannot assign requested address\n"));
  gets_address();
  UdpPeer unit;
  unit.aims_at("172.40.0.1", kRelayPort);
  unit.sends("ABC");
  ppt_server.expects_nothing(milliseconds(300));
  ends(daemon, "UDP: ERROR on binding. Cannot assign requested address\n");
}

TEST_F(RelayOnLoopback, PortInUseIsReported) {
  gets_address();
  const UdpPeer occupant("172.40.0.1", kRelayPort);
  Daemon daemon(arguments_);
  ASSERT_TRUE(daemon.prints("Error: Failed to initialize sender\n"));
  ASSERT_TRUE(daemon.prints("Address already in use\n"));
  ends(daemon, "UDP: ERROR on binding. Address already in use\n");
}

}  // namespace
