#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <iostream>
#include <new>
#include <optional>
#include <ostream>
#include <string>

#include "message_server/message_server.h"
#include "stage/network_namespace.h"
#include "support/captured_output.h"
#include "support/descriptors.h"
#include "support/fault.h"
#include "support/sandbox.h"
#include "support/scratch_directory.h"
#include "support/spoiling_output.h"
#include "support/test_network.h"
#include "support/tftp_bytes.h"
#include "support/threads.h"
#include "support/udp_peer.h"

// How the message service's sender gets its socket and address, and what is heard of it on the test network.

namespace {

using std::chrono::milliseconds;

constexpr int kMessagePort = 12345;

// Raw sockets are refused to this thread while it lives.
class WithoutRawSockets {
 public:
  WithoutRawSockets() {
    syscall(SYS_capget, &head_, before_.data());
    auto without = before_;
    without[0].effective &= ~(1U << CAP_NET_RAW);
    syscall(SYS_capset, &head_, without.data());
  }
  ~WithoutRawSockets() { syscall(SYS_capset, &head_, before_.data()); }
  WithoutRawSockets(const WithoutRawSockets&) = delete;
  WithoutRawSockets& operator=(const WithoutRawSockets&) = delete;

 private:
  __user_cap_header_struct head_ = {_LINUX_CAPABILITY_VERSION_3, 0};
  std::array<__user_cap_data_struct, 2> before_ = {};
};

// Stands in the place of /etc/protocols.
class ProtocolsFile {
 public:
  explicit ProtocolsFile(const std::string& contents) {
    write_whole_file("protocols", contents);
    EXPECT_EQ(mount(scratch_.file("protocols").c_str(), "/etc/protocols", nullptr, MS_BIND, nullptr), 0);
  }
  ~ProtocolsFile() { umount("/etc/protocols"); }
  ProtocolsFile(const ProtocolsFile&) = delete;
  ProtocolsFile& operator=(const ProtocolsFile&) = delete;

 private:
  ScratchDirectory scratch_;
};

class MessageSenderSocket : public testing::Test {
 protected:
  void SetUp() override {
    NEEDS_SANDBOX();
    network_.emplace();
  }

  std::optional<TestNetwork> network_;
  const CapturedOutput output;
  MessageServer server{kMessagePort};
};

TEST_F(MessageSenderSocket, BroadcastModeBindsTheSocketToTheBroadcastAddressAndMessagePort) {
  const int before = open_descriptors();
  EXPECT_EQ(server.InitializeSender("lan0:0", true), 0);
  EXPECT_EQ(output.text(), "Message Sender initialized. IP: 172.40.0.255 Port=12345\n");
  EXPECT_EQ(server.interface_address, inet_addr("172.40.0.1"));
  EXPECT_EQ(server.broadcast_address, inet_addr("172.40.0.255"));
  EXPECT_EQ(in_words(server.sender_address), "172.40.0.255:12345");
  EXPECT_EQ(socket_option(server.sender_socket, SOL_SOCKET, SO_DOMAIN), AF_INET);
  EXPECT_EQ(socket_option(server.sender_socket, SOL_SOCKET, SO_TYPE), SOCK_DGRAM);
  EXPECT_EQ(socket_option(server.sender_socket, SOL_SOCKET, SO_PROTOCOL), IPPROTO_UDP);
  EXPECT_EQ(socket_option(server.sender_socket, SOL_SOCKET, SO_BROADCAST), 1);
  EXPECT_EQ(bound_to(server.sender_socket), "172.40.0.255:12345");
  EXPECT_EQ(open_descriptors(), before + 1);
  EXPECT_FALSE(server.sending);
}

TEST_F(MessageSenderSocket, OtherModeAimsAtTheInterfaceItselfAndLeavesTheSocketAsItIs) {
  const SpoilingOutput spoiled;
  const Fault no_bind(Call::kBind, EACCES);
  const Fault no_option(Call::kSetsockopt, EACCES);
  const int before = open_descriptors();
  EXPECT_EQ(server.InitializeSender("lan0:0", false), 0);
  EXPECT_EQ(spoiled.text(),
            SpoilingOutput::flushed_lines("Message Sender initialized. IP: 172.40.0.1 Port=12345\n"));
  EXPECT_EQ(server.interface_address, inet_addr("172.40.0.1"));
  EXPECT_EQ(server.broadcast_address, inet_addr("172.40.0.255"));
  EXPECT_EQ(in_words(server.sender_address), "172.40.0.1:12345");
  EXPECT_EQ(socket_option(server.sender_socket, SOL_SOCKET, SO_TYPE), SOCK_DGRAM);
  EXPECT_EQ(socket_option(server.sender_socket, SOL_SOCKET, SO_BROADCAST), 0);
  EXPECT_EQ(bound_to(server.sender_socket), "0.0.0.0:0");
  EXPECT_EQ(open_descriptors(), before + 1);
  EXPECT_EQ(no_bind.struck() + no_option.struck(), 0);
}

TEST_F(MessageSenderSocket, TheUnitHearsTheBroadcastFromTheStationOnceASecond) {
  std::optional<UdpPeer> unit;
  // Bound to it, it hears what is sent to the broadcast address and nothing else.
  network_->at_unit([&] { unit.emplace(TestNetwork::kBroadcast, kMessagePort); });
  ASSERT_EQ(server.InitializeSender("lan0:0", true), 0);
  const Stopwatch watch;
  const std::string script = tftp::bytes("setenv msgport 12345\n\0");
  ASSERT_TRUE(server.StartSender(2, script.data(), static_cast<int>(script.size())));
  unit->expects(script, milliseconds(800));
  EXPECT_EQ(unit->their_ip(), TestNetwork::kStation);
  EXPECT_EQ(unit->their_port(), kMessagePort);
  unit->expects(script);
  EXPECT_GE(watch.elapsed(), milliseconds(1000));
  EXPECT_LT(watch.elapsed(), milliseconds(1900));
  EXPECT_TRUE(output.waits_for("Sender proc stopped!!!\n"));
  unit->expects_nothing(milliseconds(100));
}

TEST_F(MessageSenderSocket, OfThePortTheLow16BitsCount) {
  MessageServer other(65536 + 4000);
  EXPECT_EQ(other.InitializeSender("lan0:0", true), 0);
  EXPECT_EQ(output.text(), "Message Sender initialized. IP: 172.40.0.255 Port=69536\n");
  EXPECT_EQ(in_words(other.sender_address), "172.40.0.255:4000");
  EXPECT_EQ(bound_to(other.sender_socket), "172.40.0.255:4000");
}

TEST_F(MessageSenderSocket, ThePortIsPrintedInTheStreamsNumberFormat) {
  std::cout << std::hex;
  EXPECT_EQ(server.InitializeSender("lan0:0", false), 0);
  EXPECT_EQ(output.text(), "Message Sender initialized. IP: 172.40.0.1 Port=3039\n");
}

TEST_F(MessageSenderSocket, AnInterfaceNameOf16CharactersOrMoreIsCut) {
  ip("address add 172.41.0.1/24 broadcast 172.41.0.255 label lan0:0123456789 dev lan0");
  for (const std::string more : {"A", "ABCDEFGHIJKLMNOPQRSTUVWXYZ"}) {
    const CapturedOutput lines;
    MessageServer other(kMessagePort);
    EXPECT_EQ(other.InitializeSender("lan0:0123456789" + more, true), 0);
    EXPECT_EQ(lines.text(), "Message Sender initialized. IP: 172.41.0.255 Port=12345\n");
  }
}

TEST_F(MessageSenderSocket, AnUnknownInterfaceIsReported) {
  const int before = open_descriptors();
  EXPECT_EQ(server.InitializeSender("lan7", true), -1);
  EXPECT_EQ(output.text(), "Can't get ioctl answer because of : No such device\n");
  EXPECT_EQ(server.sender_socket, -1);
  EXPECT_EQ(open_descriptors(), before);
}

TEST_F(MessageSenderSocket, AnInterfaceWithoutTheLabelIsReported) {
  EXPECT_EQ(server.InitializeSender("lan0:7", true), -1);
  EXPECT_EQ(output.text(), "Can't get ioctl answer because of : Cannot assign requested address\n");
}

TEST_F(MessageSenderSocket, AsksTheInterfaceThroughARawSocket) {
  const WithoutRawSockets refused;
  EXPECT_EQ(server.InitializeSender("lan0:0", true), -1);
  EXPECT_EQ(output.text(), "Can't create socket for ioctl calls  because of : Operation not permitted\n");
}

TEST_F(MessageSenderSocket, TheRawSocketIsOfProtocol255) {
  EXPECT_EQ(server.InitializeSender("lan0:0", true), 0);
  EXPECT_EQ(last_raw_protocol(), 255);
}

TEST_F(MessageSenderSocket, BothAddressesAreAskedForBeforeEitherAnswerIsJudged) {
  MessageServer without_broadcast(kMessagePort);
  {
    const Fault first(Call::kIoctl, EPERM, 1);
    EXPECT_EQ(without_broadcast.InitializeSender("lan0:0", true), -1);
  }
  EXPECT_EQ(without_broadcast.interface_address, inet_addr("172.40.0.1"));
  MessageServer without_address(kMessagePort);
  {
    const Fault second(Call::kIoctl, EIO, 2);
    EXPECT_EQ(without_address.InitializeSender("lan0:0", true), -1);
  }
  EXPECT_EQ(without_address.broadcast_address, inet_addr("172.40.0.255"));
  EXPECT_EQ(output.text(),
            "Can't get ioctl answer because of : Operation not permitted\n"
            "Can't get ioctl answer because of : Input/output error\n");
}

TEST_F(MessageSenderSocket, TheProtocolNumberComesFromTheSystemsList) {
  const ProtocolsFile udp_is_tcp("udp 6 UDP\n");
  // No datagram socket has this protocol, which shows first where the option is set.
  EXPECT_EQ(server.InitializeSender("lan0:0", true), -1);
  EXPECT_EQ(output.text(), "Can't set the socket options the reason is Bad file descriptor\n");
  EXPECT_EQ(server.sender_socket, -1);
}

TEST_F(MessageSenderSocket, AListWithoutUdpIsReported) {
  const ProtocolsFile without_udp("tcp 6 TCP\n");
  EXPECT_EQ(server.InitializeSender("lan0:0", true), -2);
  EXPECT_EQ(output.text(), "error in proto entry\n");
  EXPECT_EQ(server.broadcast_address, inet_addr("172.40.0.255"));
  EXPECT_EQ(server.sender_socket, -1);
}

TEST_F(MessageSenderSocket, WithoutBroadcastASocketThatCouldNotBeMadePassesUnnoticed) {
  const Fault no_datagram_socket(Call::kSocket, EMFILE, 2);
  EXPECT_EQ(server.InitializeSender("lan0:0", false), 0);
  EXPECT_EQ(output.text(), "Message Sender initialized. IP: 172.40.0.1 Port=12345\n");
  EXPECT_EQ(server.sender_socket, -1);
  EXPECT_EQ(no_datagram_socket.struck(), 1);
}

TEST_F(MessageSenderSocket, ASecondInitialisationLeavesTheFirstSocketOpen) {
  ASSERT_EQ(server.InitializeSender("lan0:0", true), 0);
  const int first = server.sender_socket;
  EXPECT_EQ(server.InitializeSender("lan0:0", true), -1);
  EXPECT_EQ(output.text(),
            "Message Sender initialized. IP: 172.40.0.255 Port=12345\n"
            "Can't bind socket by the reason of Address already in use\n");
  EXPECT_EQ(bound_to(first), "172.40.0.255:12345");
  EXPECT_NE(server.sender_socket, first);
  EXPECT_FALSE(is_open(server.sender_socket));
  close(first);
}

TEST_F(MessageSenderSocket, InitialisationIsRefusedWhileASenderRuns) {
  const SpoilingOutput spoiled;
  server.sending = true;
  server.sender_socket = 1234;
  const int before = open_descriptors();
  const Fault no_socket(Call::kSocket, EMFILE);
  EXPECT_EQ(server.InitializeSender("lan0:0", true), -1);
  EXPECT_EQ(spoiled.text(), SpoilingOutput::flushed_lines("MessageServer already sending message\n"));
  EXPECT_EQ(server.sender_socket, 1234);
  EXPECT_EQ(server.broadcast_address, 0U);
  EXPECT_EQ(open_descriptors(), before);
  EXPECT_EQ(no_socket.struck(), 0);
  EXPECT_TRUE(server.sending);
  server.sender_socket = -1;
}

// The number stays in the field, and the system gives it to the next one that asks.
class AfterABindThatFailed : public MessageSenderSocket {
 protected:
  void SetUp() override {
    MessageSenderSocket::SetUp();
    if (IsSkipped()) return;
    const Fault taken(Call::kBind, EADDRINUSE);
    ASSERT_EQ(server.InitializeSender("lan0:0", true), -1);
    ASSERT_NE(server.sender_socket, -1);
    ASSERT_FALSE(is_open(server.sender_socket));
  }
  const CapturedOutput output;
  MessageServer server{kMessagePort};
};

TEST_F(AfterABindThatFailed, AVerdictLeavesItsOwnListeningSocketOpen) {
  const int number = server.sender_socket;
  EXPECT_EQ(server.InitializeReceiver("172.40.0.1", "172.30.0.254", kMessagePort), -1);  // refused
  EXPECT_EQ(server.receive_socket, number);
  EXPECT_EQ(bound_to(number), "172.40.0.1:12345");
}

TEST_F(AfterABindThatFailed, TheEndLeavesWhoeverHasTheNumberAlone) {
  const int stranger = dup(STDIN_FILENO);
  EXPECT_EQ(stranger, server.sender_socket);
  server.~MessageServer();
  EXPECT_TRUE(is_open(stranger));
  close(stranger);
  new (&server) MessageServer(kMessagePort);
}

TEST_F(AfterABindThatFailed, ANewSocketWithTheSameNumberIsClosedAtTheEnd) {
  const int number = server.sender_socket;
  ASSERT_EQ(server.InitializeSender("lan0:0", true), 0);
  EXPECT_EQ(server.sender_socket, number);
  server.~MessageServer();
  EXPECT_FALSE(is_open(number));
  new (&server) MessageServer(kMessagePort);
}

struct FailingStep {
  const char* name;
  Call call;
  int error;
  int nth;
  const char* printed;
  int result;
  enum { kNoSocket, kClosedSocket } left;
};

std::ostream& operator<<(std::ostream& stream, const FailingStep& step) {
  return stream << step.name;
}

class MessageSenderStep : public MessageSenderSocket, public testing::WithParamInterface<FailingStep> {};

constexpr char kNoIoctlSocket[] = "Can't create socket for ioctl calls  because of : Too many open files\n";
constexpr char kNoIoctlAnswer[] = "Can't get ioctl answer because of : Operation not permitted\n";
constexpr char kNoOption[] = "Can't set the socket options the reason is Protocol not available\n";
constexpr char kNoOptionWithoutSocket[] = "Can't set the socket options the reason is Bad file descriptor\n";
constexpr char kNoBind[] = "Can't bind socket by the reason of Address already in use\n";

INSTANTIATE_TEST_SUITE_P(
    Initialisation, MessageSenderStep,
    testing::Values(
        FailingStep{"QuerySocket", Call::kSocket, EMFILE, 1, kNoIoctlSocket, -1, FailingStep::kNoSocket},
        FailingStep{"BroadcastQuery", Call::kIoctl, EPERM, 1, kNoIoctlAnswer, -1, FailingStep::kNoSocket},
        FailingStep{"AddressQuery", Call::kIoctl, EPERM, 2, kNoIoctlAnswer, -1, FailingStep::kNoSocket},
        FailingStep{"Protocol", Call::kProtocol, ENOENT, 1, "error in proto entry\n", -2,
                    FailingStep::kNoSocket},
        FailingStep{"DatagramSocket", Call::kSocket, EMFILE, 2, kNoOptionWithoutSocket, -1,
                    FailingStep::kNoSocket},
        FailingStep{"BroadcastOption", Call::kSetsockopt, ENOPROTOOPT, 1, kNoOption, -1,
                    FailingStep::kClosedSocket},
        FailingStep{"Binding", Call::kBind, EADDRINUSE, 1, kNoBind, -1, FailingStep::kClosedSocket}),
    testing::PrintToStringParamName());

TEST_P(MessageSenderStep, ThatFailsIsReportedWithItsReasonAndLeavesNothingOpen) {
  const FailingStep& step = GetParam();
  const int before = open_descriptors();
  {
    const SpoilingOutput spoiled;
    const Fault fault(step.call, step.error, step.nth);
    EXPECT_EQ(server.InitializeSender("lan0:0", true), step.result);
    EXPECT_EQ(fault.struck(), 1);
    EXPECT_EQ(spoiled.text(), SpoilingOutput::flushed_lines(step.printed));
  }
  EXPECT_EQ(open_descriptors(), before);
  EXPECT_EQ(server.sender_socket != -1, step.left == FailingStep::kClosedSocket);
  EXPECT_FALSE(is_open(server.sender_socket));
  EXPECT_FALSE(server.sending);
  server.sender_socket = -1;
}

}  // namespace
