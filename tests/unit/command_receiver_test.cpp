#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "message_server/message_server.h"
#include "support/captured_output.h"
#include "support/close_watch.h"
#include "support/descriptors.h"
#include "support/fake_board.h"
#include "support/fault.h"
#include "support/occupied_descriptors.h"
#include "support/receiver.h"
#include "support/spoiling_output.h"
#include "support/tcp_peer.h"
#include "support/threads.h"

// The thread that takes the unit's connections and serves them.

namespace {

using std::chrono::milliseconds;

constexpr milliseconds kAtOnce(900);
constexpr milliseconds kLongerThanTheWait(2500);
constexpr milliseconds kUntilItWaitsAgain(100);

TEST(CommandReceiver, ConnectionThatIsFoundReadableAgainBeginsWithAnEmptyBuffer) {
  Receiver receiver;
  const TcpPeer peer = receiver.connection();
  {
    const Fault nothing_there(Call::kRecv, EAGAIN, 2);
    peer.sends("hello world");
    ASSERT_TRUE(wait_until([&] { return nothing_there.struck() == 1; }));
  }
  peer.expects("hello world");
  peer.asks("HEY", "HEY");
}

TEST(CommandReceiver, EndOfTheRecordLeavesAloneWhoHasTheNumberOfTheSocketThatTheThreadClosed) {
  const SpoilingOutput output;
  const int listener = listening_socket();
  auto record = std::make_unique<MessageServer>(4000);
  record->receive_socket = listener;
  {
    const TcpPeer wakes_it = connection_to(listener);
    ReceiverProc(record.get());
  }
  ASSERT_FALSE(is_open(listener));
  const WatchedDescriptor stranger;
  ASSERT_EQ(stranger.number(), listener);
  record.reset();
  EXPECT_FALSE(stranger.is_closed());
  close(stranger.number());
}

TEST(CommandReceiver, ConnectionIsServedUntilItsPeerCloses) {
  Receiver receiver;
  TcpPeer first = receiver.connection();
  first.asks("first", "first");
  const TcpPeer second = receiver.connection();
  second.sends("second");
  second.expects_nothing();
  first.asks("first again", "first again");
  second.expects_nothing();
  first.closes();
  second.expects("second");
  second.ends_its_texts();
  EXPECT_EQ(receiver.ends(), kStopped);
}

TEST(CommandReceiver, SilentConnectionDoesNotHoldTheThread) {
  Receiver receiver;
  const TcpPeer silent = receiver.connection();
  const TcpPeer silent_too = receiver.connection();
  receiver.is_asked("hello", "hello");
  receiver.is_asked("hello again", "hello again");
  silent.asks("not silent", "not silent");
}

TEST(CommandReceiver, WaitingConnectionsAreServedFromTheLowestDescriptorUp) {
  Receiver receiver;
  TcpPeer early = receiver.connection();
  const TcpPeer late = receiver.connection();
  receiver.takes_all_connections();
  TcpPeer holding = receiver.connection();
  holding.asks("hold", "hold");
  late.sends("late");
  early.sends("early");
  holding.closes();
  early.expects("early");
  late.expects_nothing();
  early.closes();
  late.expects("late");
}

TEST(CommandReceiver, ConnectionsAreLeftBlocking) {
  Receiver receiver;
  const int before = open_descriptors();
  const TcpPeer peer = receiver.connection();
  peer.asks("hello", "hello");
  ASSERT_EQ(open_descriptors(), before + 2);
  int blocking = 0;
  for (int descriptor = 0; descriptor < 100; ++descriptor) {
    if (socket_option(descriptor, SOL_SOCKET, SO_ACCEPTCONN) != 0) continue;
    if (bound_to(descriptor) == bound_to(receiver.listener())) {
      blocking += (fcntl(descriptor, F_GETFL) & O_NONBLOCK) == 0;
    }
  }
  EXPECT_EQ(blocking, 1);
}

TEST(CommandReceiver, ConnectionStaysServedWhenOneOnAHigherDescriptorIsClosed) {
  Receiver receiver;
  TcpPeer first = receiver.connection();
  TcpPeer second = receiver.connection();
  TcpPeer third = receiver.connection();
  receiver.takes_all_connections();
  third.closes();
  receiver.takes_all_connections();
  second.asks("second", "second");
  second.closes();
  first.asks("first", "first");
  first.closes();
  receiver.is_asked("new", "new");
}

TEST(CommandReceiver, ConnectionStaysServedWhenALowerDescriptorIsTakenAgain) {
  Receiver receiver;
  TcpPeer low = receiver.connection();
  const TcpPeer high = receiver.connection();
  receiver.takes_all_connections();
  low.closes();
  receiver.takes_all_connections();
  TcpPeer low_again = receiver.connection();
  receiver.takes_all_connections();
  high.asks("high", "high");
}

TEST(CommandReceiver, HundredConnectionsLeaveNoDescriptorOpen) {
  Receiver receiver;
  const int before = open_descriptors();
  for (int i = 0; i < 100; ++i) receiver.is_asked("hello", "hello");
  EXPECT_TRUE(wait_until([&] { return open_descriptors() == before; }));
}

TEST(CommandReceiver, ConnectionWithTheNumber0IsServed) {
  Receiver receiver;
  TcpPeer holding = receiver.connection();
  holding.asks("hold", "hold");
  TcpPeer peer = receiver.connection();
  const int input = dup(STDIN_FILENO);
  close(STDIN_FILENO);
  holding.closes();
  peer.asks("hello", "hello");
  EXPECT_TRUE(is_open(STDIN_FILENO));
  peer.closes();
  EXPECT_TRUE(wait_until([] { return !is_open(STDIN_FILENO); }));
  dup2(input, STDIN_FILENO);
  close(input);
}

TEST(CommandReceiver, AcceptsUntilNoConnectionIsLeft) {
  const int listener = listening_socket();
  const TcpPeer first = connection_to(listener);
  const TcpPeer second = connection_to(listener);
  const Fault third_accept(Call::kAccept, EMFILE, 3);
  Receiver receiver(listener);
  EXPECT_EQ(receiver.has_ended(), std::string("ERROR on accept()\n") + kStopped);
}

TEST(CommandReceiver, FailureOfAcceptEndsTheThreadAfterThePass) {
  Receiver receiver;
  TcpPeer waiting = receiver.connection();
  receiver.takes_all_connections();
  TcpPeer holding = receiver.connection();
  holding.asks("hold", "hold");
  waiting.sends("hello");
  const TcpPeer refused = receiver.connection();
  const Fault no_accept(Call::kAccept, EMFILE);
  holding.closes();
  waiting.expects("hello");
  EXPECT_FALSE(receiver.record.receiving);
  EXPECT_FALSE(receiver.ended_within(milliseconds(100)));
  waiting.closes();
  EXPECT_EQ(receiver.has_ended(), std::string("ERROR on accept()\n") + kStopped);
}

TEST(CommandReceiver, DescriptorThatNoSetHoldsIsClosedAtOnce) {
  Receiver receiver;
  const TcpPeer silent = receiver.connection();
  receiver.takes_all_connections();
  {
    const OccupiedDescriptors occupied(FD_SETSIZE);
    if (!occupied.possible()) GTEST_SKIP() << "the machine does not allow so many descriptors";
    const TcpPeer first = receiver.connection();
    const TcpPeer second = receiver.connection();
    first.expects_end();
    second.expects_end();
  }
  silent.asks("hello", "hello");
  silent.ends_its_texts();
  EXPECT_EQ(receiver.ends(), kStopped);
}

TEST(CommandReceiver, ListeningSocketThatNoSetHoldsEndsTheThreadAndStaysOpen) {
  int listener = -1;
  {
    const OccupiedDescriptors occupied(FD_SETSIZE);
    if (!occupied.possible()) GTEST_SKIP() << "the machine does not allow so many descriptors";
    listener = listening_socket();
  }
  ASSERT_GE(listener, FD_SETSIZE);
  Receiver receiver(listener);
  EXPECT_EQ(receiver.has_ended(), std::string("ERROR:  select() failed\n") + kStopped);
  EXPECT_TRUE(receiver.record.receiving);
  EXPECT_TRUE(is_open(listener));
  close(listener);
}

void failure_closes_only_the_connection(Call call, const std::string& line) {
  Receiver receiver;
  const TcpPeer peer = receiver.connection();
  const TcpPeer other = receiver.connection();
  receiver.takes_all_connections();
  {
    const Fault failure(call, EIO);
    peer.sends("hello");
    peer.expects_end();
  }
  other.asks("hello", "hello");
  other.ends_its_texts();
  EXPECT_EQ(receiver.ends(), line + kStopped);
}

TEST(CommandReceiver, FailureOfRecvClosesOnlyTheConnection) {
  failure_closes_only_the_connection(Call::kRecv, "  recv() failed\n");
}

TEST(CommandReceiver, PeerThatResetsItsConnectionIsReported) {
  Receiver receiver;
  TcpPeer peer = receiver.connection();
  peer.asks("hello", "hello");
  peer.resets();
  TcpPeer silent = receiver.connection();
  receiver.takes_all_connections();
  silent.resets();
  receiver.is_asked("hello", "hello");
  EXPECT_EQ(receiver.ends(), std::string("  recv() failed\n  recv() failed\n") + kStopped);
}

TEST(CommandReceiver, PeerThatClosesIsNotReported) {
  Receiver receiver;
  TcpPeer silent = receiver.connection();
  receiver.takes_all_connections();
  silent.closes();
  receiver.is_asked("hello", "hello");
  EXPECT_EQ(receiver.ends(), kStopped);
}

TEST(CommandReceiver, FailureOfSendClosesOnlyTheConnection) {
  failure_closes_only_the_connection(Call::kSend, "ERROR on send. \n");
}

TEST(CommandReceiver, ConnectionThatHasNothingToReadStaysOpen) {
  Receiver receiver;
  const TcpPeer peer = receiver.connection();
  receiver.takes_all_connections();
  {
    const Fault nothing_there(Call::kRecv, EAGAIN);
    peer.asks("hello", "hello");
    EXPECT_EQ(nothing_there.struck(), 1);
  }
  peer.ends_its_texts();
  EXPECT_EQ(receiver.ends(), kStopped);
}

TEST(CommandReceiver, NextConnectionOfThePassFollowsOneThatHasNothingToRead) {
  const FakeBoard board;
  Receiver receiver;
  const TcpPeer first = receiver.connection();
  TcpPeer second = receiver.connection();
  receiver.takes_all_connections();
  board.holds(FakeBoard::kEnvtool);
  const TcpPeer holding = receiver.connection();
  holding.sends("ZIRN_ASKS_FOR_HIS_MAC");
  ASSERT_TRUE(wait_until([&] { return !board.calls().empty(); }));
  first.sends("first");
  second.sends("second");
  holding.ends_its_texts();
  // The first recv finds the end of the holding connection.
  const Fault nothing_there(Call::kRecv, EAGAIN, 2);
  board.releases(FakeBoard::kEnvtool);
  second.expects("second");
  first.expects_nothing();
  second.closes();
  first.expects("first");
}

TEST(CommandReceiver, FailureOfTheWaitEndsTheThreadAndLeavesItsFlag) {
  Receiver receiver;
  const TcpPeer silent = receiver.connection();
  receiver.takes_all_connections();
  const TcpPeer served = receiver.connection();
  served.asks("hello", "hello");
  const Fault no_wait(Call::kSelect, EINVAL);
  served.ends_its_texts();
  EXPECT_EQ(receiver.has_ended(), std::string("ERROR:  select() failed\n") + kStopped);
  silent.expects_end();
  EXPECT_TRUE(receiver.record.receiving);
  EXPECT_EQ(receiver.record.receive_socket, receiver.listener());
  EXPECT_FALSE(is_open(receiver.listener()));
}

TEST(CommandReceiver, EndClosesTheListeningSocketAndEveryConnection) {
  const int before = open_descriptors();
  {
    Receiver receiver;
    std::vector<TcpPeer> silent;
    for (int i = 0; i < 5; ++i) silent.push_back(receiver.connection());
    receiver.takes_all_connections();
    EXPECT_EQ(receiver.ends(), kStopped);
    EXPECT_FALSE(is_open(receiver.listener()));
    EXPECT_EQ(receiver.record.receive_socket, receiver.listener());
    EXPECT_FALSE(receiver.record.receiving);
    for (const TcpPeer& peer : silent) peer.expects_end();
  }
  EXPECT_EQ(open_descriptors(), before);
}

TEST(CommandReceiver, EndClearsTheHandleThenClosesThenSaysSo) {
  const int listener = listening_socket();
  std::vector<std::string> order;
  {
    Receiver receiver(listener);
    const CloseWatch closing(listener, [&] {
      order.push_back(receiver.record.receiver_thread == 0 ? "closed without handle" : "closed with handle");
    });
    const SpoilingOutput output([&](const std::string& piece) {
      if (piece.rfind("Receiver", 0) == 0) order.push_back(is_open(listener) ? "said open" : "said closed");
    });
    receiver.ends();
    EXPECT_EQ(output.text(), SpoilingOutput::flushed_lines(kStopped));
  }
  EXPECT_EQ(order, (std::vector<std::string>{"closed without handle", "said closed"}));
}

TEST(CommandReceiver, StopBeforeTheFirstTwoSecondsTakesEffectAfterThem) {
  const Stopwatch watch;
  Receiver receiver;
  std::this_thread::sleep_for(milliseconds(300));
  receiver.record.StopReceive();
  receiver.has_ended();
  EXPECT_GE(watch.elapsed(), milliseconds(1950));
  EXPECT_LE(watch.elapsed(), milliseconds(2000) + kAtOnce);
}

TEST(CommandReceiver, StopAfterTheFirstTwoSecondsTakesEffectAtOnce) {
  Receiver receiver;
  std::this_thread::sleep_for(milliseconds(2300));
  const Stopwatch watch;
  receiver.record.StopReceive();
  receiver.has_ended();
  EXPECT_LE(watch.elapsed(), kAtOnce);
}

TEST(CommandReceiver, ConnectionsDoNotProlongTheFirstTwoSeconds) {
  const Stopwatch watch;
  Receiver receiver;
  for (int i = 0; i < 3; ++i) {
    std::this_thread::sleep_for(milliseconds(400));
    receiver.is_asked("hello", "hello");
  }
  std::this_thread::sleep_for(kUntilItWaitsAgain);
  receiver.record.StopReceive();
  receiver.has_ended();
  EXPECT_GE(watch.elapsed(), milliseconds(1900));
  EXPECT_LE(watch.elapsed(), milliseconds(2000) + kAtOnce);
}

TEST(CommandReceiver, TimeSpentOnAConnectionIsNoTimeOfTheWait) {
  const Stopwatch watch;
  Receiver receiver;
  TcpPeer peer = receiver.connection();
  peer.asks("hello", "hello");
  std::this_thread::sleep_for(milliseconds(1500));
  peer.closes();
  std::this_thread::sleep_for(kUntilItWaitsAgain);
  receiver.record.StopReceive();
  receiver.has_ended();
  EXPECT_GE(watch.elapsed(), milliseconds(3400));
  EXPECT_LE(watch.elapsed(), milliseconds(3500) + kAtOnce);
}

TEST(CommandReceiver, StopTakesEffectOnlyWhenTheConnectionServedIsClosed) {
  Receiver receiver;
  TcpPeer peer = receiver.connection();
  peer.asks("hello", "hello");
  receiver.record.StopReceive();
  EXPECT_FALSE(receiver.ended_within(kLongerThanTheWait));
  peer.asks("still there", "still there");
  EXPECT_FALSE(receiver.ended_within(milliseconds(300)));
  peer.closes();
  EXPECT_EQ(receiver.has_ended(), kStopped);
}

TEST(CommandReceiver, SilentConnectionDoesNotKeepAStopWaiting) {
  Receiver receiver;
  const TcpPeer silent = receiver.connection();
  receiver.takes_all_connections();
  receiver.record.StopReceive();
  EXPECT_TRUE(receiver.ended_within(milliseconds(2000) + kAtOnce));
  silent.expects_end();
}

TEST(CommandReceiver, FirstPassIsMadeThoughTheFlagIsClearAlready) {
  const CapturedOutput output;
  const int listener = listening_socket();
  MessageServer record(4000);
  record.receive_socket = listener;
  const TcpPeer waiting = connection_to(listener);
  const Fault no_accept(Call::kAccept, EMFILE);
  EXPECT_EQ(ReceiverProc(&record), nullptr);
  EXPECT_EQ(output.text(), std::string("ERROR on accept()\n") + kStopped);
  record.receive_socket = -1;
}

TEST(CommandReceiver, ListeningSocketThatTheRecordNamesNoMoreIsTakenForAConnection) {
  Receiver receiver;
  const TcpPeer silent = receiver.connection();
  const TcpPeer other = receiver.connection();
  receiver.takes_all_connections();
  receiver.record.receive_socket = -1;
  const TcpPeer unanswered = receiver.connection();
  unanswered.expects_end();
  EXPECT_FALSE(is_open(receiver.listener()));
  other.asks("hello", "hello");
  other.ends_its_texts();
  EXPECT_EQ(receiver.ends(), std::string("  recv() failed\n") + kStopped);
  silent.expects_end();
}

TEST(CommandReceiver, WithoutAnyDescriptorItWaitsForItsStop) {
  Receiver receiver;
  receiver.takes_all_connections();
  receiver.record.receive_socket = -1;
  receiver.connection().expects_end();
  EXPECT_FALSE(receiver.ended_within(kLongerThanTheWait));
  EXPECT_EQ(receiver.ends(), std::string("  recv() failed\n") + kStopped);
}

}  // namespace
