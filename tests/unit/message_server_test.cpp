#include "message_server/message_server.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "support/captured_output.h"
#include "support/descriptors.h"
#include "support/fault.h"
#include "support/played_workers.h"
#include "support/spoiling_output.h"
#include "support/threads.h"

// The message service's record, the start of its relay, and its end.

namespace {

using std::chrono::milliseconds;

constexpr int kMessagePort = 12345;
constexpr char kShutDown[] = "Message Server was shut down\n";

using MessageServerRecord = WithPlayedWorkers;
using MessageRelay = WithPlayedWorkers;
using MessageServerEnd = WithPlayedWorkers;

TEST_F(MessageServerRecord, FieldsHaveTheirTypesAndStandInTheirOrder) {
  const MessageServer server(kMessagePort);
  static_assert(std::is_same_v<decltype(MessageServer::port), std::int32_t>);
  static_assert(std::is_same_v<decltype(MessageServer::sender_socket), std::int32_t>);
  static_assert(std::is_same_v<decltype(MessageServer::sender_address), sockaddr_in>);
  static_assert(std::is_same_v<decltype(MessageServer::receive_socket), std::int32_t>);
  static_assert(std::is_same_v<decltype(MessageServer::receive_address), sockaddr_in>);
  static_assert(std::is_same_v<decltype(MessageServer::interface_address), std::uint32_t>);
  static_assert(std::is_same_v<decltype(MessageServer::broadcast_address), std::uint32_t>);
  static_assert(std::is_same_v<decltype(MessageServer::message), char*>);
  static_assert(std::is_same_v<decltype(MessageServer::repeat_count), std::int32_t>);
  static_assert(std::is_same_v<decltype(MessageServer::sending), bool>);
  static_assert(std::is_same_v<decltype(MessageServer::receiving), bool>);
  static_assert(std::is_same_v<decltype(MessageServer::udp_running), bool>);
  static_assert(std::is_same_v<decltype(MessageServer::message_length), std::int32_t>);
  static_assert(std::is_same_v<decltype(MessageServer::udp_local_ip), std::string>);
  static_assert(std::is_same_v<decltype(MessageServer::udp_remote_ip), std::string>);
  static_assert(std::is_same_v<decltype(MessageServer::sender_thread), pthread_t>);
  static_assert(std::is_same_v<decltype(MessageServer::receiver_thread), pthread_t>);
  static_assert(std::is_same_v<decltype(MessageServer::udp_thread), pthread_t>);
  static_assert(!std::is_copy_constructible_v<MessageServer> && !std::is_copy_assignable_v<MessageServer>);
  const std::vector<const void*> fields = {&server.port,
                                           &server.sender_socket,
                                           &server.sender_address,
                                           &server.receive_socket,
                                           &server.receive_address,
                                           &server.interface_address,
                                           &server.broadcast_address,
                                           &server.message,
                                           &server.repeat_count,
                                           &server.sending,
                                           &server.receiving,
                                           &server.udp_running,
                                           &server.message_length,
                                           &server.udp_local_ip,
                                           &server.udp_remote_ip,
                                           &server.sender_thread,
                                           &server.receiver_thread,
                                           &server.udp_thread};
  EXPECT_TRUE(std::is_sorted(fields.begin(), fields.end()));
}

TEST_F(MessageServerRecord, IsIdleAndWithoutSocketsAtFirstWhateverItsStorageHeld) {
  alignas(MessageServer) unsigned char storage[sizeof(MessageServer)];
  std::memset(storage, 0xA5, sizeof storage);
  const CapturedOutput output;
  auto* const server = ::new (static_cast<void*>(storage)) MessageServer(-7);
  EXPECT_EQ(server->port, -7);
  EXPECT_EQ(server->sender_socket, -1);
  EXPECT_EQ(server->receive_socket, -1);
  EXPECT_EQ(server->message, nullptr);
  EXPECT_FALSE(server->sending);
  EXPECT_FALSE(server->receiving);
  EXPECT_FALSE(server->udp_running);
  EXPECT_EQ(server->udp_local_ip, "");
  EXPECT_EQ(server->udp_remote_ip, "");
  EXPECT_EQ(server->sender_thread, 0U);
  EXPECT_EQ(server->receiver_thread, 0U);
  EXPECT_EQ(output.text(), "");
  server->~MessageServer();
}

TEST_F(MessageRelay, ThreadIsGivenTheRecordWithTheTwoAddresses) {
  const CapturedOutput output;
  const BlockedSignal inherited(SIGUSR1);
  const SignalMask mine = blocked_signals("thread-self");
  auto* const server = new MessageServer(kMessagePort);
  std::string local = "172.40.0.1";
  std::string remote = "172.30.0.254";
  EXPECT_TRUE(server->StartUDPServer(local, remote));
  local = remote = "changed";
  EXPECT_TRUE(server->udp_running);
  EXPECT_EQ(server->udp_local_ip, "172.40.0.1");
  EXPECT_EQ(server->udp_remote_ip, "172.30.0.254");
  ASSERT_TRUE(wait_until([] { return relay.has_ended.load(); }));
  EXPECT_EQ(relay.record, server);
  EXPECT_TRUE(relay.has_its_handle);
  EXPECT_TRUE(relay.has_default_attributes);
  EXPECT_EQ(relay.blocked, mine);
  EXPECT_EQ(relay.local_ip, "172.40.0.1");
  EXPECT_EQ(relay.remote_ip, "172.30.0.254");
  EXPECT_TRUE(relay.was_asked_to_run);
  EXPECT_EQ(server->udp_thread, 0U);
  EXPECT_EQ(output.text(), "");

  EXPECT_FALSE(server->StartUDPServer("10.0.0.1", "10.0.0.2"));
  EXPECT_EQ(server->udp_local_ip, "172.40.0.1");
  EXPECT_EQ(server->udp_remote_ip, "172.30.0.254");
  EXPECT_EQ(relay.starts, 1);
  EXPECT_EQ(output.text(), "");
  delete server;
}

TEST_F(MessageRelay, EndsAtItsNextCheckWhenTheOwnerClearsTheFlag) {
  relay.may_end = false;
  MessageServer server(kMessagePort);
  ASSERT_TRUE(server.StartUDPServer("172.40.0.1", "172.30.0.254"));
  ASSERT_TRUE(wait_until([] { return relay.flag_reads > 0; }));
  server.udp_running = false;
  std::this_thread::sleep_for(milliseconds(50));
  const int reads = relay.flag_reads;
  std::this_thread::sleep_for(milliseconds(50));
  EXPECT_EQ(relay.flag_reads, reads);
  relay.may_end = true;
  EXPECT_TRUE(wait_until([] { return relay.has_ended.load(); }));
}

TEST_F(MessageRelay, StartWaitsForNoThread) {
  const CapturedOutput output;
  MessageServer server(kMessagePort);
  std::atomic<bool> returned{false};
  std::thread owner([&] {
    const Fault created_and_not_running(Call::kThread, 0);
    returned = server.StartUDPServer("172.40.0.1", "172.30.0.254");
  });
  if (!wait_until([&] { return returned.load(); })) std::_Exit(1);  // nobody could ever join it
  owner.join();
  EXPECT_TRUE(server.udp_running);
}

TEST_F(MessageRelay, IsForgottenWhenItsThreadCouldNotBeCreated) {
  for (const int result : {-1, EAGAIN}) {
    MessageServer server(kMessagePort);
    {
      const CapturedOutput output;
      const Fault no_thread(Call::kThread, result);
      server.StartUDPServer("172.40.0.1", "172.30.0.254");
    }
    server.udp_local_ip = "10.0.0.1";
    EXPECT_EQ(take_relay(&server)->local_ip, "10.0.0.1");
  }
}

TEST_F(MessageRelay, ThreadCreationThatReturnsMinusOneIsAFailureThatLeavesItRunning) {
  const SpoilingOutput output;
  MessageServer server(kMessagePort);
  const Fault no_thread(Call::kThread, -1);
  EXPECT_FALSE(server.StartUDPServer("172.40.0.1", "172.30.0.254"));
  EXPECT_EQ(output.text(), SpoilingOutput::flushed_lines(" Can't create UDP receiver thread\n"));
  EXPECT_TRUE(server.udp_running);
  EXPECT_EQ(server.udp_local_ip, "172.40.0.1");
  EXPECT_EQ(server.udp_remote_ip, "172.30.0.254");
  EXPECT_FALSE(server.StartUDPServer("172.40.0.1", "172.30.0.254"));
  EXPECT_EQ(no_thread.struck(), 1);
}

TEST_F(MessageRelay, ThreadCreationThatReturnsAnErrorNumberCountsAsSuccess) {
  const CapturedOutput output;
  MessageServer server(kMessagePort);
  const Fault no_thread(Call::kThread, EAGAIN);
  EXPECT_TRUE(server.StartUDPServer("172.40.0.1", "172.30.0.254"));
  EXPECT_TRUE(server.udp_running);
  EXPECT_EQ(relay.starts, 0);
  EXPECT_EQ(output.text(), "");
}

TEST_F(MessageRelay, ThreadHandleIsWrittenByTheCreationAndByNobodyAfterIt) {
  const CapturedOutput output;
  MessageServer server(kMessagePort);
  server.udp_thread = pthread_self();
  const Fault nothing_created_but_success(Call::kThread, 0);
  EXPECT_TRUE(server.StartUDPServer("172.40.0.1", "172.30.0.254"));
  EXPECT_EQ(server.udp_thread, pthread_self());
}

TEST_F(MessageServerEnd, WithNothingStartedItComesAtOnce) {
  const CapturedOutput output;
  const Stopwatch watch;
  std::string expected;
  for (int count = 0; count < 20; ++count) {
    const MessageServer server(kMessagePort);
    expected += kShutDown;
  }
  // One look at the threads' end too many would take 50 ms each time.
  EXPECT_LT(watch.elapsed(), milliseconds(800));
  EXPECT_EQ(output.text(), expected);
}

TEST_F(MessageServerEnd, IsPrintedAndFlushed) {
  const SpoilingOutput output;
  { const MessageServer server(kMessagePort); }
  EXPECT_EQ(output.text(), SpoilingOutput::flushed_lines(kShutDown));
}

TEST_F(MessageServerEnd, StopsTheSenderAndWaitsForItThenTheReceiver) {
  const CapturedOutput output;
  auto* const server = new MessageServer(kMessagePort);
  const WatchedDescriptor senders;
  const WatchedDescriptor receivers;
  server->sender_socket = senders.number();
  server->receive_socket = receivers.number();
  server->sending = server->receiving = true;
  server->sender_thread = server->receiver_thread = pthread_self();
  std::atomic<bool> ended{false};
  std::thread owner([&] {
    delete server;
    ended = true;
  });

  EXPECT_TRUE(wait_until([&] { return !server->sending; }));
  std::this_thread::sleep_for(milliseconds(150));
  EXPECT_TRUE(server->receiving);
  EXPECT_FALSE(ended);

  server->sender_thread = 0;
  EXPECT_TRUE(wait_until([&] { return !server->receiving; }, std::chrono::seconds(2)));
  std::this_thread::sleep_for(milliseconds(150));
  EXPECT_FALSE(ended);
  EXPECT_FALSE(senders.is_closed() || receivers.is_closed());
  EXPECT_EQ(output.text(), "");

  server->receiver_thread = 0;
  EXPECT_TRUE(wait_until([&] { return ended.load(); }, std::chrono::seconds(2)));
  owner.join();
  EXPECT_TRUE(senders.is_closed() && receivers.is_closed());
  EXPECT_EQ(output.text(), kShutDown);
}

TEST_F(MessageServerEnd, LooksEvery50MillisecondsWhetherAThreadHasEnded) {
  const CapturedOutput output;
  milliseconds shortest(10000);
  milliseconds longest(0);
  for (int count = 0; count < 5; ++count) {
    auto* const server = new MessageServer(kMessagePort);
    server->sending = true;
    server->sender_thread = pthread_self();
    std::thread owner([&] { delete server; });
    EXPECT_TRUE(wait_until([&] { return !server->sending; }));
    const Stopwatch watch;
    server->sender_thread = 0;
    owner.join();
    shortest = std::min(shortest, watch.elapsed());
    longest = std::max(longest, watch.elapsed());
  }
  EXPECT_LT(shortest, milliseconds(150));
  EXPECT_GE(longest, milliseconds(25));
}

TEST_F(MessageServerEnd, ComesAfterARunningSenderHasEnded) {
  const CapturedOutput output;
  const Stopwatch watch;
  pthread_t sender = 0;
  {
    MessageServer server(kMessagePort);
    const WatchedDescriptor socket_of_sender;
    server.sender_socket = socket_of_sender.number();
    const Fault sends_nowhere(Call::kSendto, EBADF);
    ASSERT_TRUE(server.StartSender(-1, "boot", 4));
    sender = server.sender_thread;
    ASSERT_TRUE(output.waits_for("\n"));
  }
  EXPECT_GE(watch.elapsed(), milliseconds(1000));
  EXPECT_LT(watch.elapsed(), milliseconds(1900));
  EXPECT_EQ(pthread_join(sender, nullptr), 0);
  // The two last lines come from two threads.
  const std::string begin = "Error in \"sendto\":  the reason is Bad file descriptor\n";
  const std::string stopped = "Sender proc stopped!!!\n";
  const std::string text = output.text();
  EXPECT_TRUE(text == begin + stopped + kShutDown || text == begin + kShutDown + stopped) << text;
}

TEST_F(MessageServerEnd, ComesAfterARunningReceiverHasEnded) {
  const CapturedOutput output;
  const TcpAddress ppt_server("127.0.0.2");
  receiver.may_end = false;
  std::thread permission([] {
    std::this_thread::sleep_for(milliseconds(300));
    receiver.may_end = true;
  });
  {
    MessageServer server(kMessagePort);
    ASSERT_TRUE(server.StartReceive("127.0.0.1", "127.0.0.2", ppt_server.port()));
    EXPECT_FALSE(receiver.has_ended);
  }
  EXPECT_TRUE(receiver.has_ended);
  permission.join();
  EXPECT_EQ(output.text(), "Message receiver initialized. IP: 127.0.0.2 Port=" +
                               std::to_string(ppt_server.port()) + "\n" + kShutDown);
}

TEST_F(MessageServerEnd, ClosesASocketNumbered0Too) {
  const CapturedOutput output;
  for (std::int32_t MessageServer::*const field :
       {&MessageServer::receive_socket, &MessageServer::sender_socket}) {
    const WatchedDescriptor watched;
    const InPlaceOfStandardInput zero(watched.number());
    {
      MessageServer server(kMessagePort);
      server.*field = 0;
    }
    EXPECT_TRUE(watched.is_closed());
  }
}

TEST_F(MessageServerEnd, NeitherStopsTheRelayNorWaitsForIt) {
  const CapturedOutput output;
  relay.may_end = false;
  auto* const server = new MessageServer(kMessagePort);
  ASSERT_TRUE(server->StartUDPServer("172.40.0.1", "172.30.0.254"));
  ASSERT_TRUE(wait_until([] { return relay.flag_reads > 0; }));
  delete server;
  EXPECT_EQ(output.text(), kShutDown);
  EXPECT_FALSE(relay.has_ended);
  const int reads = relay.flag_reads;
  EXPECT_TRUE(wait_until([&] { return relay.flag_reads > reads + 20; }));
  relay.may_end = true;
  EXPECT_TRUE(wait_until([] { return relay.has_ended.load(); }));
}

// Storage that belongs to the test, and is overwritten as soon as the record in it has gone.
class OwnStorage {
 public:
  MessageServer* make() { return new (bytes_) MessageServer(kMessagePort); }
  void overwrite() { std::memset(bytes_, kPattern, sizeof bytes_); }
  bool is_untouched() const {
    return std::all_of(std::begin(bytes_), std::end(bytes_),
                       [](unsigned char byte) { return byte == kPattern; });
  }

 private:
  static constexpr unsigned char kPattern = 0xA5;
  alignas(MessageServer) unsigned char bytes_[sizeof(MessageServer)];
};

TEST_F(MessageServerEnd, LeavesTheRelayNothingToTouch) {
  const CapturedOutput output;
  relay.may_end = false;
  OwnStorage storage;
  MessageServer* const server = storage.make();
  ASSERT_TRUE(server->StartUDPServer("172.40.0.1", "172.30.0.254"));
  ASSERT_TRUE(wait_until([] { return relay.flag_reads > 0; }));
  server->~MessageServer();
  storage.overwrite();
  relay.may_end = true;
  ASSERT_TRUE(wait_until([] { return relay.has_ended.load(); }));
  EXPECT_TRUE(storage.is_untouched());
}

TEST_F(MessageServerEnd, BeforeTheRelaysFirstMomentLeavesItItsOwnAddresses) {
  const CapturedOutput output;
  OwnStorage storage;
  MessageServer* server = storage.make();
  server->udp_local_ip = "172.40.0.1";
  server->udp_remote_ip = "172.30.0.254";
  server->udp_running = true;
  announce_relay(server);
  server->~MessageServer();
  storage.overwrite();
  server = storage.make();  // another record, at the same address
  server->udp_local_ip = "10.0.0.1";
  const auto first = take_relay(server);
  EXPECT_EQ(first->local_ip, "172.40.0.1");
  EXPECT_EQ(first->remote_ip, "172.30.0.254");
  EXPECT_TRUE(first->is_to_run());
  first->mark_ended();
  const auto second = take_relay(server);
  EXPECT_EQ(second->local_ip, "10.0.0.1");
  EXPECT_FALSE(second->is_to_run());
  server->~MessageServer();
  EXPECT_TRUE(second->is_to_run());
}

TEST_F(MessageServerEnd, LeavesADescriptorOpenThatHasTheNumberOfASocketThatWasClosed) {
  const CapturedOutput output;
  const WatchedDescriptor watched;
  {
    MessageServer server(kMessagePort);
    server.sender_socket = server.receive_socket = watched.number();
    EXPECT_TRUE(server.closed_sender_socket.note(watched.number()));
    EXPECT_FALSE(server.closed_sender_socket.note(watched.number()));
    EXPECT_TRUE(server.closed_receive_socket.note(watched.number()));
  }
  EXPECT_FALSE(watched.is_closed());
  close(watched.number());
}

}  // namespace
