#ifndef SUPPORT_SERVER_UNDER_TEST_H
#define SUPPORT_SERVER_UNDER_TEST_H

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <utility>

#include "support/descriptors.h"
#include "support/process_state.h"
#include "support/sandbox.h"
#include "support/scratch_directory.h"
#include "support/started_server.h"
#include "support/storage_watch.h"
#include "support/tftp_bytes.h"
#include "support/threads.h"
#include "support/udp_peer.h"
#include "tftp_server/tftp_server.h"

// What the tests of the server and of its client records share. One file of a program may include it.

inline constexpr char kStarted[] = "Server started , waiting for connections\n";
inline constexpr char kShutDown[] = "TFTP Server was shut down\n";
inline constexpr char kMessageServerShutDown[] = "Message Server was shut down\n";
inline constexpr char kNoConnections[] = "Stopping server. Active 0 connections\n";
inline constexpr char kSenderInitialized[] = "Message Sender initialized. IP: 172.40.0.255 Port=4000\n";
inline constexpr int kMessagePort = 4000;

// Whether each is above the one before it.
inline bool ascend(std::initializer_list<const volatile void*> addresses) {
  return std::adjacent_find(addresses.begin(), addresses.end(), std::greater_equal<>()) == addresses.end();
}

// A stream that notes its destruction.
template <typename Stream>
struct TellTale : Stream {
  explicit TellTale(std::function<void()> note) : at_destruction(std::move(note)) {}
  ~TellTale() override { at_destruction(); }
  std::function<void()> at_destruction;
};

// A record with a socket and both files, and what became of them.
struct UsedRecord {
  ServerClient* client = new ServerClient;
  int descriptor = open("/dev/null", O_RDONLY | O_CLOEXEC);
  int inputs_destroyed = 0;
  int outputs_destroyed = 0;

  UsedRecord() {
    client->socket_fd = descriptor;
    client->input_file = new TellTale<std::ifstream>([this] { ++inputs_destroyed; });
    client->output_file = new TellTale<std::ofstream>([this] { ++outputs_destroyed; });
  }
  bool torn_down() const { return !is_open(descriptor) && inputs_destroyed == 1 && outputs_destroyed == 1; }
  bool untouched() const { return is_open(descriptor) && inputs_destroyed == 0 && outputs_destroyed == 0; }
};

// A server that listens on a port that the system chooses.
inline std::unique_ptr<TFTPServer> new_server(const std::string& ip = "127.0.0.1",
                                              const std::string& ppt_ip = "127.0.0.1", int port = 0) {
  return std::make_unique<TFTPServer>(port, ip, 7069, ppt_ip, kMessagePort);
}

inline std::unique_ptr<TFTPServer> server_without_messages(const std::string& ip = "127.0.0.1",
                                                           int port = 0) {
  StorageWatch message_servers(sizeof(MessageServer));
  message_servers.before_each = [] { throw std::bad_alloc(); };
  return new_server(ip, "127.0.0.1", port);
}

// A server that runs on a thread of its own in the sandbox, and what the tests ask it from outside.
class TftpServerLoop : public testing::Test {
 protected:
  static constexpr char kUnitIp[] = "127.0.0.5";

  void SetUp() override {
    NEEDS_SANDBOX();
    signal(SIGALRM, SIG_DFL);
    alarm(0);
    _bTimeoutFlag = false;
    ServerClient::sClientID = 0;
    unit = std::make_unique<UdpPeer>(kUnitIp);
    write_whole_file("file", "contents");
    write_whole_file("three blocks", noise(1030));
  }
  void TearDown() override {
    started.reset();
    alarm(0);
    _bTimeoutFlag = false;
    ServerClient::sClientID = 0;
  }

  // Most tests need no message service.
  void starts() { starts(server_without_messages()); }
  void starts(std::unique_ptr<TFTPServer> new_one) {
    server = std::move(new_one);
    started = std::make_unique<StartedServer>(*server);
    started->port();
  }
  // Each request goes to the listening port.
  void asks(const std::string& request) { asks(*unit, request); }
  void asks(UdpPeer& peer, const std::string& request, const std::string& ip = "127.0.0.1") {
    peer.aims_at(ip, started->port());
    peer.sends(request);
  }
  // The server takes requests: this one's number is n. Its thread is over afterwards.
  void serves_client(int n) {
    asks(tftp::rrq("file"));
    ASSERT_TRUE(unit->expects(tftp::data(1, "contents")));
    EXPECT_EQ(unit->their_port(), 33033 + 100 * n);
    unit->sends(tftp::ack(1));
    EXPECT_TRUE(thread_ends(number_of_record_on(33033 + 100 * n)));
  }
  // The contents of "three blocks", from a block on, to its end.
  void reads_on(int block) {
    const std::string contents = noise(1030);
    for (; block <= 3; ++block) {
      const std::size_t offset = 512 * (static_cast<std::size_t>(block) - 1);
      unit->expects(tftp::data(block, contents.substr(offset, 512)));
      unit->sends(tftp::ack(block));
    }
  }
  // A plain request that is answered by nothing.
  void asks_in_vain() {
    asks(tftp::rrq("file"));
    unit->expects_nothing(std::chrono::milliseconds(300));
  }
  // The record of the nth request, which stands still when its thread is not created.
  ServerClient* record(int n) const { return static_cast<ServerClient*>(records.block(n)); }
  int number_of_record_on(int local_port) const {
    int n = records.made();
    while (n > 1 && (records.released(n) || record(n)->local_port != local_port)) --n;
    return n;
  }
  // The records of clients that were not released. The one that waits for its datagram has no port yet.
  int clients_kept() const {
    int kept = 0;
    for (int n = 1; n <= records.made(); ++n) {
      if (!records.released(n) && (record(n)->local_port - 33033) % 100 == 0) ++kept;
    }
    return kept;
  }
  // Whether the nth client's transfer and thread end. The handle was stored, the thread is not detached, and
  // its result is null.
  bool thread_ends(int n) const {
    if (!wait_until([&] { return record(n)->socket_fd == -1; })) return false;
    void* result = records.block(n);
    return pthread_join(record(n)->thread, &result) == 0 && result == nullptr;
  }

  ScratchDirectory directory;
  StorageWatch records{sizeof(ServerClient), StorageWatch::kOtherThreads};
  std::unique_ptr<TFTPServer> server;
  std::unique_ptr<UdpPeer> unit;
  std::unique_ptr<StartedServer> started;
};

#endif
