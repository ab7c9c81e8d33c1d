#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <new>
#include <set>
#include <string>
#include <thread>

#include "message_server/message_server.h"
#include "support/aimed_server.h"
#include "support/captured_output.h"
#include "support/descriptors.h"
#include "support/fault.h"
#include "support/spoiling_output.h"
#include "support/tftp_bytes.h"
#include "support/threads.h"
#include "support/udp_peer.h"

// The first of the message service's three workers: its start and stop, its thread.

namespace {

using std::chrono::milliseconds;
using tftp::bytes;

constexpr char kStopped[] = "Sender proc stopped!!!\n";
constexpr int kMessagePort = 12345;
constexpr milliseconds kAtOnce(800);
constexpr milliseconds kLateForASecond(1900);

bool start(MessageServer& server, int count, const std::string& message) {
  return server.StartSender(count, message.data(), static_cast<int>(message.size()));
}

// A sender that aims at the peer.
class MessageSender : public testing::Test {
 protected:
  UdpPeer peer;
  const CapturedOutput output;
  AimedServer server{peer};
};

TEST_F(MessageSender, SendsTheCountedNumberOfTimesOneSecondApartAndIsSpentThen) {
  const Stopwatch watch;
  ASSERT_TRUE(start(server, 2, "boot"));
  EXPECT_TRUE(server.sending);
  EXPECT_NE(server.sender_thread, 0U);
  EXPECT_EQ(server.repeat_count, 2);
  peer.expects("boot", kAtOnce);
  peer.expects("boot");
  EXPECT_GE(watch.elapsed(), milliseconds(1000));
  EXPECT_LT(watch.elapsed(), kLateForASecond);
  EXPECT_EQ(output.text(), "");
  ASSERT_TRUE(output.waits_for("\n"));
  EXPECT_GE(watch.elapsed(), milliseconds(2000));
  EXPECT_LT(watch.elapsed(), milliseconds(1000) + kLateForASecond);
  EXPECT_EQ(output.text(), kStopped);
  peer.expects_nothing(milliseconds(100));

  EXPECT_TRUE(server.sending);
  EXPECT_EQ(server.sender_thread, 0U);
  EXPECT_FALSE(start(server, 1, "again"));
  EXPECT_EQ(server.InitializeSender("lo", false), -1);
  EXPECT_EQ(output.text(), std::string(kStopped) + "MessageServer already sending message\n");

  server.StopSender();
  EXPECT_FALSE(server.sending);
  EXPECT_TRUE(start(server, 1, "again"));
  peer.expects("again", kAtOnce);
}

TEST_F(MessageSender, LengthBelowZeroSendsNoByteOfItsMemory) {
  EXPECT_TRUE(server.StartSender(1, "boot", -1));
  peer.expects("", kAtOnce);
  EXPECT_EQ(server.message_length, -1);
}

TEST_F(MessageSender, LengthZeroReadsNoByte) {
  EXPECT_TRUE(server.StartSender(1, nullptr, 0));
  peer.expects("", kAtOnce);
}

TEST_F(MessageSender, CountZeroSendsNothingAndEndsAtOnce) {
  EXPECT_TRUE(start(server, 0, "boot"));
  EXPECT_TRUE(output.waits_for("\n", kAtOnce));
  EXPECT_EQ(output.text(), kStopped);
  peer.expects_nothing(milliseconds(50));
  EXPECT_TRUE(server.sending);
  EXPECT_EQ(server.sender_thread, 0U);
  EXPECT_FALSE(start(server, 1, "boot"));
}

TEST_F(MessageSender, CountBelowMinusOneSendsNothing) {
  EXPECT_TRUE(start(server, -2, "boot"));
  EXPECT_TRUE(output.waits_for("\n", kAtOnce));
  EXPECT_EQ(output.text(), kStopped);
  peer.expects_nothing(milliseconds(50));
}

TEST_F(MessageSender, CountMinusOneSendsUntilStoppedAndIsIdleThen) {
  const Stopwatch watch;
  ASSERT_TRUE(start(server, -1, "boot"));
  for (int sent = 0; sent < 3; ++sent) peer.expects("boot");
  EXPECT_GE(watch.elapsed(), milliseconds(2000));
  EXPECT_LT(watch.elapsed(), milliseconds(1000) + kLateForASecond);

  server.StopSender();
  EXPECT_FALSE(server.sending);
  EXPECT_NE(server.sender_thread, 0U) << "it ends after its sleep, and nobody waits for it";
  EXPECT_EQ(output.text(), "");
  EXPECT_TRUE(output.waits_for("\n", kLateForASecond));
  EXPECT_GE(watch.elapsed(), milliseconds(3000));
  EXPECT_EQ(output.text(), kStopped);
  EXPECT_EQ(server.sender_thread, 0U);
  EXPECT_FALSE(server.sending);
  peer.expects_nothing(milliseconds(50));
  EXPECT_TRUE(start(server, 0, "boot"));
}

TEST_F(MessageSender, AStopIsSeenBeforeTheCountRunsOut) {
  ASSERT_TRUE(start(server, 2, "boot"));
  peer.expects("boot");
  server.StopSender();
  EXPECT_TRUE(output.waits_for(kStopped));
  peer.expects_nothing(milliseconds(50));
}

TEST_F(MessageSender, StoppingWhatDoesNotRunDoesNothing) {
  server.StopSender();
  EXPECT_FALSE(server.sending);
  EXPECT_EQ(output.text(), "");
}

TEST_F(MessageSender, IsNotStartedTwice) {
  ASSERT_TRUE(start(server, 1, "boot"));
  peer.expects("boot");
  const char* const message = server.message;
  const pthread_t thread = server.sender_thread;
  EXPECT_FALSE(start(server, 5, "other words"));
  EXPECT_EQ(output.text(), "");
  EXPECT_EQ(server.message, message);
  EXPECT_EQ(server.message_length, 4);
  EXPECT_EQ(server.repeat_count, 1);
  EXPECT_EQ(server.sender_thread, thread);
  peer.expects_nothing(kAtOnce);
}

TEST_F(MessageSender, SendsACopyOfTheMessage) {
  std::string mine = "boot";
  ASSERT_TRUE(start(server, 2, mine));
  EXPECT_NE(server.message, mine.data());
  peer.expects("boot");
  mine = "gone";
  peer.expects("boot");
}

TEST_F(MessageSender, SendsAllBytesOfTheMessageWhateverTheyAre) {
  const std::string message = bytes("\0a\0\0\xff\n\0");
  ASSERT_TRUE(start(server, 1, message));
  EXPECT_EQ(server.message_length, 7);
  EXPECT_EQ(std::string(server.message, 7), message);
  peer.expects(message);
}

TEST_F(MessageSender, AnEmptyMessageIsAnEmptyDatagram) {
  ASSERT_TRUE(start(server, 1, ""));
  EXPECT_EQ(server.message_length, 0);
  EXPECT_NE(server.message, nullptr);
  peer.expects("", kAtOnce);
}

TEST_F(MessageSender, ANewMessageTakesThePlaceOfTheOldOne) {
  ASSERT_TRUE(start(server, 0, "the first message"));
  ASSERT_TRUE(output.waits_for(kStopped));
  server.StopSender();
  ASSERT_TRUE(start(server, 1, "second"));
  EXPECT_EQ(server.message_length, 6);
  EXPECT_EQ(server.repeat_count, 1);
  peer.expects("second");
}

TEST_F(MessageSender, RestartedBeforeItHasEndedItGoesOnBesideTheNewOne) {
  ASSERT_TRUE(start(server, 2, "old"));
  peer.expects("old");
  // In its sleep it does not touch the message that a new start releases.
  std::this_thread::sleep_for(milliseconds(200));
  server.StopSender();
  ASSERT_TRUE(start(server, 1, "new"));
  peer.expects("new", kAtOnce);
  peer.expects("new");
  EXPECT_TRUE(output.waits_for(std::string(kStopped) + kStopped));
  peer.expects_nothing(milliseconds(50));
}

TEST_F(MessageSender, ACountSetToMinusOneMeanwhileMakesItGoOn) {
  ASSERT_TRUE(start(server, 1, "boot"));
  peer.expects("boot");
  server.repeat_count = -1;
  peer.expects("boot");
  peer.expects("boot");
}

TEST_F(MessageSender, AnyOtherCountSetMeanwhileDoesNotChangeTheCountdown) {
  ASSERT_TRUE(start(server, 2, "boot"));
  peer.expects("boot");
  server.repeat_count = 100;
  peer.expects("boot");
  EXPECT_TRUE(output.waits_for(kStopped));
  peer.expects_nothing(milliseconds(50));
}

TEST_F(MessageSender, AnEndlessOneGivenACountEndsAfterItsSleep) {
  ASSERT_TRUE(start(server, -1, "boot"));
  peer.expects("boot");
  server.repeat_count = 5;
  EXPECT_TRUE(output.waits_for(kStopped, kLateForASecond));
  peer.expects_nothing(milliseconds(50));
}

TEST_F(MessageSender, AFailureToSendIsReportedAndTheNextSendFollows) {
  const SpoilingOutput spoiled;
  const Fault first(Call::kSendto, ENOBUFS);
  const Stopwatch watch;
  ASSERT_TRUE(start(server, 2, "boot"));
  peer.expects("boot");
  EXPECT_GE(watch.elapsed(), milliseconds(1000));
  EXPECT_TRUE(wait_until([&] { return server.sender_thread == 0; }));
  const std::string expected = SpoilingOutput::flushed_lines(
      "Error in \"sendto\":  the reason is No buffer space available\nSender proc stopped!!!\n");
  EXPECT_TRUE(wait_until([&] { return spoiled.text().size() >= expected.size(); }));
  EXPECT_EQ(spoiled.text(), expected);
}

TEST_F(MessageSender, SendsOnWhateverSocketTheRecordHoldsByThen) {
  const int first = server.sender_socket;
  ASSERT_TRUE(start(server, 3, "boot"));
  peer.expects("boot");
  server.sender_socket = -1;
  ASSERT_TRUE(output.waits_for("\n"));
  EXPECT_EQ(output.text(), "Error in \"sendto\":  the reason is Bad file descriptor\n");
  server.sender_socket = first;
  peer.expects("boot");
}

TEST_F(MessageSender, BodyEndsBeforeTheFirstSendWhenStoppedByThen) {
  const SpoilingOutput spoiled;
  server.repeat_count = 1;
  server.message_length = 0;
  server.sender_thread = pthread_self();
  EXPECT_EQ(SenderProc(static_cast<MessageServer*>(&server)), nullptr);
  EXPECT_EQ(server.sender_thread, 0U);
  EXPECT_EQ(spoiled.text(), SpoilingOutput::flushed_lines(kStopped));
  peer.expects_nothing(milliseconds(50));
}

TEST_F(MessageSender, ThreadHasDefaultAttributesAndReturnsNull) {
  ASSERT_TRUE(start(server, 1, "boot"));
  const pthread_t thread = server.sender_thread;
  void* result = &server;
  ASSERT_EQ(pthread_join(thread, &result), 0);
  EXPECT_EQ(result, nullptr);
  EXPECT_EQ(output.text(), kStopped);
}

TEST_F(MessageSender, ThreadCreationThatReturnsMinusOneIsAFailureThatLeavesItSending) {
  const SpoilingOutput spoiled;
  {
    AimedServer other(peer);
    other.sender_thread = pthread_self();  // what a failing creation may have written
    const Fault no_thread(Call::kThread, -1);
    EXPECT_FALSE(start(other, 4, "boot"));
    EXPECT_EQ(spoiled.text(), SpoilingOutput::flushed_lines(" Can't create sender thread\n"));
    EXPECT_TRUE(other.sending);
    EXPECT_EQ(other.sender_thread, 0U);
    EXPECT_EQ(std::string(other.message, 4), "boot");
    EXPECT_EQ(other.message_length, 4);
    EXPECT_EQ(other.repeat_count, 4);
    EXPECT_FALSE(start(other, 1, "boot"));
    EXPECT_EQ(no_thread.struck(), 1);
  }
  peer.expects_nothing(milliseconds(50));
}

TEST_F(MessageSender, ThreadCreationThatReturnsAnErrorNumberCountsAsSuccess) {
  {
    AimedServer other(peer);
    other.sender_thread = pthread_self();
    const Fault no_thread(Call::kThread, EAGAIN);
    EXPECT_TRUE(start(other, 1, "boot"));
    EXPECT_EQ(output.text(), "");
    EXPECT_TRUE(other.sending);
    EXPECT_EQ(other.sender_thread, 0U);
  }
  EXPECT_EQ(output.text(), "Message Server was shut down\n");
  peer.expects_nothing(milliseconds(50));
}

TEST_F(MessageSender, ThreadHandleIsWrittenByTheCreationAndByNobodyAfterIt) {
  const pthread_t written_meanwhile = pthread_self();
  server.sender_thread = written_meanwhile;
  const Fault nothing_created_but_success(Call::kThread, 0);
  EXPECT_TRUE(start(server, 1, "boot"));
  EXPECT_EQ(server.sender_thread, written_meanwhile);
  server.sender_thread = 0;
}

TEST_F(MessageSender, ThreadClearsItsHandleBeforeItPrintsAndTouchesTheRecordNoMore) {
  const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  void* const storage = mmap(nullptr, page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(storage, MAP_FAILED);
  auto* const other = ::new (storage) MessageServer(kMessagePort);
  pthread_t handle_when_printing = pthread_self();
  pthread_t thread = 0;
  {
    const SpoilingOutput spoiled([&](const std::string& piece) {
      if (piece != "Sender proc stopped!!!") return;
      handle_when_printing = other->sender_thread;
      thread = pthread_self();
      mprotect(storage, page, PROT_NONE);
    });
    ASSERT_TRUE(start(*other, 0, "boot"));
    ASSERT_TRUE(wait_until([&] { return spoiled.text() == SpoilingOutput::flushed_lines(kStopped); }));
    ASSERT_EQ(pthread_join(thread, nullptr), 0);
  }
  EXPECT_EQ(handle_when_printing, 0U);
  mprotect(storage, page, PROT_READ | PROT_WRITE);
  other->~MessageServer();
  munmap(storage, page);
}

TEST_F(MessageSender, ThreadCreationThatFailsLeavesTheCreatorsSignalMask) {
  const SignalMask mine = blocked_signals("thread-self");
  const Fault no_thread(Call::kThread, EAGAIN);
  EXPECT_TRUE(start(server, 1, "boot"));
  EXPECT_EQ(blocked_signals("thread-self"), mine);
}

}  // namespace
