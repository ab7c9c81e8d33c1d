#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <future>
#include <new>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "message_server/message_server.h"
#include "support/close_watch.h"
#include "support/descriptors.h"
#include "support/fault.h"
#include "support/flushed_lines.h"
#include "support/occupied_descriptors.h"
#include "support/sandbox.h"
#include "support/spoiling_output.h"
#include "support/tftp_bytes.h"
#include "support/threads.h"
#include "support/udp_peer.h"

// The thread that passes the unit's datagrams on to the PPT server.

namespace {

using std::chrono::milliseconds;
using tftp::bytes;

constexpr int kPort = 12345;
constexpr char kLocal[] = "127.0.0.1";
constexpr char kRemote[] = "127.0.0.2";
constexpr char kExited[] = "UDP Server exited...\n";
constexpr milliseconds kAtOnce(900);
constexpr milliseconds kUntilItWaitsAgain(100);

// Its port is fixed, so that only a private network has room for it.
class UdpRelay : public testing::Test {
 protected:
  void SetUp() override { NEEDS_SANDBOX(); }
};

// A record, and the relay thread at work on it.
class Relay {
 public:
  explicit Relay(const std::string& local_ip = kLocal, const std::string& remote_ip = kRemote)
      : descriptors_before_(open_descriptors()) {
    record.udp_local_ip = local_ip;
    record.udp_remote_ip = remote_ip;
    record.udp_running = true;
    record.udp_thread = handle_ = pthread_self();
    thread_ = std::async(std::launch::async, UdpMessageServerProc, &record);
  }
  ~Relay() {
    if (thread_.valid()) ends();
    if (listener() != -1) close(listener());  // left open after a failure
  }
  Relay(const Relay&) = delete;
  Relay& operator=(const Relay&) = delete;

  // The listening socket, or -1.
  static int listener() {
    for (int descriptor = 0; descriptor < 100; ++descriptor) {
      if (socket_option(descriptor, SOL_SOCKET, SO_TYPE) != SOCK_DGRAM) continue;
      if (bound_to(descriptor) == "127.0.0.1:12345") return descriptor;
    }
    return -1;
  }
  // Waits until datagrams are heard.
  static bool listens() {
    return wait_until([] { return listener() != -1; });
  }
  static UdpPeer unit() {
    EXPECT_TRUE(listens());
    UdpPeer peer;
    peer.aims_at(kLocal, kPort);
    return peer;
  }
  bool ended_within(milliseconds time) const { return thread_.wait_for(time) == std::future_status::ready; }
  // Stops the thread with the datagram that wakes it; all that was printed.
  std::string ends() {
    record.udp_running = false;
    UdpPeer peer;
    peer.aims_at(kLocal, kPort);
    peer.sends("wake up");
    return has_ended();
  }
  // Waits for the end of the thread; all that was printed.
  std::string has_ended() {
    if (ended_within(std::chrono::seconds(10))) {
      EXPECT_EQ(thread_.get(), nullptr);
    } else {
      ADD_FAILURE() << "the thread still runs";
    }
    return lines_of(output.text());
  }
  bool keeps_its_handle() const { return record.udp_thread == handle_; }
  int descriptors_left_open() const { return open_descriptors() - descriptors_before_; }

  SpoilingOutput output;
  MessageServer record{4000};

 private:
  int descriptors_before_;
  pthread_t handle_;
  std::future<void*> thread_;
};

// The PPT server, and a relay that aims at it.
class UdpRelayAtWork : public UdpRelay {
 protected:
  void SetUp() override {
    NEEDS_SANDBOX();
    ppt_server.emplace(kRemote, kPort);
    relay.emplace();
    unit.emplace(relay->unit());
  }
  void passes_on(const std::string& datagram, const std::string& forwarded) {
    unit->sends(datagram);
    ppt_server->expects(forwarded);
  }
  // Has no effect on a wait that has begun.
  void is_stopped_in_its_wait() {
    passes_on("", bytes("\0"));
    std::this_thread::sleep_for(kUntilItWaitsAgain);
    relay->record.udp_running = false;
  }

  std::optional<UdpPeer> ppt_server;
  std::optional<Relay> relay;
  std::optional<UdpPeer> unit;
};

TEST_F(UdpRelayAtWork, TextIsPassedOnWithANul) {
  passes_on("ABC", bytes("ABC\0"));
  EXPECT_EQ(relay->ends(), kExited);
}

TEST_F(UdpRelayAtWork, DatagramIsPassedOnUpToItsFirstNul) {
  passes_on(bytes("ABC\0DEF\0"), bytes("ABC\0"));
  passes_on(bytes("\0ABC"), bytes("\0"));
}

TEST_F(UdpRelayAtWork, EmptyDatagramIsPassedOnAsOneNul) {
  passes_on("", bytes("\0"));
}

TEST_F(UdpRelayAtWork, NothingOfALongerDatagramStaysBehind) {
  passes_on("a longer datagram", bytes("a longer datagram\0"));
  passes_on("short", bytes("short\0"));
  passes_on("", bytes("\0"));
}

TEST_F(UdpRelayAtWork, DatagramOf254BytesIsPassedOnWhole) {
  passes_on(std::string(254, 'x'), std::string(254, 'x') + bytes("\0"));
}

TEST_F(UdpRelayAtWork, DatagramOf255BytesIsPassedOnWholeAndWithANul) {
  const std::string text = std::string(254, 'x') + "y";
  passes_on(text, text + bytes("\0"));
  passes_on("ABC", bytes("ABC\0"));
}

TEST_F(UdpRelayAtWork, LongerDatagramIsCutTo255Bytes) {
  const std::string text = std::string(254, 'x') + "y";
  passes_on(text + "z", text + bytes("\0"));
  passes_on(text + std::string(40000, 'z'), text + bytes("\0"));
  passes_on("ABC", bytes("ABC\0"));
}

TEST_F(UdpRelayAtWork, BytesAbove127ArePassedOn) {
  passes_on("\x80\xFF\x01", bytes("\x80\xFF\x01\0"));
}

TEST_F(UdpRelayAtWork, DatagramsArePassedOnInTheirOrderFromOnePortOfTheSystemsChoice) {
  for (const std::string text : {"1", "2", "3"}) unit->sends(text);
  ppt_server->expects(bytes("1\0"));
  const int port = ppt_server->their_port();
  EXPECT_NE(port, kPort);
  for (const std::string& text : {bytes("2\0"), bytes("3\0")}) {
    ppt_server->expects(text);
    EXPECT_EQ(ppt_server->their_port(), port);
  }
}

TEST_F(UdpRelayAtWork, EverySenderIsPassedOn) {
  UdpPeer other = relay->unit();
  passes_on("unit", bytes("unit\0"));
  other.sends("other");
  ppt_server->expects(bytes("other\0"));
}

TEST_F(UdpRelayAtWork, NobodyIsAnswered) {
  passes_on("ABC", bytes("ABC\0"));
  ppt_server->sends("answer");
  unit->expects_nothing(milliseconds(150));
  passes_on("DEF", bytes("DEF\0"));
}

TEST_F(UdpRelayAtWork, OnlyItsLocalAddressIsListenedOn) {
  unit->aims_at("127.0.0.3", kPort);
  unit->sends("elsewhere");
  ppt_server->expects_nothing(milliseconds(150));
  unit->aims_at(kLocal, kPort);
  passes_on("ABC", bytes("ABC\0"));
}

TEST_F(UdpRelayAtWork, ListeningSocketSharesItsAddress) {
  EXPECT_EQ(socket_option(Relay::listener(), SOL_SOCKET, SO_REUSEADDR), 1);
}

TEST_F(UdpRelayAtWork, FailureOfTheForwardingIsReportedAndTheNextDatagramIsPassedOn) {
  {
    // The first sendto is the unit's own.
    const Fault no_route(Call::kSendto, EHOSTUNREACH, 2);
    unit->sends("lost");
    ASSERT_TRUE(wait_until([&] { return no_route.struck() == 1; }));
  }
  passes_on("ABC", bytes("ABC\0"));
  EXPECT_EQ(relay->ends(), std::string("UDP:ERROR in sendto. No route to host\n") + kExited);
}

TEST_F(UdpRelayAtWork, FailureOfTheForwardingAfterAStopIsTheEnd) {
  is_stopped_in_its_wait();
  const Fault no_route(Call::kSendto, EHOSTUNREACH, 2);
  unit->sends("lost");
  EXPECT_EQ(relay->has_ended(), std::string("UDP:ERROR in sendto. No route to host\n") + kExited);
}

TEST_F(UdpRelayAtWork, StopIsSeenAfterTheDatagramThatCameMeanwhile) {
  is_stopped_in_its_wait();
  passes_on("ABC", bytes("ABC\0"));
  EXPECT_EQ(relay->has_ended(), kExited);
}

TEST_F(UdpRelayAtWork, FailureOfTheReceptionIsTheEnd) {
  const Fault no_reception(Call::kRecvfrom, EIO);
  unit->sends("ABC");
  EXPECT_EQ(relay->has_ended(), std::string("UDP: ERROR in recvfrom\n") + kExited);
  EXPECT_TRUE(relay->record.udp_running);
  ppt_server->expects_nothing(milliseconds(50));
}

TEST_F(UdpRelay, FailureOfTheWaitIsTheEnd) {
  const Fault no_wait(Call::kSelect, EINVAL);
  Relay relay;
  EXPECT_EQ(relay.has_ended(), std::string("Error in UDP select(): \n") + kExited);
  EXPECT_EQ(relay.record.udp_thread, 0U);
  EXPECT_TRUE(relay.record.udp_running);
}

TEST_F(UdpRelay, UnreachableRemoteAddressIsReportedForEveryDatagram) {
  // A broadcast address, for which the forwarding socket has no permission.
  Relay relay(kLocal, "255.255.255.255");
  UdpPeer unit = relay.unit();
  unit.sends("ABC");
  unit.sends("DEF");
  const std::string line = "UDP:ERROR in sendto. Network is unreachable\n";
  ASSERT_TRUE(wait_until([&] { return lines_of(relay.output.text()) == line + line; }))
      << lines_of(relay.output.text());
}

TEST_F(UdpRelay, WithoutAListeningSocketNothingElseIsDone) {
  const Fault no_socket(Call::kSocket, EMFILE);
  const Fault no_bind(Call::kBind, EACCES);
  Relay relay;
  EXPECT_EQ(relay.has_ended(), "ERROR opening socket\n");
  EXPECT_EQ(no_bind.struck(), 0);
  EXPECT_EQ(relay.descriptors_left_open(), 0);
  EXPECT_TRUE(relay.keeps_its_handle());
  EXPECT_TRUE(relay.record.udp_running);
}

TEST_F(UdpRelay, WithoutAForwardingSocketTheListeningOneStaysOpen) {
  const Fault no_second_socket(Call::kSocket, EMFILE, 2);
  Relay relay;
  EXPECT_EQ(relay.has_ended(), "ERROR opening sender socket\n");
  EXPECT_EQ(relay.descriptors_left_open(), 1);
  EXPECT_TRUE(relay.listens());
  EXPECT_TRUE(relay.keeps_its_handle());
  EXPECT_TRUE(relay.record.udp_running);
}

TEST_F(UdpRelay, AddressInUseIsReportedAndTheSocketStaysOpen) {
  const UdpPeer occupant(kLocal, kPort);
  const Fault no_second_socket(Call::kSocket, EMFILE, 2);
  Relay relay;
  EXPECT_EQ(relay.has_ended(), "UDP: ERROR on binding. Address already in use\n");
  EXPECT_EQ(no_second_socket.struck(), 0);
  EXPECT_EQ(relay.descriptors_left_open(), 1);
  EXPECT_TRUE(relay.keeps_its_handle());
  EXPECT_TRUE(relay.record.udp_running);
  EXPECT_FALSE(relay.record.StartUDPServer(kLocal, kRemote));
}

TEST_F(UdpRelay, AddressThatIsNotTheStationsIsReported) {
  Relay relay("172.40.0.1");
  EXPECT_EQ(relay.has_ended(), "UDP: ERROR on binding. Cannot assign requested address\n");
  EXPECT_TRUE(relay.keeps_its_handle());
}

TEST_F(UdpRelay, WorksThoughItsSocketOptionIsRefused) {
  const Fault no_option(Call::kSetsockopt, EINVAL, 2);  // the first is the PPT server's own
  UdpPeer ppt_server(kRemote, kPort);
  Relay relay;
  UdpPeer unit = relay.unit();
  unit.sends("ABC");
  ppt_server.expects(bytes("ABC\0"));
  EXPECT_EQ(no_option.struck(), 1);
}

TEST_F(UdpRelay, DescriptorThatNoSetHoldsEndsIt) {
  const OccupiedDescriptors occupied(FD_SETSIZE);
  if (!occupied.possible()) GTEST_SKIP() << "the machine does not allow so many descriptors";
  Relay relay;
  EXPECT_EQ(relay.has_ended(), std::string("Error in UDP select(): \n") + kExited);
}

TEST_F(UdpRelay, EndClosesTheListeningSocketAndLeavesTheForwardingOneOpen) {
  Relay relay;
  relay.unit();
  EXPECT_EQ(relay.ends(), kExited);
  EXPECT_EQ(relay.descriptors_left_open(), 1);
  EXPECT_EQ(relay.record.udp_thread, 0U);
  const UdpPeer the_address_is_free(kLocal, kPort);
}

TEST_F(UdpRelay, EndClosesThenClearsTheHandleThenSaysSo) {
  std::vector<std::string> order;
  Relay relay;
  ASSERT_TRUE(relay.listens());
  const auto handle = [&] { return relay.record.udp_thread == 0 ? "without handle" : "with handle"; };
  const CloseWatch closing(relay.listener(), [&] { order.push_back(std::string("closed ") + handle()); });
  const SpoilingOutput output([&](const std::string& piece) {
    if (piece.rfind("UDP Server", 0) == 0) order.push_back(std::string("said ") + handle());
  });
  relay.ends();
  EXPECT_EQ(order, (std::vector<std::string>{"closed with handle", "said without handle"}));
}

TEST_F(UdpRelay, FlagThatIsClearBeforeTheFirstWaitIsTheEnd) {
  const SpoilingOutput output;
  const Fault no_wait(Call::kSelect, EINVAL);
  MessageServer record(4000);
  record.udp_local_ip = kLocal;
  record.udp_remote_ip = kRemote;
  EXPECT_EQ(UdpMessageServerProc(&record), nullptr);
  EXPECT_EQ(lines_of(output.text()), kExited);
  EXPECT_EQ(no_wait.struck(), 0);
}

TEST_F(UdpRelay, StopBeforeTheFirstTwoSecondsTakesEffectAfterThem) {
  const Stopwatch watch;
  Relay relay;
  std::this_thread::sleep_for(milliseconds(300));
  relay.record.udp_running = false;
  EXPECT_EQ(relay.has_ended(), kExited);
  EXPECT_GE(watch.elapsed(), milliseconds(1950));
  EXPECT_LE(watch.elapsed(), milliseconds(2000) + kAtOnce);
}

TEST_F(UdpRelay, StopAfterTheFirstTwoSecondsTakesEffectAtOnce) {
  Relay relay;
  std::this_thread::sleep_for(milliseconds(2300));
  const Stopwatch watch;
  relay.record.udp_running = false;
  EXPECT_EQ(relay.has_ended(), kExited);
  EXPECT_LE(watch.elapsed(), kAtOnce);
}

TEST_F(UdpRelay, DatagramsDoNotProlongTheFirstTwoSeconds) {
  const Stopwatch watch;
  Relay relay;
  for (int i = 0; i < 3; ++i) {
    std::this_thread::sleep_for(milliseconds(400));
    relay.unit().sends("ABC");
  }
  std::this_thread::sleep_for(kUntilItWaitsAgain);
  relay.record.udp_running = false;
  EXPECT_EQ(relay.has_ended(), kExited);
  EXPECT_GE(watch.elapsed(), milliseconds(1900));
  EXPECT_LE(watch.elapsed(), milliseconds(2000) + kAtOnce);
}

// Its storage means something else as soon as it has gone.
TEST_F(UdpRelay, PassesOnWhatComesAfterItsRecordHasGone) {
  UdpPeer ppt_server(kRemote, kPort);
  alignas(MessageServer) unsigned char storage[sizeof(MessageServer)];
  const SpoilingOutput output;
  auto* const record = new (storage) MessageServer(4000);
  ASSERT_TRUE(record->StartUDPServer(kLocal, kRemote));
  UdpPeer unit = Relay::unit();
  unit.sends("before");
  ppt_server.expects(bytes("before\0"));
  record->~MessageServer();
  std::memset(storage, 0, sizeof storage);  // a flag that stood there would be clear now
  unit.sends("after");
  ppt_server.expects(bytes("after\0"));
  std::this_thread::sleep_for(milliseconds(2300));  // from then on it looks at its record all the time
  unit.sends("long after");
  ppt_server.expects(bytes("long after\0"));
}

TEST_F(UdpRelay, BeginsThoughItsRecordHasGoneBeforeItRan) {
  UdpPeer ppt_server(kRemote, kPort);
  const SpoilingOutput output;
  alignas(MessageServer) unsigned char storage[sizeof(MessageServer)];
  auto* const record = new (storage) MessageServer(4000);
  ASSERT_TRUE(record->StartUDPServer(kLocal, kRemote));
  record->~MessageServer();
  std::memset(storage, 0, sizeof storage);
  UdpPeer unit = Relay::unit();
  unit.sends("ABC");
  ppt_server.expects(bytes("ABC\0"));
}

TEST_F(UdpRelayAtWork, DatagramsArePassedOnAfterTheFirstTwoSecondsToo) {
  std::this_thread::sleep_for(milliseconds(2300));
  passes_on("ABC", bytes("ABC\0"));
  passes_on("DEF", bytes("DEF\0"));
  EXPECT_EQ(relay->ends(), kExited);
}

}  // namespace
