#include <cstdio>
#include <fstream>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "decimal_number/decimal_number.h"
#include "tftp_client/tftp_client.h"

namespace {

constexpr int kHeaderSize = TFTP_Packet::kHeaderSize;
constexpr int kDefaultWaitSeconds = TFTPClient::kDefaultTimeout;
constexpr int kMaxTimeOuts = 9;
constexpr int kRequestCapacity = 1024;
// One header more than a packet takes: refused, so that the capacity stays (known behaviour 30).
constexpr int kReplyCapacity = TFTP_Packet::kMaxSize + kHeaderSize;
constexpr int kUploadBlockSize = 512;
constexpr char kTransferStarted[] = "Transfer started\n";

// One download. Each step returns its result when it ends the download, and nothing when it goes on.
class Download {
 public:
  using Result = std::optional<int>;

  Download(TFTPClient& client, const std::string& remote_name, const std::string& local_path)
      : client_(client),
        remote_name_(remote_name),
        local_path_(local_path),
        file_(local_path, std::ios::binary | std::ios::trunc) {}

  int run() {
    send_request();
    client_.received_packet.reSize(kReplyCapacity);
    for (;;) {
      const Result result = take_reply(client_.waitForPacketData(wait_seconds_));
      if (result) return *result;
    }
  }

 private:
  void send_request() {
    TFTP_Packet request;
    request.reSize(kRequestCapacity);
    request.createRRQ(
        remote_name_,
        {TFTP_Packet::kTimeoutOption, TFTP_Packet::kBlockSizeOption, TFTP_Packet::kTransferSizeOption},
        {std::to_string(client_.timeout), std::to_string(client_.block_size), "0"});
    client_.sendPacket(&request);
  }

  Result take_reply(int wait_result) {
    if (wait_result == TFTPClient::kErrorPacket) return give_up();
    if (wait_result == TFTPClient::kTimeOut) return take_time_out();
    // A failed wait or receive goes on with what the packet holds (known behaviour 29).
    return awaits_first_reply_ ? take_first_reply() : take_block();
  }

  Result take_time_out() {
    std::cout << "ERROR: Select Timeout. File: " << remote_name_ << std::endl;
    ++time_outs_;
    if (awaits_first_reply_ || time_outs_ > kMaxTimeOuts) {
      std::cout << "Connection timeout" << std::endl;
      return give_up();
    }
    client_.sendPacket(&acknowledgement_);
    wait_seconds_ = client_.timeout;
    return {};
  }

  Result take_first_reply() {
    std::vector<std::string> names;
    std::vector<std::string> values;
    if (client_.received_packet.isOACK(names, values)) {
      if (names.size() == values.size()) take_options(names, values);
      make_room_for_block();
      acknowledge(0);
      begin();
      return {};
    }
    if (client_.received_packet.isData()) {
      client_.timeout = TFTPClient::kDefaultTimeout;
      client_.block_size = TFTP_Packet::kDefaultBlockSize;
      begin();
    } else if (client_.received_packet.isError()) {
      return finish();
    }
    return take_block();
  }

  void take_options(const std::vector<std::string>& names, const std::vector<std::string>& values) {
    for (std::size_t i = 0; i < names.size(); ++i) {
      if (names[i] == TFTP_Packet::kTimeoutOption) client_.timeout = decimal_number(values[i].c_str());
      if (names[i] == TFTP_Packet::kBlockSizeOption) client_.block_size = decimal_number(values[i].c_str());
      if (names[i] == TFTP_Packet::kTransferSizeOption)
        std::cout << "Remote file is " << values[i] << " byte" << std::endl;
    }
  }

  Result take_block() {
    const int number = client_.received_packet.getNumber();
    if (number != expected_block_) {
      std::cout << "Block number mismatch. Last_packet=" << expected_block_ << " From server = " << number
                << std::endl;
    } else {
      const int length = client_.received_packet.size - kHeaderSize;
      if (length > 0)
        file_.write(reinterpret_cast<char*>(client_.received_packet.getData(kHeaderSize)), length);
      const bool is_short = length < client_.block_size;
      if (acknowledge(number) != 0 && is_short) return finish();
      expected_block_ = (expected_block_ + 1) % TFTP_Packet::kBlockNumbers;
      time_outs_ = 0;
    }
    make_room_for_block();
    wait_seconds_ = awaits_first_reply_ ? kDefaultWaitSeconds : client_.timeout;
    return {};
  }

  void begin() {
    std::cout << kTransferStarted;
    awaits_first_reply_ = false;
    wait_seconds_ = client_.timeout;
  }

  int acknowledge(int block) {
    acknowledgement_.createACK(block);
    return client_.sendPacket(&acknowledgement_);
  }

  // What is too large for a packet is refused by it, and the capacity stays.
  void make_room_for_block() {
    if (client_.block_size > TFTP_Packet::kMaxSize) return;
    client_.received_packet.reSize(client_.block_size + kHeaderSize);
  }

  int give_up() {
    file_.close();
    std::remove(local_path_.c_str());
    return 0;
  }

  int finish() {
    file_.close();
    return 1;
  }

  TFTPClient& client_;
  const std::string& remote_name_;
  const std::string& local_path_;
  std::ofstream file_;
  TFTP_Packet acknowledgement_;  // always the last one sent; never filled before the first
  int expected_block_ = 1;
  bool awaits_first_reply_ = true;
  int time_outs_ = 0;  // since the last block that was taken
  int wait_seconds_ = kDefaultWaitSeconds;
};

}  // namespace

int TFTPClient::getFile(const std::string& remote_name, const std::string& local_path) {
  return Download(*this, remote_name, local_path).run();
}

int TFTPClient::sendFile(const std::string& local_path, const std::string& remote_name) {
  std::ifstream file(local_path, std::ios::binary);
  if (!file.is_open() || !file.good()) {
    std::cout << "Unable to open file " << local_path << std::endl;
    return 0;
  }
  TFTP_Packet request;
  request.createWRQ(remote_name);
  request.dumpData();
  sendPacket(&request);
  TFTP_Packet data;
  for (int block = 0;;) {
    if (waitForPacketACK(block, kDefaultWaitSeconds) == 0) {
      // It sent an ERROR (known behaviour 31).
      std::cout << "Server has timed out" << std::endl;
      return 0;
    }
    char bytes[kUploadBlockSize];
    file.read(bytes, sizeof bytes);
    ++block;
    data.createData(block, bytes, static_cast<int>(file.gcount()));
    sendPacket(&data);
    // What cannot be read, like a directory, never reaches its end (known behaviour 32).
    if (file.eof()) return 1;
  }
}
