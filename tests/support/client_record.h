#ifndef SUPPORT_CLIENT_RECORD_H
#define SUPPORT_CLIENT_RECORD_H

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>
#include <cstring>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "sockets/sockets.h"
#include "support/captured_output.h"
#include "support/descriptors.h"
#include "support/outcome.h"
#include "support/scratch_directory.h"
#include "support/tftp_bytes.h"
#include "support/udp_peer.h"
#include "tftp_server/tftp_server.h"

// What ProcessRequest's result says.
inline Outcome accepted(const std::string& printed) {
  return {1, printed};
}

inline Outcome refused(const std::string& printed) {
  return {0, printed};
}

// Long enough for a datagram that was sent by mistake.
constexpr std::chrono::milliseconds kShortWhile(50);

// Printed lines as FlushRecorder shows them when each was flushed.
inline std::string with_flushes(const std::string& lines) {
  std::string result;
  for (char character : lines)
    result += character == '\n' ? std::string("\n<flush>") : std::string(1, character);
  return result;
}

inline std::string contents_of(const TFTP_Packet& packet) {
  return {reinterpret_cast<const char*>(packet.data), static_cast<std::size_t>(packet.size)};
}

// A client's record as the main loop makes it, in a server that is not started, in an empty directory. The
// record's socket is on the loopback interface. Its packets go to `unit`, and what `unit` sends waits there.
class ClientRecordTest : public testing::Test {
 protected:
  static constexpr char kLoopback[] = "127.0.0.1";
  static constexpr int kRequestCapacity = 512;

  ClientRecordTest() {
    const CapturedOutput unseen;
    server.emplace(0, kLoopback, ppt_server.port(), kLoopback, kMessagePort);
    server->running = true;
    record.received_packet.reSize(kRequestCapacity);
    record.sent_packet.reSize(kRequestCapacity);
    record.local_port = 33133;
    record.connected = 1;
    record.client_ip = kLoopback;
    record.socket_fd = socket(AF_INET, SOCK_DGRAM, 0);
    record.client_address = loopback(0);
    socklen_t length = sizeof(sockaddr_in);
    if (bind(record.socket_fd, as_sockaddr(&record.client_address), length) != 0 ||
        getsockname(record.socket_fd, as_sockaddr(&record.client_address), &length) != 0) {
      throw std::runtime_error("no socket on the loopback interface");
    }
    unit.aims_at(kLoopback, ntohs(record.client_address.sin_port));
    record.client_address = loopback(unit.port());
    record.client_address_length = length;
    is_prepared();
  }

  ~ClientRecordTest() override {
    const sockaddr_in units = loopback(unit.port());
    EXPECT_EQ(std::memcmp(&record.client_address, &units, sizeof units), 0);
    EXPECT_EQ(record.client_address_length, sizeof units);
    const CapturedOutput unseen;
    server.reset();
  }

  // Puts the datagram into the record as its request.
  void is_asked(const std::string& datagram) {
    std::memcpy(record.received_packet.getData(0), datagram.data(), datagram.size());
    record.received_packet.setSize(static_cast<int>(datagram.size()));
  }

  Outcome processes(const std::string& datagram) {
    is_asked(datagram);
    return outcome_of([this] { return server->ProcessRequest(&record); });
  }

  // The unit reads a file to its end, while the server serves it on a thread of its own. Nothing when that
  // went wrong.
  std::optional<std::string> reads(const std::string& request) {
    const CapturedOutput output;
    std::thread serving([this] {
      char bytes[kRequestCapacity];
      const ssize_t count = recv(record.socket_fd, bytes, sizeof bytes, 0);
      is_asked(std::string(bytes, static_cast<std::size_t>(count)));
      if (server->ProcessRequest(&record) != 0) ClientProc(&record);
    });
    std::optional<std::string> contents = read_by_tftp(unit, request);
    serving.join();
    printed_in_reading = output.text();
    return contents;
  }

  // Gives every field that a reset touches another value.
  void has_been_used() {
    record.receive_status = 4;
    record.block_number = 9;
    record.last_block = true;
    record.file_size = 7;
    record.timeout = 9;
    record.block_size = 99;
    record.retries = 3;
    record.transfer_state = 2;
    is_prepared();
  }

  // From here on, `changes` compares with the record as it is now.
  void is_prepared() { prepared_ = fields(); }

  // The fields that are not as the test prepared them, with what they are now: "block_number 1, last_block
  // 1". Packets are size/capacity.
  std::string changes() const { return changes_from(prepared_); }
  // The same of a record that was disconnected meanwhile, besides what that changes.
  std::string changes_besides_disconnect() const {
    Fields reset = prepared_;
    for (auto& [name, value] : reset) {
      const auto to = kAfterReset.find(name);
      if (to != kAfterReset.end()) value = to->second;
      if (name == "received_packet" || name == "sent_packet") value.replace(0, value.find('/'), "0");
    }
    return changes_from(reset);
  }

  static sockaddr_in loopback(int port) { return ipv4_address(htonl(INADDR_LOOPBACK), port); }

  static constexpr int kMessagePort = 12000;

  ScratchDirectory directory;
  UdpPeer unit;
  UdpPeer ppt_server;
  std::optional<TFTPServer> server;
  ServerClient record;
  std::string printed_in_reading;

 private:
  using Fields = std::vector<std::pair<std::string, std::string>>;
  // Of transfer_state, retries, local_port and the capacities of the packets, a reset changes nothing.
  inline static const std::map<std::string, std::string> kAfterReset = {
      {"connected", "0"},  {"request_type", "0"},  {"block_number", "0"},   {"client_ip", ""},
      {"timeout", "5"},    {"block_size", "512"},  {"file_size", "0"},      {"receive_status", "2"},
      {"socket_fd", "-1"}, {"input_file", "none"}, {"output_file", "none"}, {"last_block", "0"}};

  static std::string in_words(const TFTP_Packet& packet) {
    return std::to_string(packet.size) + "/" + std::to_string(packet.max_size);
  }
  // Every field but the address, which never changes, and the wait's scratch.
  Fields fields() const {
    const auto number = [](auto value) { return std::to_string(value); };
    const auto file = [](const void* pointer) { return pointer == nullptr ? "none" : "open"; };
    return {{"connected", number(record.connected)},
            {"request_type", number(record.request_type)},
            {"block_number", number(record.block_number)},
            {"transfer_state", number(record.transfer_state)},
            {"client_ip", record.client_ip},
            {"local_port", number(record.local_port)},
            {"timeout", number(record.timeout)},
            {"block_size", number(record.block_size)},
            {"file_size", number(record.file_size)},
            {"retries", number(record.retries)},
            {"receive_status", number(record.receive_status)},
            {"socket_fd", number(record.socket_fd)},
            {"input_file", file(record.input_file)},
            {"output_file", file(record.output_file)},
            {"last_block", number(record.last_block)},
            {"thread", number(record.thread)},
            {"received_packet", in_words(record.received_packet)},
            {"sent_packet", in_words(record.sent_packet)}};
  }
  std::string changes_from(const Fields& before) const {
    const Fields now = fields();
    std::string result;
    for (std::size_t i = 0; i < now.size(); ++i) {
      if (now[i] != before[i]) result += (result.empty() ? "" : ", ") + now[i].first + " " + now[i].second;
    }
    return result;
  }

  Fields prepared_;
};

#endif
