#ifndef SUPPORT_CLIENT_RECORD_H
#define SUPPORT_CLIENT_RECORD_H

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>
#include <cstring>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>

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
  }

  // The record in words; packets as size/capacity.
  std::string fields() const {
    std::ostringstream words;
    words << "connected " << record.connected << " type " << record.request_type << " block "
          << record.block_number << " state " << record.transfer_state << " timeout " << record.timeout
          << " blksize " << record.block_size << " tsize " << record.file_size << " retries "
          << record.retries << " status " << record.receive_status << " received "
          << record.received_packet.size << "/" << record.received_packet.max_size << " sent "
          << record.sent_packet.size << "/" << record.sent_packet.max_size << " port " << record.local_port
          << " ip [" << record.client_ip << "]" << (record.last_block ? " last" : "")
          << (record.socket_fd != -1 ? " socket" : "") << (record.input_file != nullptr ? " input" : "")
          << (record.output_file != nullptr ? " output" : "");
    return words.str();
  }

  // The same after a disconnect, which keeps the state, the retries and the capacities.
  std::string disconnected(int state, int retries, int received_capacity = kRequestCapacity,
                           int sent_capacity = kRequestCapacity) const {
    return "connected 0 type 0 block 0 state " + std::to_string(state) +
           " timeout 5 blksize 512 tsize 0 retries " + std::to_string(retries) + " status 2 received 0/" +
           std::to_string(received_capacity) + " sent 0/" + std::to_string(sent_capacity) +
           " port 33133 ip []";
  }

  static sockaddr_in loopback(int port) { return ipv4_address(htonl(INADDR_LOOPBACK), port); }

  static constexpr int kMessagePort = 12000;

  ScratchDirectory directory;
  UdpPeer unit;
  UdpPeer ppt_server;
  std::optional<TFTPServer> server;
  ServerClient record;
  std::string printed_in_reading;
};

#endif
