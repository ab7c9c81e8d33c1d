#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <new>
#include <set>
#include <string>
#include <type_traits>
#include <vector>

#include "signals/signals.h"
#include "support/emulated.h"
#include "support/fault.h"
#include "support/occupied_descriptors.h"
#include "support/server_under_test.h"
#include "tftp_server/tftp_server.h"

using namespace tftp;

TEST_F(TftpServerLoop, HandsAReadRequestsRecordOverWithTheseFields) {
  starts();
  const Fault no_thread(Call::kThread, EAGAIN);
  asks(rrq("file"));
  unit->expects(data(1, "contents"));
  started->ends();
  ASSERT_EQ(no_thread.struck(), 1);
  ASSERT_EQ(clients_kept(), 1);
  const ServerClient& client = *record(1);
  EXPECT_EQ(client.connected, 1);
  EXPECT_EQ(client.request_type, 1);
  EXPECT_EQ(client.block_number, 1);
  EXPECT_EQ(client.transfer_state, 2);
  EXPECT_EQ(client.client_ip, kUnitIp);
  EXPECT_EQ(client.local_port, 33133);
  EXPECT_EQ(client.timeout, 5);
  EXPECT_EQ(client.block_size, 512);
  EXPECT_EQ(client.file_size, 0);
  EXPECT_EQ(client.retries, 0);
  EXPECT_EQ(client.receive_status, 2);
  EXPECT_EQ(in_words(client.client_address), std::string(kUnitIp) + ":" + std::to_string(unit->port()));
  EXPECT_EQ(client.client_address_length, sizeof(sockaddr_in));
  EXPECT_NE(client.input_file, nullptr);
  EXPECT_EQ(client.output_file, nullptr);
  EXPECT_TRUE(client.last_block);
  EXPECT_EQ(socket_option(client.socket_fd, SOL_SOCKET, SO_TYPE), SOCK_DGRAM);
  EXPECT_EQ(bound_to(client.socket_fd), "0.0.0.0:33133");
}

TEST_F(TftpServerLoop, HandsAWriteRequestsRecordOverWithTheDatagramInAPacketOf512Bytes) {
  starts();
  const Fault no_thread(Call::kThread, EAGAIN);
  asks(wrq("new file"));
  unit->expects(ack(0));
  started->ends();
  ASSERT_EQ(clients_kept(), 1);
  const ServerClient& client = *record(1);
  EXPECT_EQ(client.connected, 1);
  EXPECT_EQ(client.request_type, 2);
  EXPECT_EQ(client.block_number, 0);
  EXPECT_EQ(client.transfer_state, 0);
  EXPECT_EQ(client.retries, 0);
  EXPECT_FALSE(client.last_block);
  EXPECT_EQ(client.input_file, nullptr);
  EXPECT_NE(client.output_file, nullptr);
  EXPECT_EQ(client.received_packet.max_size, 512);
  const std::string received(client.received_packet.data,
                             client.received_packet.data + client.received_packet.size);
  EXPECT_EQ(received, wrq("new file"));
  EXPECT_EQ(client.sent_packet.max_size, 512);
  EXPECT_EQ(client.sent_packet.size, 0);
}

TEST_F(TftpServerLoop, GivesARecordNoTransferStateOfItsOwn) {
  starts();
  const Fault no_thread(Call::kThread, EAGAIN);
  // After the request itself.
  const Fault no_first_block(Call::kSendto, ENOBUFS, 2);
  asks(rrq("file"));
  EXPECT_TRUE(wait_until([&] { return no_thread.struck() == 1; }));
  EXPECT_EQ(record(1)->transfer_state, 0);
}

TEST_F(TftpServerLoop, LooksAtTheFirst512BytesOfADatagram) {
  starts();
  // The value begins at the fourteenth byte of the request; its NUL is the last byte that is looked at.
  ASSERT_EQ(rrq("f", {{"pad", std::string(497, 'x')}}).size(), 512U);
  write_whole_file("f", "contents");
  asks(rrq("f", {{"pad", std::string(497, 'x')}}));
  unit->expects(oack({{"pad", std::string(497, 'x')}}));
  asks(rrq("f", {{"pad", std::string(497, 'x')}, {"more", "than this"}}));
  unit->expects(oack({{"pad", std::string(497, 'x')}}));
  asks(rrq("f", {{"pad", std::string(600, 'x')}}));
  unit->expects(oack({{"pad", std::string(498, 'x')}}));
  EXPECT_EQ(record(3)->received_packet.size, 512);
}

TEST_F(TftpServerLoop, DiscardsAClientWithoutASocketSilently) {
  const std::string printed = printed_by([&] {
    starts();
    const Fault no_socket(Call::kSocket, EMFILE);
    asks_in_vain();
    EXPECT_EQ(no_socket.struck(), 1);
    EXPECT_EQ(clients_kept(), 0);
    serves_client(2);
    started->ends();
  });
  EXPECT_EQ(printed, std::string(kStarted) + "RRQ file\n");
}

TEST_F(TftpServerLoop, CountsNoDatagramThatThereIsNoMemoryForARecordOf) {
  std::atomic<bool> memory{true};
  std::atomic<int> tries{0};
  records.before_each = [&] {
    if (memory) return;
    ++tries;
    throw std::bad_alloc();
  };
  starts();
  serves_client(1);
  ASSERT_TRUE(wait_until([&] { return records.made() == 2; }));
  memory = false;
  serves_client(2);  // its record was there already
  for (int dropped = 0; dropped < 3; ++dropped) {
    ASSERT_TRUE(wait_until([&] { return tries == dropped + 1; }));
    asks(rrq("file"));
  }
  ASSERT_TRUE(wait_until([&] { return tries == 4; }));
  EXPECT_EQ(ServerClient::sClientID, 2);
  memory = true;
  asks(rrq("file"));  // still waited for without a record
  ASSERT_TRUE(wait_until([&] { return records.made() == 3; }));
  serves_client(3);
  EXPECT_EQ(ServerClient::sClientID, 3);
  started->ends();
}

TEST_F(TftpServerLoop, DiscardsAClientWhoseSocketIsDescriptorZeroSilently) {
  const std::string printed = printed_by([&] {
    starts();
    const int standard_input = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3);
    close(STDIN_FILENO);
    asks_in_vain();
    EXPECT_FALSE(is_open(STDIN_FILENO));
    EXPECT_EQ(ServerClient::sClientID, 1);
    EXPECT_EQ(clients_kept(), 0);
    dup2(standard_input, STDIN_FILENO);
    close(standard_input);
    serves_client(2);
    started->ends();
  });
  EXPECT_EQ(printed, std::string(kStarted) + "RRQ file\n");
}

TEST_F(TftpServerLoop, DiscardsAClientWhoseSocketNoDescriptorSetHoldsSilently) {
  {
    const OccupiedDescriptors below(FD_SETSIZE);
    if (!below.possible()) GTEST_SKIP() << "this process may not open enough descriptors";
  }
  const std::string printed = printed_by([&] {
    starts();
    {
      const OccupiedDescriptors below(FD_SETSIZE);
      asks_in_vain();
      EXPECT_FALSE(is_open(FD_SETSIZE));
    }
    EXPECT_EQ(ServerClient::sClientID, 1);
    EXPECT_EQ(clients_kept(), 0);
    {
      // One below, the highest that a set holds.
      const OccupiedDescriptors below(FD_SETSIZE - 1);
      serves_client(2);
    }
    serves_client(3);
    started->ends();
  });
  EXPECT_EQ(printed, std::string(kStarted) + "RRQ file\nRRQ file\n");
}

TEST_F(TftpServerLoop, ServesAClientWhosePortIsTakenFromAnotherPort) {
  const UdpPeer taker("0.0.0.0", 33133);
  const std::string printed = printed_by([&] {
    starts();
    asks(rrq("three blocks"));
    reads_on(1);
    EXPECT_TRUE(thread_ends(1));
    started->ends();
  });
  EXPECT_EQ(printed, std::string(kStarted) + "RRQ three blocks\n");
  EXPECT_NE(unit->their_port(), 33133);
  EXPECT_EQ(record(1)->local_port, 33133);
}

TEST_F(TftpServerLoop, ReleasesEverythingOfARefusedRequest) {
  UdpPeer ppt_server("127.0.0.1", 7069);
  starts();
  const int before = open_descriptors();
  for (int round = 0; round < 5; ++round) {
    asks(ack(1));
    unit->expects(error(4, ""));
    asks(rrq("no such file"));
    unit->expects(error(1, ""));
    asks(rrq("file", {}, "netascii"));
    unit->expects(error(0, "Mode not supported"));
    asks(wrq("file"));
    unit->expects(error(6, ""));
    asks(rrq("F_l_m_01STEP"));
    unit->expects(data(1, ""));
    ppt_server.expects(rrq("F_l_m_01CPU_2_STEP"));
    ppt_server.sends(data(1, ""));
    ppt_server.expects(ack(1));
  }
  started->ends();
  EXPECT_EQ(ServerClient::sClientID, 25);
  EXPECT_EQ(clients_kept(), 0);
  EXPECT_EQ(open_descriptors(), before);
}

TEST_F(TftpServerLoop, ReleasesEverythingWhenThreadCreationReturnsMinusOne) {
  starts();
  const Fault no_thread(Call::kThread, -1);
  const int before = open_descriptors();
  asks(rrq("three blocks"));
  unit->expects(data(1, noise(512)));
  EXPECT_TRUE(wait_until([&] { return clients_kept() == 0; }));
  EXPECT_EQ(no_thread.struck(), 1);
  EXPECT_EQ(open_descriptors(), before);
  serves_client(2);
}

TEST_F(TftpServerLoop, KeepsTheRecordWhenThreadCreationReturnsAnErrorNumber) {
  int struck = 0;
  const std::string printed = printed_by([&] {
    starts();
    const Fault no_thread(Call::kThread, EAGAIN);
    asks(rrq("three blocks"));
    unit->expects(data(1, noise(512)));
    serves_client(2);
    started->ends();
    struck = no_thread.struck();
  });
  EXPECT_EQ(printed, std::string(kStarted) + "RRQ three blocks\nRRQ file\n");
  EXPECT_EQ(struck, 1);
  EXPECT_FALSE(records.released(1));
  EXPECT_TRUE(is_open(record(1)->socket_fd));
  EXPECT_NE(record(1)->input_file, nullptr);
}

TEST_F(TftpServerLoop, LetsSignalsInWhereItWaitsAndOnNoClientsThread) {
  LEFT_OUT_UNDER_EMULATION("the kernel sees the signal masks of qemu");
  block_signals();  // as the program does
  starts();
  const std::set<std::string> before = tasks();
  asks(rrq("three blocks"));
  unit->expects(data(1, noise(512)));
  // A thread's mask is settled once it works: the client's after block 2, Start's with the next request.
  unit->sends(ack(1));
  unit->expects(data(2, noise(1030).substr(512, 512)));
  UdpPeer other;
  asks(other, ack(1));
  other.expects(error(4, ""));
  const std::set<std::string> after = tasks();
  EXPECT_EQ(after.size(), before.size() + 1);
  for (const std::string& task : after) {
    const bool waits_for_requests = before.count(task) != 0 && task != std::to_string(getpid());
    const SignalMask expected = waits_for_requests ? 0 : mask_of({SIGALRM, SIGINT, SIGTERM});
    EXPECT_TRUE(wait_until([&] { return blocked_signals("self/task/" + task) == expected; }));
  }
  unit->sends(ack(2));
  reads_on(3);
  EXPECT_TRUE(thread_ends(1));
}

TEST_F(TftpServerLoop, ReadsSideBySideAreNeverEnteredInTheTable) {
  starts();
  UdpPeer other(kUnitIp);
  asks(rrq("three blocks"));
  unit->expects(data(1, noise(512)));
  asks(other, rrq("file"));
  other.expects(data(1, "contents"));
  EXPECT_TRUE(server->clients.empty());
  other.sends(ack(1));
  unit->sends(ack(1));
  reads_on(2);
  EXPECT_TRUE(thread_ends(1));
  EXPECT_TRUE(thread_ends(2));
}

TEST_F(TftpServerLoop, KeepsTheRecordOfAFinishedReadWithSocketAndFileClosed) {
  starts();
  const int before = open_descriptors();
  serves_client(1);
  EXPECT_EQ(clients_kept(), 1);
  EXPECT_EQ(record(1)->socket_fd, -1);
  EXPECT_EQ(record(1)->input_file, nullptr);
  EXPECT_EQ(record(1)->connected, 0);
  EXPECT_EQ(record(1)->local_port, 33133);
  EXPECT_EQ(open_descriptors(), before);
}

TEST_F(TftpServerLoop, KeepsTheRecordOfAWriteRequestWithSocketAndFileOpen) {
  starts();
  const int before = open_descriptors();
  asks(wrq("new file"));
  unit->expects(ack(0));
  started->ends();
  void* result = this;
  EXPECT_EQ(pthread_join(record(1)->thread, &result), 0);
  EXPECT_EQ(result, nullptr);
  EXPECT_EQ(clients_kept(), 1);
  EXPECT_EQ(bound_to(record(1)->socket_fd), "0.0.0.0:33133");
  ASSERT_NE(record(1)->output_file, nullptr);
  EXPECT_TRUE(record(1)->output_file->is_open());
  EXPECT_EQ(open_descriptors(), before + 2);
}

TEST(ServerClient, HasItsFieldsInOrder) {
  static_assert(std::is_same_v<decltype(ServerClient::connected), std::int32_t>);
  static_assert(std::is_same_v<decltype(ServerClient::request_type), std::int32_t>);
  static_assert(std::is_same_v<decltype(ServerClient::block_number), std::int32_t>);
  static_assert(std::is_same_v<decltype(ServerClient::transfer_state), std::int32_t>);
  static_assert(std::is_same_v<decltype(ServerClient::client_ip), std::string>);
  static_assert(std::is_same_v<decltype(ServerClient::local_port), std::int32_t>);
  static_assert(std::is_same_v<decltype(ServerClient::timeout), std::int32_t>);
  static_assert(std::is_same_v<decltype(ServerClient::block_size), std::int32_t>);
  static_assert(std::is_same_v<decltype(ServerClient::file_size), std::int32_t>);
  static_assert(std::is_same_v<decltype(ServerClient::read_set), fd_set>);
  static_assert(std::is_same_v<decltype(ServerClient::retries), std::int32_t>);
  static_assert(std::is_same_v<decltype(ServerClient::receive_status), std::int32_t>);
  static_assert(std::is_same_v<decltype(ServerClient::socket_fd), std::int32_t>);
  static_assert(std::is_same_v<decltype(ServerClient::client_address), sockaddr_in>);
  static_assert(std::is_same_v<decltype(ServerClient::client_address_length), socklen_t>);
  static_assert(std::is_base_of_v<std::istream, std::remove_pointer_t<decltype(ServerClient::input_file)>>);
  static_assert(std::is_same_v<decltype(ServerClient::output_file), std::ofstream*>);
  static_assert(std::is_same_v<decltype(ServerClient::last_block), bool>);
  static_assert(std::is_same_v<decltype(ServerClient::thread), pthread_t>);
  static_assert(std::is_same_v<decltype(ServerClient::received_packet), TFTP_Packet>);
  static_assert(std::is_same_v<decltype(ServerClient::sent_packet), TFTP_Packet>);
  static_assert(!std::is_copy_constructible_v<ServerClient> && !std::is_copy_assignable_v<ServerClient>);
  const std::unique_ptr<ServerClient> record(new ServerClient);
  const ServerClient& c = *record;
  EXPECT_TRUE(
      ascend({&c.connected,  &c.request_type,   &c.block_number, &c.transfer_state, &c.client_ip,
              &c.local_port, &c.timeout,        &c.block_size,   &c.file_size,      &c.read_set,
              &c.retries,    &c.receive_status, &c.socket_fd,    &c.client_address, &c.client_address_length,
              &c.input_file, &c.output_file,    &c.last_block,   &c.thread,         &c.received_packet,
              &c.sent_packet}));
}

TEST(ServerClient, StartsWithItsDefaults) {
  const std::unique_ptr<ServerClient> client(new ServerClient);
  EXPECT_EQ(client->connected, 0);
  EXPECT_EQ(client->request_type, 0);
  EXPECT_EQ(client->block_number, 0);
  EXPECT_EQ(client->transfer_state, 0);
  EXPECT_EQ(client->client_ip, "");
  EXPECT_EQ(client->local_port, 0);
  EXPECT_EQ(client->timeout, 5);
  EXPECT_EQ(client->block_size, 512);
  EXPECT_EQ(client->file_size, 0);
  EXPECT_EQ(client->retries, 0);
  EXPECT_EQ(client->receive_status, 2);
  EXPECT_EQ(client->socket_fd, -1);
  EXPECT_EQ(client->input_file, nullptr);
  EXPECT_EQ(client->output_file, nullptr);
  EXPECT_FALSE(client->last_block);
}

TEST(ServerClient, ResetEndsWhatItWasDoingAndLeavesTheRest) {
  UsedRecord used;
  ServerClient& client = *used.client;
  client.connected = 1;
  client.request_type = 1;
  client.block_number = 77;
  client.transfer_state = 2;
  client.client_ip = "172.40.0.2";
  client.local_port = 33433;
  client.timeout = 30;
  client.block_size = 1024;
  client.file_size = 4711;
  client.retries = 9;
  client.receive_status = 4;
  client.client_address.sin_port = htons(2000);
  client.client_address_length = 15;
  client.last_block = true;
  client.thread = pthread_self();
  client.received_packet.createACK(5);
  client.sent_packet.createError(1, "gone");
  client.reset();
  EXPECT_EQ(client.connected, 0);
  EXPECT_EQ(client.request_type, 0);
  EXPECT_EQ(client.block_number, 0);
  EXPECT_EQ(client.client_ip, "");
  EXPECT_EQ(client.timeout, 5);
  EXPECT_EQ(client.block_size, 512);
  EXPECT_EQ(client.file_size, 0);
  EXPECT_EQ(client.receive_status, 2);
  EXPECT_FALSE(client.last_block);
  EXPECT_EQ(client.received_packet.size, 0);
  EXPECT_EQ(client.received_packet.getWord(0), 0);
  EXPECT_EQ(client.sent_packet.size, 0);
  EXPECT_EQ(client.sent_packet.getWord(0), 0);
  EXPECT_EQ(client.socket_fd, -1);
  EXPECT_EQ(client.input_file, nullptr);
  EXPECT_EQ(client.output_file, nullptr);
  EXPECT_TRUE(used.torn_down());
  // Left as they were.
  EXPECT_EQ(client.transfer_state, 2);
  EXPECT_EQ(client.retries, 9);
  EXPECT_EQ(client.local_port, 33433);
  EXPECT_EQ(client.client_address.sin_port, htons(2000));
  EXPECT_EQ(client.client_address_length, 15U);
  EXPECT_TRUE(pthread_equal(client.thread, pthread_self()));
  delete &client;
  EXPECT_TRUE(used.torn_down());
}

TEST(ServerClient, ClosesItsSocketAndFilesBeforeItsPackets) {
  const UsedRecord used;
  std::vector<std::string> order;
  delete used.client->output_file;
  used.client->output_file = new TellTale<std::ofstream>(
      [&] { order.push_back(is_open(used.descriptor) ? "output with the socket open" : "output"); });
  used.client->received_packet.reSize(1111);
  used.client->sent_packet.reSize(2222);
  StorageWatch received(1111);
  StorageWatch sent(2222);
  used.client->received_packet.reSize(1112);
  used.client->received_packet.reSize(1111);
  used.client->sent_packet.reSize(2223);
  used.client->sent_packet.reSize(2222);
  received.at_release = [&](void*) { order.emplace_back("received"); };
  sent.at_release = [&](void*) { order.emplace_back("sent"); };
  delete used.client;
  EXPECT_EQ(order, (std::vector<std::string>{"output", "sent", "received"}));
  EXPECT_EQ(used.inputs_destroyed, 1);
}

// One record whose thread body runs on the test's own thread, with a socket that a unit writes to.
class ClientThread : public testing::Test {
 protected:
  ClientThread() {
    sockaddr_in address = socket_address("127.0.0.1", 0);
    socklen_t length = sizeof address;
    client->socket_fd = socket(AF_INET, SOCK_DGRAM, 0);
    bind(client->socket_fd, reinterpret_cast<sockaddr*>(&address), length);
    getsockname(client->socket_fd, reinterpret_cast<sockaddr*>(&address), &length);
    unit.aims_at("127.0.0.1", ntohs(address.sin_port));
    client->client_address = socket_address("127.0.0.1", unit.port());
    client->connected = 1;
    client->request_type = ServerClient::kReadRequest;
    client->transfer_state = ServerClient::kAwaitsAck;
    client->timeout = 1;
  }
  const std::unique_ptr<TFTPServer> server = server_without_messages();
  const std::unique_ptr<ServerClient> client = std::make_unique<ServerClient>();
  UdpPeer unit;
};

TEST_F(ClientThread, EndsAtOnceWhenItsClientIsNotConnected) {
  client->connected = 0;
  unit.sends(error(0, "never read"));
  EXPECT_EQ(ClientProc(client.get()), nullptr);
  char byte;
  EXPECT_EQ(recv(client->socket_fd, &byte, 1, MSG_DONTWAIT | MSG_PEEK), 1);
}

TEST_F(ClientThread, ReceivesBeforeItSends) {
  client->retries = 11;
  unit.sends(data(1, "no ACK"));
  EXPECT_EQ(ClientProc(client.get()), nullptr);
  unit.expects(error(4, "Unexpected packet arrived, you have been disconnected"));
}

TEST_F(ClientThread, EndsWhenSendingEnds) {
  client->retries = 10;
  EXPECT_EQ(printed_by([&] { EXPECT_EQ(ClientProc(client.get()), nullptr); }), "Client timeout\n");
  EXPECT_EQ(client->socket_fd, -1);
}

TEST_F(ClientThread, EndsAtOnceForAWriteRequest) {
  client->request_type = ServerClient::kWriteRequest;
  EXPECT_EQ(ClientProc(client.get()), nullptr);
  EXPECT_TRUE(is_open(client->socket_fd));
  EXPECT_EQ(client->connected, 1);
}

TEST_F(ClientThread, EndsWhenAReceiveDisconnectedItsClientAndWentOn) {
  client->transfer_state = 0;
  unit.sends("");
  EXPECT_EQ(ClientProc(client.get()), nullptr);
  EXPECT_EQ(client->socket_fd, -1);
}

TEST_F(ClientThread, DestroysItsClientOnTheServerThatWasMadeLast) {
  UsedRecord entered;
  const auto newest = server_without_messages();
  server->clients = {entered.client};
  newest->clients = {nullptr, entered.client};
  EXPECT_EQ(ClientProc(entered.client), nullptr);
  EXPECT_TRUE(entered.torn_down());
  EXPECT_EQ(newest->clients, std::vector<ServerClient*>{nullptr});
  EXPECT_EQ(server->clients, std::vector{entered.client});
}
