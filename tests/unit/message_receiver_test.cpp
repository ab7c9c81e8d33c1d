#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <iostream>
#include <optional>
#include <ostream>
#include <string>

#include "message_server/message_server.h"
#include "support/aimed_server.h"
#include "support/captured_output.h"
#include "support/descriptors.h"
#include "support/emulated.h"
#include "support/fault.h"
#include "support/played_workers.h"
#include "support/sandbox.h"
#include "support/spoiling_output.h"
#include "support/test_network.h"
#include "support/threads.h"
#include "support/udp_peer.h"

// How the message service's command receiver gets its sockets, is started and stopped.

namespace {

using std::chrono::milliseconds;
using MessageReceiver = WithPlayedWorkers;

constexpr int kMessagePort = 12345;
constexpr char kShutDown[] = "Message Server was shut down\n";

// The PPT server's side of a connection over the loopback interface. Its address as a text that is longer in
// dotted form, so that the two can be told apart.
constexpr char kLocal[] = "127.0.0.1";
constexpr char kRemote[] = "127.2";
constexpr char kRemoteInDots[] = "127.0.0.2";

std::string initialized(const std::string& ip, int port) {
  return "Message receiver initialized. IP: " + ip + " Port=" + std::to_string(port) + "\n";
}

TEST_F(MessageReceiver, ListensForTheUnitAndConnectsToThePptServer) {
  const CapturedOutput output;
  TcpAddress ppt_server(kRemoteInDots);
  const std::uint16_t port = ppt_server.port();
  MessageServer server(kMessagePort);
  const int before = open_descriptors();
  ASSERT_EQ(server.InitializeReceiver(kLocal, kRemote, port), 0);
  EXPECT_EQ(output.text(), initialized(kRemoteInDots, port));
  EXPECT_EQ(open_descriptors(), before + 2);

  const std::string local = "127.0.0.1:" + std::to_string(port);
  const std::string remote = "127.0.0.2:" + std::to_string(port);
  EXPECT_EQ(socket_option(server.receive_socket, SOL_SOCKET, SO_TYPE), SOCK_STREAM);
  EXPECT_EQ(socket_option(server.receive_socket, SOL_SOCKET, SO_ACCEPTCONN), 1);
  EXPECT_EQ(socket_option(server.receive_socket, SOL_SOCKET, SO_REUSEADDR), 1);
  EXPECT_NE(fcntl(server.receive_socket, F_GETFL) & O_NONBLOCK, 0);
  EXPECT_EQ(bound_to(server.receive_socket), local);
  EXPECT_EQ(in_words(server.receive_address), local);

  EXPECT_EQ(socket_option(server.sender_socket, SOL_SOCKET, SO_TYPE), SOCK_STREAM);
  EXPECT_EQ(socket_option(server.sender_socket, SOL_SOCKET, SO_REUSEADDR), 0);
  EXPECT_EQ(fcntl(server.sender_socket, F_GETFL) & O_NONBLOCK, 0);
  EXPECT_EQ(in_words(server.sender_address), remote);
  EXPECT_EQ(ppt_server.takes_connection_from(), "127.0.0.1");
  EXPECT_EQ(server.port, kMessagePort);
  EXPECT_FALSE(server.receiving);
}

TEST_F(MessageReceiver, QueuesFiveConnections) {
  LEFT_OUT_UNDER_EMULATION("TCP_INFO is not passed on");
  const CapturedOutput output;
  const TcpAddress ppt_server(kRemoteInDots);
  MessageServer server(kMessagePort);
  ASSERT_EQ(server.InitializeReceiver(kLocal, kRemote, ppt_server.port()), 0);
  tcp_info info = {};
  socklen_t length = sizeof info;
  ASSERT_EQ(getsockopt(server.receive_socket, IPPROTO_TCP, TCP_INFO, &info, &length), 0);
  // Of a listening socket this is the length of its queue.
  EXPECT_EQ(info.tcpi_sacked, 5U);
}

TEST_F(MessageReceiver, BindsAnAddressThatAnotherSocketHoldsWithoutListening) {
  const CapturedOutput output;
  const TcpAddress ppt_server(kRemoteInDots);
  const TcpAddress other(kLocal, ppt_server.port(), false);
  MessageServer server(kMessagePort);
  EXPECT_EQ(server.InitializeReceiver(kLocal, kRemote, ppt_server.port()), 0);
  EXPECT_EQ(output.text(), initialized(kRemoteInDots, ppt_server.port()));
}

TEST_F(MessageReceiver, ThePortIsPrintedInTheStreamsNumberFormat) {
  NEEDS_SANDBOX();
  const CapturedOutput output;
  const TcpAddress ppt_server(kRemoteInDots, kMessagePort);
  MessageServer server(kMessagePort);
  std::cout << std::hex;
  EXPECT_EQ(server.InitializeReceiver(kLocal, kRemote, kMessagePort), 0);
  EXPECT_EQ(output.text(), "Message receiver initialized. IP: 127.0.0.2 Port=3039\n");
}

TEST_F(MessageReceiver, ALocalAddressThatIsNotTheStationsIsReported) {
  const CapturedOutput output;
  const TcpAddress ppt_server(kRemoteInDots);
  MessageServer server(kMessagePort);
  EXPECT_FALSE(server.StartReceive("192.0.2.1", kRemote, ppt_server.port()));
  EXPECT_EQ(output.text(),
            "ERROR on binding. Cannot assign requested address\n"
            "Error: Failed to initialize receiver\n");
  EXPECT_TRUE(is_open(server.receive_socket));
  EXPECT_EQ(server.sender_socket, -1);
}

TEST_F(MessageReceiver, AnAddressThatIsTakenIsReported) {
  const CapturedOutput output;
  const TcpAddress ppt_server(kRemoteInDots);
  const TcpAddress other(kLocal, ppt_server.port());
  MessageServer server(kMessagePort);
  EXPECT_EQ(server.InitializeReceiver(kLocal, kRemote, ppt_server.port()), -1);
  EXPECT_EQ(output.text(), "ERROR on binding. Address already in use\n");
}

TEST_F(MessageReceiver, ARefusedConnectionIsReportedAndNothingReceives) {
  const CapturedOutput output;
  const TcpAddress refusing(kRemoteInDots, 0, false);
  const std::uint16_t port = refusing.port();
  MessageServer server(kMessagePort);
  EXPECT_FALSE(server.StartReceive(kLocal, kRemote, port));
  EXPECT_EQ(output.text(), "ERROR on connect() to 127.2:" + std::to_string(port) +
                               ". Connection refused\n"
                               "Error: Failed to initialize receiver\n");
  EXPECT_FALSE(server.receiving);
  EXPECT_EQ(server.receiver_thread, 0U);
  EXPECT_EQ(receiver.starts, 0);
  EXPECT_EQ(socket_option(server.receive_socket, SOL_SOCKET, SO_ACCEPTCONN), 1);
  EXPECT_EQ(socket_option(server.sender_socket, SOL_SOCKET, SO_TYPE), SOCK_STREAM);
  EXPECT_EQ(in_words(server.sender_address), "127.0.0.2:" + std::to_string(port));
}

TEST_F(MessageReceiver, AConnectionThatFailsIsPrintedInTheStreamsNumberFormat) {
  NEEDS_SANDBOX();
  const CapturedOutput output;
  MessageServer server(kMessagePort);
  std::cout << std::hex;
  EXPECT_EQ(server.InitializeReceiver(kLocal, kRemoteInDots, kMessagePort), -1);
  EXPECT_EQ(output.text(), "ERROR on connect() to 127.0.0.2:3039. Connection refused\n");
}

TEST_F(MessageReceiver, TheConnectionTakesThePlaceOfTheSendersSocket) {
  const CapturedOutput output;
  const TcpAddress ppt_server(kRemoteInDots);
  const WatchedDescriptor senders;
  MessageServer server(kMessagePort);
  server.sender_socket = senders.number();
  EXPECT_EQ(server.InitializeReceiver(kLocal, kRemote, ppt_server.port()), 0);
  EXPECT_TRUE(senders.is_closed());
}

TEST_F(MessageReceiver, ASendersSocketNumbered0StaysOpen) {
  const CapturedOutput output;
  const TcpAddress ppt_server(kRemoteInDots);
  const WatchedDescriptor senders;
  const InPlaceOfStandardInput zero(senders.number());
  MessageServer server(kMessagePort);
  server.sender_socket = 0;
  EXPECT_EQ(server.InitializeReceiver(kLocal, kRemote, ppt_server.port()), 0);
  EXPECT_FALSE(senders.is_closed());
  EXPECT_NE(server.sender_socket, 0);
}

TEST_F(MessageReceiver, ASecondInitialisationLeavesTheFirstListenerOpen) {
  const CapturedOutput output;
  const TcpAddress ppt_server(kRemoteInDots);
  const TcpAddress elsewhere(kRemoteInDots);
  MessageServer server(kMessagePort);
  ASSERT_EQ(server.InitializeReceiver(kLocal, kRemote, ppt_server.port()), 0);
  const int first = server.receive_socket;
  ASSERT_EQ(server.InitializeReceiver(kLocal, kRemote, elsewhere.port()), 0);
  EXPECT_NE(server.receive_socket, first);
  EXPECT_EQ(socket_option(first, SOL_SOCKET, SO_ACCEPTCONN), 1);
  close(first);
}

enum Left { kNone, kClosed, kOpen };

struct FailingStep {
  const char* name;
  Call call;
  int error;
  int nth;
  std::string printed;  // {port} stands for the port
  Left listener;
  Left earlier_sender;
  Left sender;
};

std::ostream& operator<<(std::ostream& stream, const FailingStep& step) {
  return stream << step.name;
}

Left state_of(int descriptor) {
  if (descriptor == -1) return kNone;
  return is_open(descriptor) ? kOpen : kClosed;
}

class MessageReceiverStep : public WithPlayedWorkers, public testing::WithParamInterface<FailingStep> {
 protected:
  std::string printed() const {
    std::string text = GetParam().printed;
    const std::size_t mark = text.find("{port}");
    if (mark != std::string::npos) text.replace(mark, 6, std::to_string(port_));
    return text;
  }
  void expect_what_is_left() const {
    EXPECT_EQ(state_of(server_.receive_socket), GetParam().listener);
    EXPECT_EQ(senders_.is_closed(), GetParam().earlier_sender == kClosed);
    EXPECT_EQ(state_of(server_.sender_socket), GetParam().sender);
    // Nothing else stays open: of what was open before, the earlier sender may be gone; the rest is added.
    const int added = (GetParam().listener == kOpen ? 1 : 0) + (GetParam().sender == kOpen ? 1 : 0);
    EXPECT_EQ(open_descriptors(), without_sender_ + added);
  }

  const TcpAddress ppt_server_{kRemoteInDots};
  const std::uint16_t port_ = ppt_server_.port();
  const WatchedDescriptor senders_;
  const int without_sender_ = open_descriptors() - 1;
  MessageServer server_{kMessagePort};
};

INSTANTIATE_TEST_SUITE_P(
    Initialisation, MessageReceiverStep,
    testing::Values(
        FailingStep{"ListeningSocket", Call::kSocket, EMFILE, 1, "Failed to create receive socket\n", kNone,
                    kOpen, kOpen},
        FailingStep{"ReuseOption", Call::kSetsockopt, ENOPROTOOPT, 1,
                    "Can't set the socket options the reason is Protocol not available\n", kClosed, kOpen,
                    kOpen},
        FailingStep{"NonBlocking", Call::kIoctl, EPERM, 1, "Ioctl failed\n", kClosed, kOpen, kOpen},
        FailingStep{"Binding", Call::kBind, EACCES, 1, "ERROR on binding. Permission denied\n", kOpen, kOpen,
                    kOpen},
        FailingStep{"Listening", Call::kListen, EOPNOTSUPP, 1, "ERROR on listen. Operation not supported\n",
                    kOpen, kOpen, kOpen},
        FailingStep{"ConnectingSocket", Call::kSocket, ENFILE, 2,
                    "Failed to create sender socket. Too many open files in system\n", kOpen, kClosed, kNone},
        FailingStep{"Connecting", Call::kConnect, ETIMEDOUT, 1,
                    "ERROR on connect() to 127.2:{port}. Connection timed out\n", kOpen, kClosed, kOpen}),
    testing::PrintToStringParamName());

TEST_P(MessageReceiverStep, ThatFailsIsReportedWithItsReasonAndLeavesTheEarlierOnesAsTheyAre) {
  server_.sender_socket = senders_.number();
  {
    const SpoilingOutput output;
    const Fault fault(GetParam().call, GetParam().error, GetParam().nth);
    EXPECT_EQ(server_.InitializeReceiver(kLocal, kRemote, port_), -1);
    EXPECT_EQ(fault.struck(), 1);
    EXPECT_EQ(output.text(), SpoilingOutput::flushed_lines(printed()));
  }
  expect_what_is_left();
}

TEST_P(MessageReceiverStep, ThatFailsKeepsTheReceiverFromStarting) {
  server_.sender_socket = senders_.number();
  {
    const SpoilingOutput output;
    const Fault fault(GetParam().call, GetParam().error, GetParam().nth);
    EXPECT_FALSE(server_.StartReceive(kLocal, kRemote, port_));
    EXPECT_EQ(output.text(),
              SpoilingOutput::flushed_lines(printed() + "Error: Failed to initialize receiver\n"));
  }
  expect_what_is_left();
  EXPECT_FALSE(server_.receiving);
  EXPECT_EQ(receiver.starts, 0);
}

TEST_F(MessageReceiver, SetsItsSocketsOptionBeforeItsMode) {
  const CapturedOutput output;
  MessageServer server(kMessagePort);
  const Fault no_option(Call::kSetsockopt, ENOPROTOOPT);
  const Fault no_mode(Call::kIoctl, EPERM);
  EXPECT_EQ(server.InitializeReceiver(kLocal, kRemote, 1), -1);
  EXPECT_EQ(output.text(), "Can't set the socket options the reason is Protocol not available\n");
}

TEST_F(MessageReceiver, KnowsItsAddressAlsoWhenItCannotBeBound) {
  const CapturedOutput output;
  MessageServer server(kMessagePort);
  const Fault not_bound(Call::kBind, EACCES);
  EXPECT_EQ(server.InitializeReceiver(kLocal, kRemote, 4000), -1);
  EXPECT_EQ(in_words(server.receive_address), "127.0.0.1:4000");
}

TEST_F(MessageReceiver, ThreadIsGivenTheRecordAndItsCreatorsSignalMask) {
  const CapturedOutput output;
  const TcpAddress ppt_server(kRemoteInDots);
  const BlockedSignal inherited(SIGUSR1);
  const SignalMask mine = blocked_signals("thread-self");
  MessageServer server(kMessagePort);
  EXPECT_TRUE(server.StartReceive(kLocal, kRemote, ppt_server.port()));
  EXPECT_TRUE(server.receiving);
  EXPECT_NE(server.receiver_thread, 0U);
  ASSERT_TRUE(wait_until([] { return receiver.starts == 1; }));
  EXPECT_EQ(receiver.record, &server);
  EXPECT_TRUE(receiver.has_its_handle);
  EXPECT_TRUE(receiver.has_default_attributes);
  EXPECT_EQ(receiver.blocked, mine);
  EXPECT_EQ(blocked_signals("thread-self"), mine);
  EXPECT_EQ(output.text(), initialized(kRemoteInDots, ppt_server.port()));
}

TEST_F(MessageReceiver, IsNotStartedTwice) {
  const CapturedOutput output;
  MessageServer server(kMessagePort);
  server.receiving = true;
  const Fault no_socket(Call::kSocket, EMFILE);
  EXPECT_FALSE(server.StartReceive(kLocal, kRemote, kMessagePort));
  EXPECT_EQ(output.text(), "");
  EXPECT_EQ(no_socket.struck(), 0);
  EXPECT_EQ(receiver.starts, 0);
  EXPECT_EQ(server.receive_socket, -1);
  EXPECT_TRUE(server.receiving);
}

TEST_F(MessageReceiver, IsIdleAgainAfterAStopThatWaitsForNobody) {
  const CapturedOutput output;
  const TcpAddress ppt_server(kRemoteInDots);
  MessageServer server(kMessagePort);
  receiver.may_end = false;
  ASSERT_TRUE(server.StartReceive(kLocal, kRemote, ppt_server.port()));
  server.StopReceive();
  EXPECT_FALSE(server.receiving);
  EXPECT_NE(server.receiver_thread, 0U);
  receiver.may_end = true;
  EXPECT_TRUE(wait_until([&] { return server.receiver_thread == 0; }));
  close(server.receive_socket);
  EXPECT_TRUE(server.StartReceive(kLocal, kRemote, ppt_server.port()));
}

TEST_F(MessageReceiver, IsStartedAgainWhileAnEarlierOneIsEnding) {
  const CapturedOutput output;
  const TcpAddress ppt_server(kRemoteInDots);
  const TcpAddress elsewhere(kRemoteInDots);
  MessageServer server(kMessagePort);
  receiver.may_end = false;
  ASSERT_TRUE(server.StartReceive(kLocal, kRemote, ppt_server.port()));
  const pthread_t earlier = server.receiver_thread;
  const int earlier_listener = server.receive_socket;
  server.StopReceive();
  EXPECT_TRUE(server.StartReceive(kLocal, kRemote, elsewhere.port()));
  EXPECT_TRUE(server.receiving);
  EXPECT_FALSE(pthread_equal(server.receiver_thread, earlier));
  EXPECT_TRUE(wait_until([] { return receiver.starts == 2; }));
  EXPECT_EQ(output.text(),
            initialized(kRemoteInDots, ppt_server.port()) + initialized(kRemoteInDots, elsewhere.port()));
  EXPECT_TRUE(is_open(earlier_listener));
  EXPECT_NE(server.receive_socket, earlier_listener);
  server.StopReceive();
  receiver.may_end = true;
  EXPECT_TRUE(wait_until([] { return receiver.ends == 2; }));
  close(earlier_listener);
}

TEST_F(MessageReceiver, StoppingWhatDoesNotRunDoesNothing) {
  const CapturedOutput output;
  MessageServer server(kMessagePort);
  server.StopReceive();
  EXPECT_FALSE(server.receiving);
  EXPECT_EQ(output.text(), "");
}

TEST_F(MessageReceiver, ThreadCreationThatReturnsMinusOneIsAFailureThatLeavesItReceiving) {
  const SpoilingOutput output;
  const TcpAddress ppt_server(kRemoteInDots);
  MessageServer server(kMessagePort);
  server.receiver_thread = pthread_self();  // what a failing creation may have written
  const Fault no_thread(Call::kThread, -1);
  EXPECT_FALSE(server.StartReceive(kLocal, kRemote, ppt_server.port()));
  EXPECT_EQ(output.text(), SpoilingOutput::flushed_lines(initialized(kRemoteInDots, ppt_server.port()) +
                                                         " Can't create receiver thread\n"));
  EXPECT_TRUE(server.receiving);
  EXPECT_EQ(server.receiver_thread, 0U);
  EXPECT_FALSE(server.StartReceive(kLocal, kRemote, ppt_server.port()));
  EXPECT_EQ(no_thread.struck(), 1);
}

TEST_F(MessageReceiver, ThreadCreationThatReturnsAnErrorNumberCountsAsSuccess) {
  const CapturedOutput output;
  const TcpAddress ppt_server(kRemoteInDots);
  {
    MessageServer server(kMessagePort);
    server.receiver_thread = pthread_self();
    const Fault no_thread(Call::kThread, EAGAIN);
    EXPECT_TRUE(server.StartReceive(kLocal, kRemote, ppt_server.port()));
    EXPECT_TRUE(server.receiving);
    EXPECT_EQ(server.receiver_thread, 0U);
  }
  EXPECT_EQ(output.text(), initialized(kRemoteInDots, ppt_server.port()) + kShutDown);
}

TEST_F(MessageReceiver, ThreadHandleIsWrittenByTheCreationAndByNobodyAfterIt) {
  const CapturedOutput output;
  const TcpAddress ppt_server(kRemoteInDots);
  MessageServer server(kMessagePort);
  const pthread_t written_meanwhile = pthread_self();
  server.receiver_thread = written_meanwhile;
  const Fault nothing_created_but_success(Call::kThread, 0);
  EXPECT_TRUE(server.StartReceive(kLocal, kRemote, ppt_server.port()));
  EXPECT_EQ(server.receiver_thread, written_meanwhile);
  server.receiver_thread = 0;
}

TEST_F(MessageReceiver, ALaterSenderSendsOverTheConnection) {
  const CapturedOutput output;
  TcpAddress ppt_server(kRemoteInDots);
  MessageServer server(kMessagePort);
  ASSERT_EQ(server.InitializeReceiver(kLocal, kRemote, ppt_server.port()), 0);
  ASSERT_TRUE(server.StartSender(1, "over TCP", 8));
  ASSERT_EQ(ppt_server.takes_connection_from(), "127.0.0.1");
  EXPECT_EQ(ppt_server.reads(100), "over TCP");
}

TEST_F(MessageReceiver, ASenderThatLostItsSocketToAFailingInitialisationReportsIt) {
  const CapturedOutput output;
  UdpPeer peer;
  const TcpAddress ppt_server(kRemoteInDots);
  AimedServer server(peer);
  ASSERT_TRUE(server.StartSender(2, "boot", 4));
  peer.expects("boot");
  {
    const Fault no_connecting_socket(Call::kSocket, EMFILE, 2);
    EXPECT_FALSE(server.StartReceive(kLocal, kRemote, ppt_server.port()));
  }
  ASSERT_TRUE(output.waits_for("Sender proc stopped!!!\n"));
  EXPECT_EQ(output.text(),
            "Failed to create sender socket. Too many open files\n"
            "Error: Failed to initialize receiver\n"
            "Error in \"sendto\":  the reason is Bad file descriptor\n"
            "Sender proc stopped!!!\n");
}

TEST_F(MessageReceiver, ASenderThatStillRunsGoesOnOverTheConnection) {
  const CapturedOutput output;
  UdpPeer peer;
  TcpAddress ppt_server(kRemoteInDots);
  AimedServer server(peer);
  ASSERT_TRUE(server.StartSender(2, "boot", 4));
  peer.expects("boot");
  ASSERT_TRUE(server.StartReceive(kLocal, kRemote, ppt_server.port()));
  EXPECT_EQ(ppt_server.takes_connection_from(), "127.0.0.1");
  EXPECT_EQ(ppt_server.reads(100), "boot");
  peer.expects_nothing(milliseconds(50));
}

TEST_F(MessageReceiver, MeetsTheUnitAndThePptServerOnTheTestNetwork) {
  NEEDS_SANDBOX();
  const TestNetwork network;
  const CapturedOutput output;
  std::optional<TcpAddress> ppt_server;
  network.at_ppt_server([&] { ppt_server.emplace(TestNetwork::kPptServer, kMessagePort); });
  MessageServer server(kMessagePort);
  ASSERT_EQ(server.InitializeSender("lan0:0", true), 0);
  ASSERT_TRUE(server.StartReceive(TestNetwork::kStation, TestNetwork::kPptServer, kMessagePort));
  EXPECT_EQ(output.text(),
            "Message Sender initialized. IP: 172.40.0.255 Port=12345\n"
            "Message receiver initialized. IP: 172.30.0.254 Port=12345\n");
  EXPECT_EQ(ppt_server->takes_connection_from(), "172.30.0.1");
  EXPECT_EQ(bound_to(server.receive_socket), "172.40.0.1:12345");
  int connected = -1;
  network.at_unit([&] {
    const int unit = socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in station = socket_address(TestNetwork::kStation, kMessagePort);
    connected = connect(unit, reinterpret_cast<const sockaddr*>(&station), sizeof station);
    close(unit);
  });
  EXPECT_EQ(connected, 0);
  server.StopReceive();
}

}  // namespace
