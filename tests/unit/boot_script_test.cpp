#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <new>
#include <optional>
#include <string>

#include "support/descriptors.h"
#include "support/fault.h"
#include "support/flush_recorder.h"
#include "support/process_state.h"
#include "support/sandbox.h"
#include "support/test_network.h"
#include "support/udp_peer.h"
#include "tftp_server/tftp_server.h"

namespace {

int failing_allocation = 0;  // counted from when it was set; 0 = none fails

// Not inlined: compilers do not know that these two belong together.
[[gnu::noinline]] void* allocate(std::size_t size) {
  const bool fails = failing_allocation > 0 && --failing_allocation == 0;
  void* const storage = fails ? nullptr : std::malloc(size > 0 ? size : 1);
  if (storage == nullptr) throw std::bad_alloc();
  return storage;
}

[[gnu::noinline]] void release(void* storage) {
  std::free(storage);
}

}  // namespace

void* operator new(std::size_t size) {
  return allocate(size);
}

void operator delete(void* storage) noexcept {
  release(storage);
}

void operator delete(void* storage, std::size_t) noexcept {
  release(storage);
}

namespace {

using std::chrono::milliseconds;

constexpr char kInterface[] = "lan0:0";
constexpr char kNotInitialized[] = "Error: Failed to initialize sender\n";

// What goes on the wire for a message port, with the NUL that ends it.
std::string datagram(const std::string& message_port) {
  return "ZIRN install boot script\r\n"
         "setenv msgport " +
         message_port +
         "\r\n"
         "#setaddr 172.40.0.1\r\n"
         "setenv ppt_flag 1\r\n"
         "save\r\n"
         "tftp 46000000 bootscript.txt\r\n"
         "#ifint\r\n"
         "#netstate\r\n"
         "4\r\n"
         "\treset\r\n"
         "#endif\r\n"
         "tftp 45000000 F_l_m_t_Bootstrap_loading\r\n"
         "inst 46000000\r\n"
         "#endscript\r\n" +
         std::string(1, '\0');
}

// A server between its unit and its PPT server.
class BootScript : public testing::Test {
 protected:
  void SetUp() override {
    NEEDS_SANDBOX();
    network = std::make_unique<TestNetwork>();
  }

  void makes_server(int message_port) {
    server = std::make_unique<TFTPServer>(0, "127.0.0.1", 69, "127.0.0.1", message_port);
  }
  // Whoever in the unit's network listens to a broadcast on the port.
  UdpPeer unit(int port) const { return at(&TestNetwork::at_unit, TestNetwork::kBroadcast, port); }
  UdpPeer at(void (TestNetwork::*place)(const std::function<void()>&) const, const std::string& ip,
             int port) const {
    std::optional<UdpPeer> peer;
    (network.get()->*place)([&] { peer.emplace(ip, port); });
    return std::move(*peer);
  }
  // The message that the sender repeats.
  std::string stored() const {
    const MessageServer& sender = *server->message_server;
    return std::string(sender.message, static_cast<std::size_t>(sender.message_length));
  }

  std::unique_ptr<TestNetwork> network;
  std::unique_ptr<TFTPServer> server;
};

}  // namespace

TEST_F(BootScript, IsHeardByTheUnitOnTheMessagePort) {
  makes_server(12345);
  UdpPeer listener = unit(12345);
  int result = 0;
  const std::string printed = printed_by([&] {
    result = server->SendBroadcastScript(kInterface);
    listener.expects(datagram("12345"));
  });
  EXPECT_EQ(printed, "Message Sender initialized. IP: 172.40.0.255 Port=12345\n");
  EXPECT_EQ(result, 1);
  // The sender's socket is bound to the broadcast address; what leaves it comes from the station's own.
  EXPECT_EQ(listener.their_ip(), TestNetwork::kStation);
  EXPECT_EQ(listener.their_port(), 12345);
}

TEST_F(BootScript, IsRepeatedOnceASecondUntilStopped) {
  makes_server(12345);
  UdpPeer listener = unit(12345);
  EXPECT_EQ(server->SendBroadcastScript(kInterface), 1);
  EXPECT_EQ(server->message_server->repeat_count, -1);
  EXPECT_TRUE(listener.expects(datagram("12345")));
  for (int repeat = 0; repeat < 4; ++repeat) {
    listener.expects_nothing(milliseconds(700));
    EXPECT_TRUE(listener.expects(datagram("12345"), milliseconds(1500)));
  }
  server->message_server->StopSender();
  listener.expects_nothing(milliseconds(1500));
}

TEST_F(BootScript, NamesAPortBeyondSixteenBitsWholeAndGoesToItsLowSixteen) {
  makes_server(70000);
  UdpPeer listener = unit(4464);
  EXPECT_EQ(server->SendBroadcastScript(kInterface), 1);
  EXPECT_TRUE(listener.expects(datagram("70000")));
}

TEST_F(BootScript, NamesANegativePortWithItsSignAndGoesToItsLowSixteenBits) {
  makes_server(-1);
  UdpPeer listener = unit(65535);
  EXPECT_EQ(server->SendBroadcastScript(kInterface), 1);
  EXPECT_TRUE(listener.expects(datagram("-1")));
}

TEST_F(BootScript, NamesPortZero) {
  makes_server(0);
  // Nothing can be sent to port 0, and each attempt says so.
  std::string message;
  const std::string printed = printed_by([&] {
    EXPECT_EQ(server->SendBroadcastScript(kInterface), 1);
    message = stored();
    server->Stop();
  });
  EXPECT_EQ(message, datagram("0"));
  EXPECT_EQ(printed.substr(0, printed.find('\n')), "Message Sender initialized. IP: 172.40.0.255 Port=0");
}

TEST_F(BootScript, NamesTheServersMessagePortAndGoesToThatOfTheMessageService) {
  makes_server(12345);
  server->message_port = 4711;
  UdpPeer listener = unit(12345);
  EXPECT_EQ(server->SendBroadcastScript(kInterface), 1);
  EXPECT_TRUE(listener.expects(datagram("4711")));
}

TEST_F(BootScript, HandsTheTextAndOneNulToTheSender) {
  makes_server(12345);
  EXPECT_EQ(server->SendBroadcastScript(kInterface), 1);
  EXPECT_EQ(server->message_server->message_length, 231);
  EXPECT_EQ(stored(), datagram("12345"));
}

TEST_F(BootScript, NamesThePortInDecimalWhateverStandardOutputIsSetTo) {
  makes_server(12345);
  std::string message;
  printed_by([&] {
    std::cout << std::hex << std::showbase;
    EXPECT_EQ(server->SendBroadcastScript(kInterface), 1);
    message = stored();
  });
  EXPECT_EQ(message, datagram("12345"));
}

TEST_F(BootScript, GoesToTheBroadcastAddressOfTheGivenInterface) {
  makes_server(12345);
  UdpPeer in_other_network = at(&TestNetwork::at_ppt_server, "172.30.0.255", 12345);
  UdpPeer in_unit_network = unit(12345);
  EXPECT_EQ(server->SendBroadcastScript("ppt0"), 1);
  EXPECT_TRUE(in_other_network.expects(datagram("12345")));
  in_unit_network.expects_nothing(milliseconds(1200));
}

TEST_F(BootScript, FailsWithItsLineWhenTheInterfaceIsUnknown) {
  makes_server(12345);
  int result = -1;
  const std::string printed = printed_by([&] { result = server->SendBroadcastScript("lan9:0"); });
  EXPECT_EQ(printed, std::string("Can't get ioctl answer because of : No such device\n") + kNotInitialized);
  EXPECT_EQ(result, 0);
  EXPECT_FALSE(server->message_server->sending);
  EXPECT_EQ(server->message_server->message, nullptr);
}

TEST_F(BootScript, FlushesItsLine) {
  makes_server(12345);
  const FlushRecorder output;
  server->SendBroadcastScript("lan9:0");
  EXPECT_EQ(output.text(),
            "Can't get ioctl answer because of : No such device\n<flush>"
            "Error: Failed to initialize sender\n<flush>");
}

TEST_F(BootScript, FailsWithItsLineWhenTheProtocolIsUnknown) {
  makes_server(12345);
  const Fault no_protocol(Call::kProtocol, ENOENT);
  int result = -1;
  const std::string printed = printed_by([&] { result = server->SendBroadcastScript(kInterface); });
  EXPECT_EQ(printed, std::string("error in proto entry\n") + kNotInitialized);
  EXPECT_EQ(result, 0);
  EXPECT_FALSE(server->message_server->sending);
}

TEST_F(BootScript, FailsWithoutALineOfItsOwnWhenTheSenderThreadCannotBeMade) {
  makes_server(12345);
  int result = -1;
  const std::string printed = printed_by([&] {
    const Fault no_thread(Call::kThread, -1);
    result = server->SendBroadcastScript(kInterface);
  });
  EXPECT_EQ(printed,
            "Message Sender initialized. IP: 172.40.0.255 Port=12345\n"
            " Can't create sender thread\n");
  EXPECT_EQ(result, 0);
}

TEST_F(BootScript, CountsAsStartedWhenThreadCreationReturnsAnErrorNumber) {
  makes_server(12345);
  const Fault no_thread(Call::kThread, EAGAIN);
  EXPECT_EQ(server->SendBroadcastScript(kInterface), 1);
  EXPECT_EQ(no_thread.struck(), 1);
}

TEST_F(BootScript, ASecondCallFailsAndSendsNothingNew) {
  makes_server(12345);
  UdpPeer listener = unit(12345);
  EXPECT_EQ(server->SendBroadcastScript(kInterface), 1);
  EXPECT_TRUE(listener.expects(datagram("12345")));
  const int before = open_descriptors();
  server->message_port = 4711;
  int result = -1;
  const std::string printed = printed_by([&] { result = server->SendBroadcastScript(kInterface); });
  EXPECT_EQ(printed, std::string("MessageServer already sending message\n") + kNotInitialized);
  EXPECT_EQ(result, 0);
  EXPECT_EQ(open_descriptors(), before);
  listener.expects_nothing(milliseconds(500));
  EXPECT_TRUE(listener.expects(datagram("12345")));
}

TEST_F(BootScript, IsNeverSentInPartForWantOfMemory) {
  makes_server(12345);
  const FlushRecorder unseen;
  bool sent = false;
  int nth = 0;
  while (!sent) {
    failing_allocation = ++nth;
    try {
      sent = server->SendBroadcastScript(kInterface) != 0;
    } catch (const std::bad_alloc&) {
      server->message_server->StopSender();
    }
  }
  EXPECT_GT(nth, 1) << "nothing was allocated";
  EXPECT_EQ(stored(), datagram("12345"));
}
