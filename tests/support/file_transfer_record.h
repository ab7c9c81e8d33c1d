#ifndef SUPPORT_FILE_TRANSFER_RECORD_H
#define SUPPORT_FILE_TRANSFER_RECORD_H

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "support/descriptors.h"
#include "support/outcome.h"
#include "support/scratch_directory.h"
#include "support/spoiling_output.h"
#include "support/tftp_bytes.h"
#include "support/udp_peer.h"
#include "support/whole_file.h"
#include "tftp_client/tftp_client.h"

constexpr char kNoFile[] = "(no file)";
inline const std::string kFlush = "<flush>";
constexpr char kTransferStarted[] = "Transfer started\n";

inline std::string times(int count, const std::string& text) {
  std::string result;
  for (int i = 0; i < count; ++i) result += text;
  return result;
}

// The same socket as a peer's, for exchanges of many thousand datagrams: nothing is written down.
class QuickPeer {
 public:
  // Speaks with whoever the peer aims at.
  explicit QuickPeer(const UdpPeer& peer) : descriptor_(peer.descriptor()) {
    sockaddr_in them = socket_address(peer.their_ip(), peer.their_port());
    EXPECT_EQ(connect(descriptor_, as_sockaddr(&them), sizeof them), 0);
  }
  void sends(const std::string& datagram) const { send(descriptor_, datagram.data(), datagram.size(), 0); }
  // The next datagram, or nothing after some seconds.
  std::string receives() {
    pollfd waiting{descriptor_, POLLIN, 0};
    if (poll(&waiting, 1, 10000) != 1) return "nothing";
    const ssize_t count = recv(descriptor_, bytes_, sizeof bytes_, 0);
    return {bytes_, count < 0 ? 0 : static_cast<std::size_t>(count)};
  }

 private:
  int descriptor_;
  char bytes_[1024];
};

// A client in an empty directory and the TFTP server that it is made for: requests reach `server`, and
// `transfer` is the port that the server answers from. What `transfer` sends waits in the client's socket, so
// that a whole exchange can be sent before and looked at afterwards.
class FileTransferTest : public testing::Test {
 protected:
  FileTransferTest() : client("127.0.0.1", server.port()) {
    client.sendBuffer("");
    EXPECT_EQ(server.receives(), "");
    transfer.aims_at("127.0.0.1", server.their_port());
  }

  Outcome downloads(const std::vector<std::string>& replies = {}) {
    for (const std::string& reply : replies) transfer.sends(reply);
    return outcome_of([&] { return client.getFile("boot.img", "local.img"); });
  }
  // Besides, the peer says something when the client reports its nth time-out.
  Outcome downloads(const std::vector<std::string>& replies,
                    const std::map<int, std::string>& after_time_out) {
    for (const std::string& reply : replies) transfer.sends(reply);
    int time_outs = 0;
    const SpoilingOutput output([&](const std::string& piece) {
      if (piece.rfind("ERROR: Select Timeout", 0) != 0) return;
      const auto saying = after_time_out.find(++time_outs);
      if (saying != after_time_out.end()) transfer.sends(saying->second);
    });
    const int result = client.getFile("boot.img", "local.img");
    std::string printed = output.text();
    for (std::size_t at; (at = printed.find(kFlush)) != std::string::npos;) printed.erase(at, kFlush.size());
    return {result, printed};
  }
  Outcome uploads(const std::vector<std::string>& replies = {}) {
    for (const std::string& reply : replies) transfer.sends(reply);
    return outcome_of([&] { return client.sendFile("local.img", "a"); });
  }

  // What was printed and what reached the peers, in the order in which it happened.
  std::string events_of(const std::function<int()>& operation) {
    std::string events;
    const auto note_datagrams = [&] {
      for (UdpPeer* peer : {&server, &transfer}) {
        while (const auto datagram = peer->receives(std::chrono::milliseconds(0))) {
          events += event(*datagram);
        }
      }
    };
    const SpoilingOutput output([&](const std::string& piece) {
      note_datagrams();
      if (piece != kFlush) events += piece;
    });
    const int result = operation();
    note_datagrams();
    return events + "result " + std::to_string(result);
  }
  static std::string event(const std::string& datagram) { return "-> " + tftp::in_words(datagram) + "\n"; }

  // Exactly these datagrams have come and no other.
  static void expects_all(UdpPeer& peer, const std::vector<std::string>& datagrams) {
    for (const std::string& datagram : datagrams) peer.expects(datagram, std::chrono::seconds(1));
    peer.expects_nothing(std::chrono::milliseconds(20));
  }
  void expects_request() {
    expects_all(server, {tftp::rrq("boot.img", {{"timeout", "5"}, {"blksize", "512"}, {"tsize", "0"}})});
  }
  void expects_acks(const std::vector<int>& blocks) {
    std::vector<std::string> acks;
    for (int block : blocks) acks.push_back(tftp::ack(block));
    expects_all(transfer, acks);
  }

  std::string local_file() const {
    const std::string path = directory.file("local.img");
    return std::filesystem::exists(path) ? whole_file(path) : kNoFile;
  }
  void has_local_file(const std::string& contents) const {
    write_whole_file(directory.file("local.img"), contents);
  }

  static std::string time_outs(int count) { return times(count, "ERROR: Select Timeout. File: boot.img\n"); }
  // What is printed when the server has gone silent.
  static std::string silence(int time_out_count) {
    return time_outs(time_out_count) + "Connection timeout\n";
  }
  static std::string mismatch(int expected, int received) {
    return "Block number mismatch. Last_packet=" + std::to_string(expected) +
           " From server = " + std::to_string(received) + "\n";
  }

  ScratchDirectory directory;
  UdpPeer server;
  UdpPeer transfer;
  TFTPClient client;
};

#endif
