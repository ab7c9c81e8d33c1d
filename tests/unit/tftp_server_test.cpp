#include "tftp_server/tftp_server.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <iostream>
#include <iterator>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "socket_errors/socket_errors.h"
#include "support/captured_output.h"
#include "support/fault.h"
#include "support/flush_recorder.h"
#include "support/server_under_test.h"

namespace {

// As they stood before the first test.
const bool timeout_flag_at_first = _bTimeoutFlag;
const int client_number_at_first = ServerClient::sClientID;

}  // namespace

TEST(TftpServer, HasItsFieldsInOrder) {
  static_assert(std::is_same_v<decltype(TFTPServer::exit_code), std::int32_t>);
  static_assert(std::is_same_v<decltype(TFTPServer::ppt_port), std::int32_t>);
  static_assert(std::is_same_v<decltype(TFTPServer::ppt_ip), std::string>);
  static_assert(std::is_same_v<decltype(TFTPServer::message_port), std::int32_t>);
  static_assert(std::is_same_v<decltype(TFTPServer::socket_fd), std::int32_t>);
  static_assert(std::is_same_v<decltype(TFTPServer::server_address), sockaddr_in>);
  static_assert(std::is_same_v<decltype(TFTPServer::bind_result), std::int32_t>);
  static_assert(std::is_same_v<decltype(TFTPServer::running), bool>);
  static_assert(std::is_same_v<decltype(TFTPServer::message_server), MessageServer*>);
  static_assert(std::is_same_v<decltype(TFTPServer::clients), std::vector<ServerClient*>>);
  static_assert(std::is_same_v<decltype(TFTPServer::self), TFTPServer*>);
  static_assert(std::is_same_v<decltype(ServerClient::sClientID), std::int32_t>);
  static_assert(std::is_same_v<decltype(&ClientProc), void* (*)(void*)>);
  static_assert(std::is_same_v<decltype(&TimeoutHandler), void (*)(int)>);
  const auto s = new_server();
  EXPECT_TRUE(ascend({&s->exit_code, &s->ppt_port, &s->ppt_ip, &s->message_port, &s->socket_fd,
                      &s->server_address, &s->bind_result, &s->running, &s->message_server, &s->clients}));
}

TEST(TftpServer, CountsNoClientAndNoTimeoutBeforeItStarts) {
  EXPECT_EQ(client_number_at_first, 0);
  EXPECT_FALSE(timeout_flag_at_first);
}

TEST(TftpServer, TakesItsArgumentsAndDoesNotRunYet) {
  std::unique_ptr<TFTPServer> server;
  const std::string printed = printed_by(
      [&] { server = std::make_unique<TFTPServer>(6969, "127.0.0.7", 7069, "172.30.0.254", kMessagePort); });
  EXPECT_EQ(printed, "");
  EXPECT_EQ(server->exit_code, 0);
  EXPECT_EQ(server->ppt_port, 7069);
  EXPECT_EQ(server->ppt_ip, "172.30.0.254");
  EXPECT_EQ(server->message_port, kMessagePort);
  EXPECT_EQ(server->server_address.sin_family, AF_INET);
  EXPECT_EQ(server->server_address.sin_port, htons(6969));
  EXPECT_EQ(server->server_address.sin_addr.s_addr, inet_addr("127.0.0.7"));
  EXPECT_FALSE(server->running);
  ASSERT_NE(server->message_server, nullptr);
  EXPECT_EQ(server->message_server->port, kMessagePort);
  EXPECT_TRUE(server->clients.empty());
  EXPECT_EQ(TFTPServer::self, server.get());
}

TEST(TftpServer, HasADatagramSocketThatIsNotBoundBeforeItStarts) {
  const auto server = new_server("127.0.0.1", "127.0.0.1", 6969);
  EXPECT_EQ(socket_option(server->socket_fd, SOL_SOCKET, SO_TYPE), SOCK_DGRAM);
  EXPECT_EQ(socket_option(server->socket_fd, SOL_SOCKET, SO_DOMAIN), AF_INET);
  EXPECT_EQ(bound_to(server->socket_fd), "0.0.0.0:0");
}

TEST(TftpServer, TakesTheLowSixteenBitsOfItsPort) {
  EXPECT_EQ(new_server("", "", 70000)->server_address.sin_port, htons(4464));
  EXPECT_EQ(new_server("", "", -1)->server_address.sin_port, htons(65535));
}

TEST(TftpServer, KeepsPptAndMessagePortsWhole) {
  const TFTPServer server(0, "", 70001, "", 70002);
  EXPECT_EQ(server.ppt_port, 70001);
  EXPECT_EQ(server.message_port, 70002);
  EXPECT_EQ(server.message_server->port, 70002);
}

TEST(TftpServer, TakesAnEmptyAddressAsEveryAddressAndAnyOtherTextAsItConverts) {
  EXPECT_EQ(new_server("")->server_address.sin_addr.s_addr, INADDR_ANY);
  EXPECT_EQ(new_server("no address")->server_address.sin_addr.s_addr, INADDR_NONE);
}

TEST(TftpServer, ThrowsWithoutASocketBeforeAnythingElseIsMade) {
  const auto earlier = new_server();
  const StorageWatch message_servers(sizeof(MessageServer));
  const Fault no_socket(Call::kSocket, EMFILE);
  std::string what;
  const std::string printed = printed_by([&] {
    try {
      new_server("127.0.0.1", "an address text that needs storage of its own");
    } catch (ETFTPSocketCreate* caught) {
      what = caught->what();
      delete caught;
    }
  });
  EXPECT_EQ(what, "Unable to create a socket");
  EXPECT_EQ(printed, "");
  EXPECT_EQ(TFTPServer::self, earlier.get());
  EXPECT_EQ(message_servers.made(), 0);
}

TEST(TftpServer, MakesItsMessageServiceLast) {
  TFTPServer* const earlier = TFTPServer::self;
  StorageWatch message_servers(sizeof(MessageServer));
  int looked = 0;
  message_servers.before_each = [&] {
    ++looked;
    const TFTPServer* const server = TFTPServer::self;
    ASSERT_NE(server, earlier);
    EXPECT_EQ(server->exit_code, 0);
    EXPECT_FALSE(server->running);
    EXPECT_TRUE(is_open(server->socket_fd));
    EXPECT_EQ(server->server_address.sin_port, htons(6969));
    EXPECT_EQ(server->message_server, nullptr);
  };
  const auto server = new_server("", "", 6969);
  EXPECT_EQ(looked, 1);
  EXPECT_EQ(server->message_server, message_servers.block(1));
}

TEST(TftpServer, WorksOnWithoutAMessageServiceThatCannotBeMade) {
  EXPECT_EQ(server_without_messages()->message_server, nullptr);
  StorageWatch message_servers(sizeof(MessageServer));
  message_servers.before_each = [] { throw std::runtime_error("any standard exception"); };
  EXPECT_EQ(new_server()->message_server, nullptr);
}

TEST(TftpServer, PassesOtherExceptionsOfItsMessageServiceOn) {
  StorageWatch message_servers(sizeof(MessageServer));
  message_servers.before_each = [] { throw 7; };
  EXPECT_THROW(new_server(), int);
}

TEST(SocketErrors, AreStandardExceptionsWithATextOfTheirOwn) {
  static_assert(std::is_base_of_v<std::exception, ETFTPSocketCreate>);
  static_assert(std::is_base_of_v<std::exception, ETFTPSocketBind>);
  static_assert(std::has_virtual_destructor_v<ETFTPSocketCreate>);
  static_assert(std::has_virtual_destructor_v<ETFTPSocketBind>);
  const std::unique_ptr<std::exception> create(new ETFTPSocketCreate);
  EXPECT_STREQ(create->what(), "Unable to create a socket");
}

TEST(SocketErrors, BindReadsTheErrorWhenItIsAskedForTheText) {
  errno = EACCES;
  const std::unique_ptr<std::exception> bind_error(new ETFTPSocketBind);
  errno = EADDRINUSE;
  EXPECT_STREQ(bind_error->what(), "Address already in use");
  errno = ENODEV;
  EXPECT_STREQ(bind_error->what(), "No such device");
}

TEST(TftpServer, ThrowsFromStartWhenItsPortIsTaken) {
  const UdpPeer taker("127.0.0.1");
  const auto server = new_server("127.0.0.1", "127.0.0.1", taker.port());
  signal(SIGALRM, SIG_DFL);
  ETFTPSocketBind* caught = nullptr;
  const std::string printed = printed_by([&] {
    try {
      server->Start();
    } catch (ETFTPSocketBind* thrown) {
      caught = thrown;
    }
  });
  ASSERT_NE(caught, nullptr);
  errno = EADDRINUSE;
  EXPECT_STREQ(caught->what(), "Address already in use");
  delete caught;
  EXPECT_EQ(printed, "");
  EXPECT_EQ(server->bind_result, -1);
  EXPECT_FALSE(server->running);
  EXPECT_FALSE(server->message_server->udp_running);
  EXPECT_FALSE(server->message_server->sending);
  EXPECT_EQ(seconds_until_alarm(), 0);
  EXPECT_EQ(signal(SIGALRM, SIG_DFL), SIG_DFL);
}

TEST(TftpServer, StopsWithoutRecords) {
  const auto server = new_server();
  EXPECT_EQ(printed_by([&] { server->Stop(); }), std::string(kMessageServerShutDown) + kNoConnections);
  EXPECT_EQ(server->message_server, nullptr);
}

TEST(TftpServer, FlushesEachLine) {
  auto server = server_without_messages();
  const FlushRecorder output;
  server->Stop();
  server.reset();
  EXPECT_EQ(output.text(),
            "Stopping server. Active 0 connections\n<flush>"
            "TFTP Server was shut down\n<flush>");
}

TEST(TftpServer, DeletesItsMessageServiceOnce) {
  auto server = new_server();
  server->Stop();
  EXPECT_EQ(printed_by([&] { server->Stop(); }), kNoConnections);
  EXPECT_EQ(printed_by([&] { server.reset(); }), kShutDown);
}

TEST(TftpServer, DeletesItsMessageServiceWithItselfWhenItWasNotStopped) {
  auto server = new_server();
  const int descriptor = server->socket_fd;
  const std::string printed = printed_by([&] { server.reset(); });
  EXPECT_EQ(printed, std::string(kMessageServerShutDown) + kShutDown);
  EXPECT_FALSE(is_open(descriptor));
}

TEST(TftpServer, TakesTheMessageServiceOutOfItsFieldBeforeItDeletesIt) {
  const auto server = new_server();
  StorageWatch messages(sizeof(int) * 1111);
  server->message_server->message = new char[sizeof(int) * 1111];
  int looked = 0;
  messages.at_release = [&](void*) {
    ++looked;
    EXPECT_EQ(server->message_server, nullptr);
  };
  server->Stop();
  EXPECT_EQ(looked, 1);
}

TEST(TftpServer, TearsTheEntriesOfItsTableDownBeforeItStops) {
  const auto server = new_server();
  UsedRecord first;
  UsedRecord last;
  bool had_message_server = false;
  delete last.client->input_file;
  last.client->input_file = new TellTale<std::ifstream>([&] {
    had_message_server = server->message_server != nullptr;
    EXPECT_TRUE(first.torn_down());
  });
  last.inputs_destroyed = 1;
  server->clients = {first.client, nullptr, last.client};
  server->running = true;
  const std::string printed = printed_by([&] { server->Stop(); });
  EXPECT_EQ(printed, "Message Server was shut down\nStopping server. Active 3 connections\n");
  EXPECT_TRUE(first.torn_down());
  EXPECT_TRUE(last.torn_down());
  EXPECT_TRUE(had_message_server);
  EXPECT_TRUE(server->clients.empty());
  EXPECT_TRUE(server->running);
  EXPECT_TRUE(is_open(server->socket_fd));
}

TEST(TftpServer, PrintsTheNumberOfConnectionsAsTheStreamStands) {
  const auto server = server_without_messages();
  server->clients.assign(16, nullptr);
  const std::string printed = printed_by([&] {
    std::cout << std::hex << std::showbase;
    server->Stop();
  });
  EXPECT_EQ(printed, "Stopping server. Active 0x10 connections\n");
}

TEST(TftpServer, LeavesTheRecordsInItsTableAloneWhenDeleted) {
  auto server = new_server();
  const UsedRecord record;
  server->clients = {record.client};
  server.reset();
  EXPECT_TRUE(record.untouched());
  delete record.client;
}

TEST(TftpServer, LivesAnywhere) {
  const CapturedOutput output;
  TFTPServer on_the_stack(0, "127.0.0.1", 69, "127.0.0.1", kMessagePort);
  alignas(TFTPServer) unsigned char storage[sizeof(TFTPServer)];
  auto* const placed = new (storage) TFTPServer(0, "127.0.0.1", 69, "127.0.0.1", kMessagePort);
  EXPECT_EQ(TFTPServer::self, placed);
  placed->~TFTPServer();
  struct Owner {
    TFTPServer server{0, "127.0.0.1", 69, "127.0.0.1", kMessagePort};
  };
  const auto owner = std::make_unique<Owner>();
  EXPECT_EQ(TFTPServer::self, &owner->server);
}

TEST(TftpServer, ReturnsItsStorageAndThatOfItsMessageService) {
  const StorageWatch servers(sizeof(TFTPServer));
  const StorageWatch message_servers(sizeof(MessageServer));
  auto server = new_server();
  server.reset();
  EXPECT_TRUE(servers.released(1));
  EXPECT_TRUE(message_servers.released(1));
}

TEST(TftpServer, IsNotTouchedByAClientsThreadThatOutlivesIt) {
  const CapturedOutput output;
  alignas(TFTPServer) unsigned char storage[sizeof(TFTPServer)];
  auto* const server = new (storage) TFTPServer(0, "127.0.0.1", 69, "127.0.0.1", kMessagePort);
  server->~TFTPServer();
  constexpr unsigned char kPattern = 0xA5;
  std::fill(std::begin(storage), std::end(storage), kPattern);
  ServerClient client;  // of a write request, whose thread ends at once
  client.connected = 1;
  client.request_type = ServerClient::kWriteRequest;
  EXPECT_EQ(ClientProc(&client), nullptr);
  EXPECT_TRUE(std::all_of(std::begin(storage), std::end(storage),
                          [](unsigned char byte) { return byte == kPattern; }));
}

TEST(TftpServer, DestroysTheClientAtTheFrontAndInTheMiddleOfItsTable) {
  const auto server = new_server();
  UsedRecord a, b, c, d;
  server->clients = {a.client, b.client, c.client, d.client};
  server->DestroyClient(c.client);
  EXPECT_EQ(server->clients, (std::vector{a.client, b.client, d.client}));
  EXPECT_TRUE(c.torn_down());
  server->DestroyClient(a.client);
  EXPECT_EQ(server->clients, (std::vector{b.client, d.client}));
  EXPECT_TRUE(a.torn_down());
  EXPECT_TRUE(b.untouched());
  EXPECT_TRUE(d.untouched());
  server->Stop();
}

TEST(TftpServer, DoesNothingToAClientThatIsNotInItsTable) {
  const auto server = new_server();
  UsedRecord entered, other;
  server->clients = {entered.client};
  server->DestroyClient(other.client);
  server->DestroyClient(nullptr);
  EXPECT_EQ(server->clients, std::vector{entered.client});
  EXPECT_TRUE(other.untouched());
  EXPECT_TRUE(entered.untouched());
  delete other.client;
  server->Stop();
}

TEST(TftpServer, TakesANullEntryOutOfItsTable) {
  const auto server = new_server();
  UsedRecord entered;
  server->clients = {nullptr, entered.client, nullptr};
  server->DestroyClient(nullptr);
  EXPECT_EQ(server->clients, (std::vector<ServerClient*>{entered.client, nullptr}));
  EXPECT_TRUE(entered.untouched());
  server->Stop();
}

TEST(TftpServer, SetsTheTimeoutFlagWhenTheAlarmFires) {
  _bTimeoutFlag = false;
  errno = EBADF;
  EXPECT_EQ(printed_by([] { TimeoutHandler(SIGALRM); }), "");
  EXPECT_TRUE(_bTimeoutFlag);
  _bTimeoutFlag = false;
}
