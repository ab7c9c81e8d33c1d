#ifndef SUPPORT_STATION_H
#define SUPPORT_STATION_H

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "stage/network_namespace.h"
#include "support/daemon.h"
#include "support/interleaving.h"
#include "support/sandbox.h"
#include "support/scratch_directory.h"
#include "support/tcp_peer.h"
#include "support/test_network.h"
#include "support/tftp_bytes.h"
#include "support/udp_peer.h"

// A test station with a directory of files, and the daemon as its operator starts it. Make one per test, in a
// test that began with NEEDS_SANDBOX().
namespace station {

// What its tests speak of besides.
using namespace tftp;
using std::chrono::milliseconds;

inline constexpr int kTftpPort = 69;
inline constexpr int kMessagePort = 12345;

// What the daemon prints.
inline constexpr char kServing[] = "Server started , waiting for connections\n";
inline constexpr char kNoSender[] =
    "Can't get ioctl answer because of : No such device\n"
    "Error: Failed to initialize sender\n";
inline constexpr char kRelayHasNoAddress[] = "UDP: ERROR on binding. Cannot assign requested address\n";
inline constexpr char kSenderStopped[] = "Sender proc stopped!!!\n";
inline constexpr char kReceiverStopped[] = "Receiver proc stopped!!!\n";
inline constexpr char kMessageServerGone[] = "Message Server was shut down\n";
inline constexpr char kServerGone[] =
    "Stopping server. Active 0 connections\n"
    "TFTP Server was shut down\n";

inline std::string starting(const std::string& ip, int port = kTftpPort,
                            const std::string& ppt_ip = TestNetwork::kPptServer) {
  return "Starting TFTP server on " + ip + ":" + std::to_string(port) + " PPT Server: " + ppt_ip + "\n";
}

inline std::string sender_ready(int port = kMessagePort) {
  return std::string("Message Sender initialized. IP: ") + TestNetwork::kBroadcast +
         " Port=" + std::to_string(port) + "\n";
}

// What the station broadcasts to the unit.
inline std::string boot_script(int message_port = kMessagePort) {
  return "ZIRN install boot script\r\nsetenv msgport " + std::to_string(message_port) +
         "\r\n#setaddr 172.40.0.1\r\nsetenv ppt_flag 1\r\nsave\r\ntftp 46000000 bootscript.txt\r\n#ifint\r\n"
         "#netstate\r\n4\r\n\treset\r\n#endif\r\ntftp 45000000 F_l_m_t_Bootstrap_loading\r\ninst 46000000\r\n"
         "#endscript\r\n" +
         std::string(1, '\0');
}

// Lines of the daemon's last moments, where the worker threads' own come among those of the main thread.
inline void expect_output(const Daemon& daemon, const std::string& before, const std::string& main_thread,
                          const std::vector<std::string>& workers) {
  const std::string output = daemon.output();
  EXPECT_EQ(output.substr(0, before.size()), before);
  std::vector<std::string> threads = workers;
  threads.push_back(main_thread);
  const std::string end = output.substr(std::min(before.size(), output.size()));
  EXPECT_TRUE(is_interleaving(end, threads)) << "the end is:\n" << end;
  EXPECT_EQ(daemon.errors(), "");
}

// The station without its test network: only loopback reaches it.
class OnLoopback {
 public:
  // Whether the relay finds the address that it listens on. A relay that runs keeps a processor busy after
  // its first two seconds, so that tests that wait long go without it.
  enum class Relay { kRuns, kHasNoAddress };

  explicit OnLoopback(const std::vector<std::string>& arguments = {}, Relay relay = Relay::kRuns)
      : relay_(relay) {
    if (relay_ == Relay::kRuns) ip("address add 172.40.0.1/32 dev lo");
    daemon = std::make_unique<Daemon>(arguments);
    EXPECT_TRUE(daemon->serves());
    wait_for_the_end_of_the_start();
  }
  ~OnLoopback() {
    daemon.reset();
    if (relay_ == Relay::kRuns) ip("address del 172.40.0.1/32 dev lo");
  }
  OnLoopback(const OnLoopback&) = delete;
  OnLoopback& operator=(const OnLoopback&) = delete;

  // A client on a port that the daemon never takes for itself.
  UdpPeer client(int port = 2001, int server_port = kTftpPort) const {
    UdpPeer peer("127.0.0.1", port);
    peer.aims_at("127.0.0.1", server_port);
    return peer;
  }
  // A client that has sent this request.
  UdpPeer asks(const std::string& request) const {
    UdpPeer peer = client();
    peer.sends(request);
    return peer;
  }

  void serves_the_next_client() const {
    write_whole_file("next", "served");
    UdpPeer next = client(2002);
    EXPECT_EQ(read_by_tftp(next, tftp::rrq("next")), "served");
  }

  // Ends it, after it has served one more client; the lines are all that it printed while it served.
  void printed(const std::string& lines) const {
    serves_the_next_client();
    ends_by(SIGTERM, lines + "RRQ next\n");
  }
  // The signal ends it, and its number is the status; the lines are all that it printed while it served.
  void ends_by(int signal_number, const std::string& lines) const {
    daemon->gets_signal(signal_number);
    has_ended(signal_number, lines);
  }
  void has_ended(int status, const std::string& lines) const {
    EXPECT_EQ(daemon->exit_status(), status);
    has_printed(lines + kMessageServerGone + kServerGone);
  }
  void has_printed(const std::string& since_start) const {
    const std::string begin = starting("127.0.0.1") + kServing;
    if (relay_ == Relay::kRuns) {
      EXPECT_EQ(daemon->output(), begin + kNoSender + since_start);
      EXPECT_EQ(daemon->errors(), "");
    } else {
      expect_output(*daemon, begin, kNoSender + since_start, {kRelayHasNoAddress});
    }
  }

  ScratchDirectory files;
  std::unique_ptr<Daemon> daemon;

 private:
  // Both threads have said then what they say at the start.
  void wait_for_the_end_of_the_start() const {
    std::vector<std::string> threads = {kNoSender};
    if (relay_ != Relay::kRuns) threads.push_back(kRelayHasNoAddress);
    EXPECT_TRUE(wait_until([&] {
      const std::string output = daemon->output();
      return is_interleaving(output.substr(output.find(kServing) + sizeof kServing - 1), threads);
    })) << "the start did not end";
  }

  Relay relay_;
};

// The station in its test network. The daemon listens on the address that the unit knows.
class InNetwork {
 public:
  explicit InNetwork(const std::vector<std::string>& more_arguments = {}) {
    std::vector<std::string> arguments = {"-o", TestNetwork::kStation};
    arguments.insert(arguments.end(), more_arguments.begin(), more_arguments.end());
    start = [arguments] { return std::make_unique<Daemon>(arguments); };
  }

  // Starts the daemon and waits until the unit hears the boot script. The links have been used by then, so
  // that nothing has to wait for an address to be found out.
  void boots() {
    exchange(unit(), TestNetwork::kStation);
    exchange(ppt_server(0), "172.30.0.1");
    UdpPeer radio = unit(kMessagePort, "0.0.0.0");
    daemon = start();
    radio.expects(boot_script());
  }

  UdpPeer unit(int port = 0, const std::string& ip = TestNetwork::kUnit) const {
    return peer([&](const std::function<void()>& make) { network.at_unit(make); }, ip, port,
                TestNetwork::kStation, kTftpPort);
  }
  UdpPeer ppt_server(int port = kTftpPort) const {
    return peer([&](const std::function<void()>& make) { network.at_ppt_server(make); },
                TestNetwork::kPptServer, port, "172.30.0.1", kTftpPort);
  }
  // The unit sends a text that is no command to the command receiver, so that it comes back.
  void receiver_answers(int message_port = kMessagePort) const {
    network.at_unit([&] { TcpPeer(TestNetwork::kStation, message_port).asks("hello", "hello"); });
  }
  static std::string start_lines() { return starting(TestNetwork::kStation) + kServing + sender_ready(); }
  // The unit reads a name; nothing is in the file.
  void unit_reads_verdict(const std::string& name) const {
    UdpPeer reader = unit();
    reader.sends(tftp::rrq(name));
    reader.expects(tftp::data(1, ""));
  }

  ScratchDirectory files;
  TestNetwork network;
  std::function<std::unique_ptr<Daemon>()> start;
  std::unique_ptr<Daemon> daemon;

 private:
  static void exchange(UdpPeer far, const std::string& near_ip) {
    UdpPeer near(near_ip);
    far.aims_at(near_ip, near.port());
    for (int tries = 0; tries < 50; ++tries) {
      far.sends("there");
      if (!near.receives(milliseconds(100))) continue;
      near.sends("and back");
      if (far.receives(milliseconds(2000))) return;
    }
    ADD_FAILURE() << "no link to " << near_ip;
  }
  template <typename Place>
  static UdpPeer peer(Place at_place, const std::string& ip, int port, const std::string& their_ip,
                      int their_port) {
    std::unique_ptr<UdpPeer> made;
    at_place([&] { made = std::make_unique<UdpPeer>(ip, port); });
    made->aims_at(their_ip, their_port);
    return std::move(*made);
  }
};

}  // namespace station

#endif
