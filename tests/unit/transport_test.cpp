#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "socket_errors/socket_errors.h"
#include "support/fault.h"
#include "support/flush_recorder.h"
#include "support/occupied_descriptors.h"
#include "support/outcome.h"
#include "support/tftp_bytes.h"
#include "support/udp_peer.h"
#include "tftp_client/tftp_client.h"

using namespace tftp;

namespace {

constexpr int kWaitSeconds = 5;
constexpr char kTooFewDescriptors[] = "the machine allows this process too few descriptors";
constexpr char kSocketError[] = "Unable to create a socket";

std::string contents(TFTP_Packet& packet) {
  return {reinterpret_cast<const char*>(packet.getData(0)), static_cast<std::size_t>(packet.size)};
}

std::string whole_array(TFTP_Packet& packet) {
  return {reinterpret_cast<const char*>(packet.getData(0)), static_cast<std::size_t>(packet.max_size)};
}

void fill(TFTP_Packet& packet, const std::string& datagram) {
  packet.clear();
  ASSERT_TRUE(packet.addMemory(datagram.data(), static_cast<int>(datagram.size())));
}

bool is_open(int descriptor) {
  return fcntl(descriptor, F_GETFD) != -1;
}

std::ptrdiff_t open_descriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

int socket_option(int descriptor, int option) {
  int value = -1;
  socklen_t length = sizeof value;
  getsockopt(descriptor, SOL_SOCKET, option, &value, &length);
  return value;
}

// The text of the socket error that a new client throws, by pointer; empty when it throws none.
std::string constructor_error(const std::string& address = "127.0.0.1", int port = 69) {
  try {
    TFTPClient client(address, port);
  } catch (ETFTPSocketCreate* thrown) {
    const std::unique_ptr<ETFTPSocketCreate> owned(thrown);
    return owned->what();
  }
  return "";
}

// Interrupts whatever call this thread waits in, again and again.
class Interruptions {
 public:
  Interruptions() {
    struct sigaction nothing = {};
    nothing.sa_handler = [](int) {};
    sigaction(SIGALRM, &nothing, &before_);
    const itimerval often = {{0, 100000}, {0, 100000}};
    setitimer(ITIMER_REAL, &often, nullptr);
  }
  ~Interruptions() {
    const itimerval never = {};
    setitimer(ITIMER_REAL, &never, nullptr);
    sigaction(SIGALRM, &before_, nullptr);
  }

 private:
  struct sigaction before_ = {};
};

// A client and the server that it is made for.
class TftpClient : public testing::Test {
 protected:
  // The client speaks first, so that the server knows where it is.
  void client_greets() {
    ASSERT_EQ(client_.sendBuffer("hello"), 5);
    ASSERT_TRUE(server_.expects("hello"));
  }
  void server_sends(const std::string& datagram) {
    client_greets();
    server_.sends(datagram);
  }

  Outcome waits(int seconds = kWaitSeconds) {
    return outcome_of([&] { return client_.waitForPacket(&client_.received_packet, seconds); });
  }
  Outcome waits_for_data(int seconds = kWaitSeconds) {
    return outcome_of([&] { return client_.waitForPacketData(seconds); });
  }
  Outcome waits_for_ack(int block, int seconds = kWaitSeconds) {
    return outcome_of([&] { return client_.waitForPacketACK(block, seconds); });
  }

  Outcome waits_after(const std::string& datagram) {
    server_sends(datagram);
    return waits();
  }
  Outcome waits_for_data_after(const std::string& datagram) {
    server_sends(datagram);
    return waits_for_data();
  }
  Outcome waits_for_ack_after(const std::string& datagram, int block) {
    server_sends(datagram);
    return waits_for_ack(block);
  }

  std::string report_of(const std::string& datagram) {
    TFTP_Packet packet;
    fill(packet, datagram);
    return outcome_of([&] { return client_.errorReceived(&packet), 0; }).printed;
  }

  UdpPeer server_;
  TFTPClient client_{"127.0.0.1", server_.port()};
};

// Construction and destruction

TEST_F(TftpClient, HasFieldsOfGivenTypesInGivenOrder) {
  static_assert(std::is_same_v<decltype(TFTPClient::server_ip), std::string>);
  static_assert(std::is_same_v<decltype(TFTPClient::server_port), std::int32_t>);
  static_assert(std::is_same_v<decltype(TFTPClient::socket_fd), std::int32_t>);
  static_assert(std::is_same_v<decltype(TFTPClient::server_address), sockaddr_in>);
  static_assert(std::is_same_v<decltype(TFTPClient::server_address_length), socklen_t>);
  static_assert(std::is_same_v<decltype(TFTPClient::timeout), std::int32_t>);
  static_assert(std::is_same_v<decltype(TFTPClient::block_size), std::int32_t>);
  static_assert(std::is_same_v<decltype(TFTPClient::received_packet), TFTP_Packet>);
  static_assert(!std::is_copy_constructible_v<TFTPClient> && !std::is_copy_assignable_v<TFTPClient>);

  const std::vector<const void*> fields = {
      &client_.server_ip,      &client_.server_port,           &client_.socket_fd,
      &client_.server_address, &client_.server_address_length, &client_.timeout,
      &client_.block_size,     &client_.received_packet};
  EXPECT_TRUE(std::is_sorted(fields.begin(), fields.end(), std::less<const void*>()));
}

TEST_F(TftpClient, StartsWithItsServerAndTheDefaults) {
  EXPECT_EQ(client_.server_ip, "127.0.0.1");
  EXPECT_EQ(client_.server_port, server_.port());
  EXPECT_EQ(client_.server_address_length, 16U);
  EXPECT_EQ(client_.timeout, 5);
  EXPECT_EQ(client_.block_size, 512);
  EXPECT_EQ(client_.received_packet.size, 0);
  EXPECT_EQ(client_.received_packet.max_size, 32768);
  EXPECT_EQ(whole_array(client_.received_packet), std::string(32768, '\0'));
}

TEST(TftpClientAddress, IsFamilyPortAndAddressWithZeroBehind) {
  const TFTPClient client("172.30.0.254", 0x1234);
  sockaddr_in expected = {};
  expected.sin_family = AF_INET;
  std::memcpy(&expected.sin_port, "\x12\x34", 2);
  std::memcpy(&expected.sin_addr, "\xac\x1e\0\xfe", 4);
  EXPECT_EQ(std::memcmp(&client.server_address, &expected, sizeof expected), 0);
}

TEST(TftpClientAddress, TakesLow16BitsOfPortAndRemembersAllOfIt) {
  const TFTPClient client("127.0.0.1", 0x70045);
  EXPECT_EQ(client.server_port, 0x70045);
  EXPECT_EQ(client.server_address.sin_port, htons(0x45));
  const TFTPClient negative("127.0.0.1", -2);
  EXPECT_EQ(negative.server_port, -2);
  EXPECT_EQ(negative.server_address.sin_port, htons(65534));
}

TEST(TftpClientAddress, IsAllOnesForTextThatIsNoAddress) {
  for (const char* text : {"", "nowhere", "172.30.0.256", "1.2.3.4.5", "localhost"}) {
    const TFTPClient client(text, 69);
    EXPECT_EQ(client.server_ip, text);
    EXPECT_EQ(client.server_address.sin_addr.s_addr, 0xFFFFFFFFU) << text;
    EXPECT_EQ(client.server_address.sin_port, htons(69)) << text;
  }
}

TEST_F(TftpClient, HasPlainUdpSocketThatIsNotBound) {
  EXPECT_EQ(socket_option(client_.socket_fd, SO_DOMAIN), AF_INET);
  EXPECT_EQ(socket_option(client_.socket_fd, SO_TYPE), SOCK_DGRAM);
  EXPECT_EQ(socket_option(client_.socket_fd, SO_PROTOCOL), IPPROTO_UDP);
  EXPECT_EQ(socket_option(client_.socket_fd, SO_REUSEADDR), 0);
  EXPECT_EQ(socket_option(client_.socket_fd, SO_BROADCAST), 0);
  EXPECT_EQ(fcntl(client_.socket_fd, F_GETFD), FD_CLOEXEC);
  EXPECT_EQ(fcntl(client_.socket_fd, F_GETFL) & O_NONBLOCK, 0);
  sockaddr_in own = {};
  socklen_t length = sizeof own;
  ASSERT_EQ(getsockname(client_.socket_fd, reinterpret_cast<sockaddr*>(&own), &length), 0);
  EXPECT_EQ(own.sin_port, 0);
}

TEST(TftpClientSocket, ThatCannotBeMadeIsThrownByPointerAndNotPrinted) {
  const std::ptrdiff_t before = open_descriptors();
  const Fault no_socket(Call::kSocket, EMFILE);
  std::string error_text;
  const Outcome outcome = outcome_of([&] {
    error_text = constructor_error("an address long enough to need memory of its own");
    return 0;
  });
  EXPECT_EQ(no_socket.struck(), 1);
  EXPECT_EQ(error_text, kSocketError);
  EXPECT_EQ(outcome.printed, "");
  EXPECT_EQ(open_descriptors(), before);
}

TEST(TftpClientSocket, IsOpenAsLongAsTheClientLives) {
  int descriptor = -1;
  {
    const TFTPClient client("127.0.0.1", 69);
    descriptor = client.socket_fd;
    EXPECT_TRUE(is_open(descriptor));
  }
  EXPECT_FALSE(is_open(descriptor));
}

TEST(TftpClientSocket, LeavesNoDescriptorBehind) {
  const std::ptrdiff_t before = open_descriptors();
  for (int i = 0; i < 100; ++i) EXPECT_EQ(constructor_error(), "");
  EXPECT_EQ(open_descriptors(), before);
}

TEST(TftpClientSocket, OfMinusOneIsNotClosed) {
  auto client = std::make_unique<TFTPClient>("127.0.0.1", 69);
  const int descriptor = std::exchange(client->socket_fd, -1);
  errno = 0;
  client.reset();
  EXPECT_EQ(errno, 0);
  EXPECT_TRUE(is_open(descriptor));
  close(descriptor);
}

TEST(TftpClientSocket, OfDescriptorZeroIsClosed) {
  const int standard_input = dup(STDIN_FILENO);
  close(STDIN_FILENO);
  {
    const TFTPClient client("127.0.0.1", 69);
    EXPECT_EQ(client.socket_fd, 0);
  }
  EXPECT_FALSE(is_open(0));
  dup2(standard_input, STDIN_FILENO);
  close(standard_input);
}

TEST(TftpClientSocket, BeyondDescriptorSetIsRefusedAndClosed) {
  const OccupiedDescriptors occupied(FD_SETSIZE);
  if (!occupied.possible()) GTEST_SKIP() << kTooFewDescriptors;
  EXPECT_EQ(constructor_error("an address long enough to need memory of its own"), kSocketError);
  EXPECT_FALSE(is_open(FD_SETSIZE));
}

TEST(TftpClientSocket, WithLastDescriptorOfSetIsUsed) {
  UdpPeer server;
  const OccupiedDescriptors occupied(FD_SETSIZE - 1);
  if (!occupied.possible()) GTEST_SKIP() << kTooFewDescriptors;
  TFTPClient client("127.0.0.1", server.port());
  EXPECT_EQ(client.socket_fd, FD_SETSIZE - 1);
  client.sendBuffer("hello");
  ASSERT_TRUE(server.expects("hello"));
  server.sends(ack(1));
  EXPECT_EQ(client.waitForPacket(&client.received_packet, kWaitSeconds), 4);
}

// Sending

TEST_F(TftpClient, SendsTextWithoutItsNul) {
  char text[] = "one\0two";
  EXPECT_EQ(client_.sendBuffer(text), 3);
  server_.expects("one");
  char nothing[] = "";
  EXPECT_EQ(client_.sendBuffer(nothing), 0);
  server_.expects("");
}

TEST_F(TftpClient, SendsAsManyBytesOfPacketAsItsSize) {
  TFTP_Packet packet;
  fill(packet, data(1, bytes("a\0b")));
  EXPECT_EQ(client_.sendPacket(&packet), 7);
  server_.expects(data(1, bytes("a\0b")));
  packet.setSize(5);
  EXPECT_EQ(client_.sendPacket(&packet), 5);
  server_.expects(data(1, "a"));
  packet.setSize(0);
  EXPECT_EQ(client_.sendPacket(&packet), 0);
  server_.expects("");
}

TEST_F(TftpClient, SendsNothingFromBeyondThePacketsArray) {
  TFTP_Packet packet;
  packet.createACK(7);
  ASSERT_TRUE(packet.setSize(1000));
  EXPECT_EQ(client_.sendPacket(&packet), 4);
  server_.expects(ack(7));
}

TEST_F(TftpClient, ReportsFailedSendByResultOnly) {
  TFTP_Packet packet;
  packet.createACK(1);
  const Fault unreachable(Call::kSendto, ENETUNREACH, 1, 2);
  EXPECT_EQ(outcome_of([&] { return client_.sendBuffer("hello"); }), (Outcome{-1, ""}));
  EXPECT_EQ(outcome_of([&] { return client_.sendPacket(&packet); }), (Outcome{-1, ""}));
  EXPECT_EQ(unreachable.struck(), 2);
}

TEST_F(TftpClient, SendsFromSamePortAllItsLife) {
  client_greets();
  const int port = server_.their_port();
  TFTP_Packet packet;
  packet.createACK(1);
  client_.sendPacket(&packet);
  server_.expects(ack(1));
  EXPECT_EQ(server_.their_port(), port);
  EXPECT_NE(port, 0);
}

TEST(TftpClientAddress, OfPortAbove65535IsWhereItsLow16BitsLead) {
  UdpPeer server;
  TFTPClient client("127.0.0.1", server.port() + 65536);
  EXPECT_EQ(client.sendBuffer("hello"), 5);
  server.expects("hello");
}

// The server's transfer ID

TEST_F(TftpClient, SendsToWhoeverAnsweredLast) {
  client_greets();
  UdpPeer transfer("127.0.0.2");
  transfer.aims_at("127.0.0.1", server_.their_port());
  transfer.sends(data(1, "block"));
  EXPECT_EQ(waits_for_data(), (Outcome{4, ""}));
  EXPECT_EQ(client_.server_address.sin_family, AF_INET);
  EXPECT_EQ(client_.server_address.sin_port, htons(static_cast<std::uint16_t>(transfer.port())));
  EXPECT_EQ(client_.server_address.sin_addr.s_addr, inet_addr("127.0.0.2"));
  EXPECT_EQ(client_.server_address_length, 16U);
  EXPECT_EQ(client_.server_ip, "127.0.0.1");
  EXPECT_EQ(client_.server_port, server_.port());

  TFTP_Packet packet;
  packet.createACK(1);
  client_.sendPacket(&packet);
  transfer.expects(ack(1));
  client_.sendBuffer("text");
  transfer.expects("text");

  server_.sends(data(2, "block"));
  EXPECT_EQ(waits_for_data(), (Outcome{4, ""}));
  client_.sendBuffer("back");
  server_.expects("back");
  transfer.expects_nothing(std::chrono::milliseconds(50));
}

TEST_F(TftpClient, AdoptsSenderOfEveryKindOfDatagram) {
  client_greets();
  const std::vector<std::pair<std::string, Outcome>> datagrams = {
      {"", {1, "Connection was closed by server\nUnhandled packet\n"}},
      {ack(1), {1, "ACK for packet 1(expected: 1)\n"}},
      {"stray", {1, "Unhandled packet\n"}},
  };
  for (const auto& [datagram, outcome] : datagrams) {
    UdpPeer transfer;
    transfer.aims_at("127.0.0.1", server_.their_port());
    transfer.sends(datagram);
    EXPECT_EQ(waits_for_ack(1), outcome);
    client_.sendBuffer("here");
    transfer.expects("here");
  }
}

TEST_F(TftpClient, StaysWithItsServerWhenNothingIsReceived) {
  EXPECT_EQ(waits(0), (Outcome{0, ""}));
  client_greets();
  server_.sends(ack(1));
  const Fault refused(Call::kRecvfrom, ECONNREFUSED);
  EXPECT_EQ(waits(), (Outcome{3, "recv() error in waitForPackage()\n"}));
  client_greets();
}

TEST_F(TftpClient, HandsLengthOfAddressToEachSendAndReceive) {
  client_greets();
  const in_port_t port = client_.server_address.sin_port;
  UdpPeer transfer;
  transfer.aims_at("127.0.0.1", server_.their_port());
  transfer.sends(ack(1));
  client_.server_address_length = 0;
  TFTP_Packet packet;
  EXPECT_EQ(client_.sendPacket(&packet), -1);
  EXPECT_EQ(client_.sendBuffer("text"), -1);
  EXPECT_EQ(waits(), (Outcome{4, ""}));
  EXPECT_EQ(client_.server_address.sin_port, port);
  EXPECT_EQ(client_.server_address_length, 16U);
}

// Waiting for any packet

TEST_F(TftpClient, WaitsWholeSecondsAndTimesOutInSilence) {
  fill(client_.received_packet, error(1, "kept"));
  Outcome outcome{-1, ""};
  for (int wait : {1, 2}) {
    const double seconds = seconds_of([&] { outcome = waits(wait); });
    EXPECT_EQ(outcome, (Outcome{0, ""}));
    EXPECT_GE(seconds, wait);
    EXPECT_LT(seconds, wait + 0.9);
  }
  EXPECT_EQ(contents(client_.received_packet), error(1, "kept"));
}

TEST_F(TftpClient, OnlyLooksWhenItIsToWaitZeroSeconds) {
  double shortest = kWaitSeconds;
  for (int i = 0; i < 5; ++i) {
    shortest = std::min(shortest, seconds_of([&] { EXPECT_EQ(waits(0), (Outcome{0, ""})); }));
  }
  EXPECT_LT(shortest, 0.02);
}

TEST_F(TftpClient, ReturnsAsSoonAsSomethingArrives) {
  server_sends(ack(1));
  EXPECT_LT(seconds_of([&] { EXPECT_EQ(waits(30), (Outcome{4, ""})); }), 5);
}

TEST_F(TftpClient, KeepsThePacketWhenSelectFails) {
  fill(client_.received_packet, error(1, "kept"));
  server_sends(ack(1));
  {
    const Fault failure(Call::kSelect, EINVAL);
    EXPECT_EQ(waits(), (Outcome{1, "Error in select(): \n"}));
  }
  EXPECT_EQ(contents(client_.received_packet), error(1, "kept"));
  EXPECT_EQ(waits(), (Outcome{4, ""}));
  EXPECT_EQ(contents(client_.received_packet), ack(1));
}

TEST_F(TftpClient, TakesSignalDuringTheWaitForFailure) {
  fill(client_.received_packet, error(1, "kept"));
  const Interruptions interruptions;
  EXPECT_EQ(waits(), (Outcome{1, "Error in select(): \n"}));
  EXPECT_EQ(contents(client_.received_packet), error(1, "kept"));
  EXPECT_EQ(waits_for_ack(1), (Outcome{1, "Error in select(): \nUnhandled packet\n"}));
}

TEST_F(TftpClient, FailsToWaitOnClosedDescriptor) {
  const int usable = std::exchange(client_.socket_fd, fcntl(client_.socket_fd, F_DUPFD, 900));
  close(client_.socket_fd);
  EXPECT_EQ(waits(), (Outcome{1, "Error in select(): \n"}));
  client_.socket_fd = -1;
  EXPECT_EQ(waits(), (Outcome{1, "Error in select(): \n"}));
  client_.socket_fd = usable;
}

TEST_F(TftpClient, FailsToWaitOnDescriptorThatNoSetHolds) {
  const OccupiedDescriptors none(0);
  if (!none.possible()) GTEST_SKIP() << kTooFewDescriptors;
  server_sends(ack(1));
  const int usable = std::exchange(client_.socket_fd, fcntl(client_.socket_fd, F_DUPFD, FD_SETSIZE));
  ASSERT_EQ(client_.socket_fd, FD_SETSIZE);
  EXPECT_EQ(waits(), (Outcome{1, "Error in select(): \n"}));
  close(client_.socket_fd);
  client_.socket_fd = usable;
}

TEST_F(TftpClient, EmptiesThePacketForEmptyDatagram) {
  fill(client_.received_packet, error(1, "gone"));
  EXPECT_EQ(waits_after(""), (Outcome{2, "Connection was closed by server\n"}));
  EXPECT_EQ(client_.received_packet.size, 0);
  EXPECT_EQ(whole_array(client_.received_packet), std::string(32768, '\0'));
}

TEST_F(TftpClient, EmptiesThePacketWhenReceiveFails) {
  fill(client_.received_packet, error(1, "gone"));
  server_sends(ack(1));
  {
    const Fault failure(Call::kRecvfrom, ECONNREFUSED);
    EXPECT_EQ(waits(), (Outcome{3, "recv() error in waitForPackage()\n"}));
  }
  EXPECT_EQ(client_.received_packet.size, 0);
  EXPECT_EQ(whole_array(client_.received_packet), std::string(32768, '\0'));
}

TEST_F(TftpClient, ReceivesIntoEmptiedPacket) {
  fill(client_.received_packet, std::string(100, 'x'));
  EXPECT_EQ(waits_after(ack(1)), (Outcome{4, ""}));
  EXPECT_EQ(client_.received_packet.size, 4);
  EXPECT_EQ(whole_array(client_.received_packet), ack(1) + std::string(32764, '\0'));
}

TEST_F(TftpClient, ReceivesIntoThePacketThatItIsGiven) {
  fill(client_.received_packet, "untouched");
  TFTP_Packet other;
  server_sends(ack(1));
  EXPECT_EQ(client_.waitForPacket(&other, kWaitSeconds), 4);
  EXPECT_EQ(contents(other), ack(1));
  EXPECT_EQ(contents(client_.received_packet), "untouched");
}

TEST_F(TftpClient, ReceivesOneDatagramPerWait) {
  server_sends(ack(1));
  server_.sends(ack(2));
  EXPECT_EQ(waits(), (Outcome{4, ""}));
  EXPECT_EQ(contents(client_.received_packet), ack(1));
  EXPECT_EQ(waits(), (Outcome{4, ""}));
  EXPECT_EQ(contents(client_.received_packet), ack(2));
  EXPECT_EQ(waits(0), (Outcome{0, ""}));
}

TEST_F(TftpClient, CutsDatagramToCapacityOfThePacket) {
  const std::string long_datagram = data(1, std::string(40000, 'x'));
  for (int capacity : {1, 4, 512, 516, 32768}) {
    ASSERT_TRUE(client_.received_packet.reSize(capacity));
    EXPECT_EQ(waits_after(long_datagram), (Outcome{4, ""}));
    EXPECT_EQ(client_.received_packet.size, capacity);
    EXPECT_EQ(client_.received_packet.max_size, capacity);
    EXPECT_EQ(contents(client_.received_packet), long_datagram.substr(0, static_cast<std::size_t>(capacity)));
  }
  EXPECT_EQ(waits(0), (Outcome{0, ""}));
}

TEST_F(TftpClient, TakesAnyDatagramForEmptyWhenThePacketHoldsNothing) {
  for (int capacity : {0, -5}) {
    ASSERT_TRUE(client_.received_packet.reSize(capacity));
    EXPECT_EQ(waits_after(data(1, "x")), (Outcome{2, "Connection was closed by server\n"}));
    EXPECT_EQ(client_.received_packet.size, 0);
  }
}

// Waiting for data

TEST_F(TftpClient, AcceptsAnyKindOfPacketForDataUnlessItIsAnError) {
  for (const std::string& datagram :
       {data(1, "x"), data(1, ""), ack(1), oack({{"tsize", "5"}}), rrq("f"), wrq("f"), bytes("\0\7"),
        bytes("\5\0\0\1"), bytes("\5"), std::string("x")}) {
    EXPECT_EQ(waits_for_data_after(datagram), (Outcome{4, ""})) << tftp::in_words(datagram);
    EXPECT_EQ(contents(client_.received_packet), datagram);
  }
}

TEST_F(TftpClient, ReportsErrorInPlaceOfData) {
  EXPECT_EQ(waits_for_data_after(error(1, "no such thing")),
            (Outcome{5, "Error! Error code: 1\nError message: File not found\n"}));
  EXPECT_EQ(contents(client_.received_packet), error(1, "no such thing"));
}

TEST_F(TftpClient, JudgesDataOnlyWhenItWasReceived) {
  const std::string earlier = error(1, "earlier");
  fill(client_.received_packet, earlier);
  EXPECT_EQ(waits_for_data(0), (Outcome{0, ""}));
  EXPECT_EQ(contents(client_.received_packet), earlier);
  {
    const Fault failure(Call::kSelect, EINTR);
    EXPECT_EQ(waits_for_data(), (Outcome{1, "Error in select(): \n"}));
  }
  EXPECT_EQ(contents(client_.received_packet), earlier);
  EXPECT_EQ(waits_for_data_after(""), (Outcome{2, "Connection was closed by server\n"}));
  server_sends(ack(1));
  const Fault failure(Call::kRecvfrom, EIO);
  EXPECT_EQ(waits_for_data(), (Outcome{3, "recv() error in waitForPackage()\n"}));
}

TEST_F(TftpClient, WaitsForDataAsLongAsItIsTold) {
  client_.timeout = 0;
  const double seconds = seconds_of([&] { EXPECT_EQ(waits_for_data(1), (Outcome{0, ""})); });
  EXPECT_GE(seconds, 1);
  EXPECT_LT(seconds, 1.9);
}

// Waiting for an acknowledgement

TEST_F(TftpClient, PrintsNumberOfAckAndExpectedNumberAndAcceptsBoth) {
  EXPECT_EQ(waits_for_ack_after(ack(3), 2), (Outcome{1, "ACK for packet 3(expected: 2)\n"}));
  EXPECT_EQ(waits_for_ack_after(ack(2), 2), (Outcome{1, "ACK for packet 2(expected: 2)\n"}));
  EXPECT_EQ(waits_for_ack_after(ack(65535), -1), (Outcome{1, "ACK for packet 65535(expected: -1)\n"}));
  EXPECT_EQ(waits_for_ack_after(ack(0), 70000), (Outcome{1, "ACK for packet 0(expected: 70000)\n"}));
  EXPECT_EQ(waits_for_ack_after(bytes("\0\4"), 1), (Outcome{1, "ACK for packet 0(expected: 1)\n"}));
}

TEST_F(TftpClient, AcceptsDataInPlaceOfAck) {
  EXPECT_EQ(waits_for_ack_after(data(5, "x"), 2), (Outcome{1, "DATAK for packet 5(expected: 2)\n"}));
  EXPECT_EQ(waits_for_ack_after(data(65535, ""), -2), (Outcome{1, "DATAK for packet 65535(expected: -2)\n"}));
}

TEST_F(TftpClient, AcceptsUnknownPacketInPlaceOfAck) {
  for (const std::string& datagram : {oack({}), oack({{"tsize", "5"}}), rrq("f"), wrq("f"), bytes("\0\7"),
                                      bytes("\0\0\0\1"), bytes("\4\0"), bytes("\4"), std::string("x")}) {
    EXPECT_EQ(waits_for_ack_after(datagram, 1), (Outcome{1, "Unhandled packet\n"}))
        << tftp::in_words(datagram);
  }
}

TEST_F(TftpClient, RefusesOnlyErrorInPlaceOfAck) {
  EXPECT_EQ(
      waits_for_ack_after(error(1, "gone"), 1),
      (Outcome{0, "ACK expected, but got Error\nError! Error code: 1\nError message: File not found\n"}));
  EXPECT_EQ(waits_for_ack_after(error(0, "out of paper"), 1),
            (Outcome{0, "ACK expected, but got Error\nError! Error code: 0\nError message: out of paper\n"}));
}

TEST_F(TftpClient, AcceptsSilenceInPlaceOfAck) {
  client_.timeout = 0;
  Outcome outcome{-1, ""};
  const double seconds = seconds_of([&] { outcome = waits_for_ack(1, 1); });
  EXPECT_EQ(outcome, (Outcome{1, "We have an error in waitForPacket()\n"}));
  EXPECT_GE(seconds, 1);
  EXPECT_LT(seconds, 1.9);
}

TEST_F(TftpClient, CallsFailedWaitForAckUnhandledAndAcceptsIt) {
  const Fault failure(Call::kSelect, EINVAL);
  EXPECT_EQ(waits_for_ack(1), (Outcome{1, "Error in select(): \nUnhandled packet\n"}));
}

TEST_F(TftpClient, CallsEmptyDatagramForAckUnhandledAndAcceptsIt) {
  EXPECT_EQ(waits_for_ack_after("", 1), (Outcome{1, "Connection was closed by server\nUnhandled packet\n"}));
}

TEST_F(TftpClient, CallsFailedReceiveOfAckUnhandledAndAcceptsIt) {
  server_sends(ack(1));
  const Fault failure(Call::kRecvfrom, ECONNREFUSED);
  EXPECT_EQ(waits_for_ack(1), (Outcome{1, "recv() error in waitForPackage()\nUnhandled packet\n"}));
}

TEST_F(TftpClient, LeavesReceivedPacketAloneWhileItWaitsForAck) {
  fill(client_.received_packet, error(1, "kept"));
  EXPECT_EQ(waits_for_ack_after(ack(1), 1), (Outcome{1, "ACK for packet 1(expected: 1)\n"}));
  EXPECT_EQ(waits_for_ack(2, 0), (Outcome{1, "We have an error in waitForPacket()\n"}));
  EXPECT_EQ(contents(client_.received_packet), error(1, "kept"));
}

TEST_F(TftpClient, HasRoomForLongDatagramsWhileItWaitsForAck) {
  client_.received_packet.reSize(4);
  const std::string message(255, 'm');
  EXPECT_EQ(
      waits_for_ack_after(error(0, message + std::string(30000, 'n')), 1),
      (Outcome{0, "ACK expected, but got Error\nError! Error code: 0\nError message: " + message + "\n"}));
}

// Reports of ERROR packets

TEST_F(TftpClient, ReportsTextOfEachErrorCodeAndNotThatOfThePacket) {
  const std::vector<std::pair<int, std::string>> texts = {
      {1, "File not found"},         {2, "Access violation"},    {3, "Disk full or allocation exceeded"},
      {4, "Illegal TFTP operation"}, {5, "Unknown transfer ID"}, {6, "File already exists"},
      {7, "No such user"},           {8, "Not defined"},         {9, "Not defined"},
      {256, "Not defined"},          {32768, "Not defined"},     {65535, "Not defined"}};
  for (const auto& [code, text] : texts) {
    EXPECT_EQ(report_of(error(code, "the packet's own")),
              "Error! Error code: " + std::to_string(code) + "\nError message: " + text + "\n");
  }
}

TEST_F(TftpClient, ReportsMessageOfThePacketForCodeZero) {
  const std::string head = "Error! Error code: 0\nError message: ";
  EXPECT_EQ(report_of(error(0, "out of paper")), head + "out of paper\n");
  EXPECT_EQ(report_of(error(0, "\t\xff %s\n")), head + "\t\xff %s\n\n");
  EXPECT_EQ(report_of(error(0, bytes("first\0second"))), head + "first\n");
  EXPECT_EQ(report_of(error(0, "")), head + "\n");
}

TEST_F(TftpClient, ReportsAtMost255CharactersOfMessage) {
  const std::string head = "Error! Error code: 0\nError message: ";
  for (std::size_t length : {254U, 255U}) {
    const std::string message(length, 'm');
    EXPECT_EQ(report_of(error(0, message)), head + message + "\n");
  }
  for (std::size_t length : {256U, 300U, 20000U}) {
    const std::string message = std::string(254, 'm') + "l" + std::string(length - 255, 'x');
    EXPECT_EQ(report_of(error(0, message)), head + message.substr(0, 255) + "\n");
  }
}

TEST_F(TftpClient, ReportsNoMessageWhenThePacketHasNone) {
  for (const std::string& datagram : {bytes("\0\5\0\0"), bytes("\0\5\0"), bytes("\0\5")}) {
    EXPECT_EQ(waits_for_data_after(datagram), (Outcome{5, "Error! Error code: 0\nError message: \n"}));
  }
  EXPECT_EQ(waits_for_data_after(bytes("\0\5\0\6")),
            (Outcome{5, "Error! Error code: 6\nError message: File already exists\n"}));
  EXPECT_EQ(waits_for_data_after(bytes("\0\5\1")),
            (Outcome{5, "Error! Error code: 256\nError message: Not defined\n"}));
}

TEST_F(TftpClient, EndsMessageWithoutNulWithTheDatagram) {
  EXPECT_EQ(waits_for_data_after(error(0, "a message of some length")),
            (Outcome{5, "Error! Error code: 0\nError message: a message of some length\n"}));
  EXPECT_EQ(waits_for_data_after(bytes("\0\5\0\0short")),
            (Outcome{5, "Error! Error code: 0\nError message: short\n"}));
}

TEST_F(TftpClient, EndsMessageWithoutNulWithTheArray) {
  client_.received_packet.reSize(9);
  EXPECT_EQ(waits_for_data_after(bytes("\0\5\0\0shorter")),
            (Outcome{5, "Error! Error code: 0\nError message: short\n"}));
  client_.received_packet.reSize(2);
  EXPECT_EQ(waits_for_data_after(bytes("\0\5\0\1")), (Outcome{5, "Error! Error code: 0\nError message: \n"}));
}

// How messages are printed

TEST_F(TftpClient, PrintsNumbersInHexadecimalAfterDump) {
  TFTP_Packet packet;
  fill(packet, bytes("\0\4"));
  server_sends(ack(31));
  server_.sends(data(0, "x"));
  server_.sends(error(16, ""));
  const Outcome outcome = outcome_of([&] {
    packet.dumpData();
    client_.waitForPacketACK(-1, kWaitSeconds);
    client_.waitForPacketACK(10, kWaitSeconds);
    return client_.waitForPacketData(kWaitSeconds);
  });
  EXPECT_EQ(outcome, (Outcome{5,
                              "\n--------------DATA DUMP---------------------\n"
                              "Size: 2\n"
                              "00 0x4 "
                              "\n--------------------------------------------\n\n"
                              "ACK for packet 0x1f(expected: 0xffffffff)\n"
                              "DATAK for packet 0(expected: 0xa)\n"
                              "Error! Error code: 0x10\n"
                              "Error message: Not defined\n"}));
}

TEST_F(TftpClient, FlushesEachLine) {
  server_sends(error(1, ""));
  for (const std::string& datagram :
       {error(0, "own"), ack(1), data(1, ""), std::string("x"), std::string()}) {
    server_.sends(datagram);
  }
  FlushRecorder output;
  client_.waitForPacketData(kWaitSeconds);
  for (int i = 0; i < 5; ++i) client_.waitForPacketACK(1, kWaitSeconds);
  client_.waitForPacketACK(1, 0);
  client_.waitForPacketACK(1, -1);
  client_.sendBuffer("hello");
  server_.expects("hello");
  server_.sends(ack(1));
  {
    const Fault failure(Call::kRecvfrom, EIO);
    client_.waitForPacketData(kWaitSeconds);
  }
  EXPECT_EQ(output.text(),
            "Error! Error code: 1\n<flush>"
            "Error message: File not found\n<flush>"
            "ACK expected, but got Error\n<flush>"
            "Error! Error code: 0\n<flush>"
            "Error message: own\n<flush>"
            "ACK for packet 1(expected: 1)\n<flush>"
            "DATAK for packet 1(expected: 1)\n<flush>"
            "Unhandled packet\n<flush>"
            "Connection was closed by server\n<flush>"
            "Unhandled packet\n<flush>"
            "We have an error in waitForPacket()\n<flush>"
            "Error in select(): \n<flush>"
            "Unhandled packet\n<flush>"
            "recv() error in waitForPackage()\n<flush>");
}

}  // namespace
