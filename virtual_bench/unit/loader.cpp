#include "unit/loader.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string_view>
#include <vector>

#include "sockets/sockets.h"
#include "tftp_packet/tftp_packet.h"

namespace {

using Clock = std::chrono::steady_clock;
using Habit = scenario::Habit;
using AtEmptyFile = Habit::AtEmptyFile;

enum Opcode { kReadRequest = 1, kData = 3, kAck = 4, kError = 5, kOack = 6 };
constexpr std::size_t kLongestDatagram = 65536;  // bytes
constexpr std::size_t kHeader = 4;               // bytes before a block's data
constexpr std::size_t kOpcodeBytes = 2;
constexpr std::size_t kUsualBlock = 512;    // bytes
constexpr std::size_t kLongestError = 260;  // bytes of an ERROR packet that are read
constexpr unsigned kBlockNumbers = 65536;
constexpr char kNoValue[] = "-";

std::string word(unsigned number) {
  return {static_cast<char>(number >> 8), static_cast<char>(number)};
}

unsigned word_at(std::string_view bytes, std::size_t place) {
  return static_cast<unsigned char>(bytes[place]) * 256U + static_cast<unsigned char>(bytes[place + 1]);
}

Clock::duration as_duration(double seconds) {
  return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

std::string request_bytes(const ReadRequest& request) {
  std::string bytes = word(kReadRequest) + request.name + '\0' + TFTP_Packet::kMode + '\0';
  std::istringstream options{std::string(request.habit->options)};
  for (std::string name, value; options >> name >> value;) {
    const auto& own = name == TFTP_Packet::kBlockSizeOption ? request.block_size : request.timeout_seconds;
    if (name != TFTP_Packet::kTransferSizeOption && own) value = std::to_string(*own);
    if (value != kNoValue) bytes.append(name).append(1, '\0').append(value).append(1, '\0');
  }
  return bytes;
}

class Loader {
 public:
  explicit Loader(const ReadRequest& request)
      : request_(request),
        habit_(*request.habit),
        socket_(open_socket(SOCK_DGRAM)),
        peer_(ipv4_address(inet_addr(request.server.c_str()), request.port)),
        file_(request.local_file, std::ios::binary | std::ios::trunc) {
    outcome_.error_code = -1;
    if (!request.patience) return;
    habit_.request_seconds = habit_.ack_seconds = habit_.most_seconds = request.patience->seconds;
    habit_.growth = 1;
    habit_.patience_seconds = (request.patience->times + 1) * request.patience->seconds;
  }
  ~Loader() { close(socket_); }
  Loader(const Loader&) = delete;
  Loader& operator=(const Loader&) = delete;

  ReadOutcome run() {
    send_new(request_bytes(request_), habit_.request_seconds);
    std::vector<char> room(kLongestDatagram);
    while (!is_over_) {
      if (!wait_for_datagram_until(std::min(repeats_at_, gives_up_at_))) {
        take_silence();
        continue;
      }
      sockaddr_in from = {};
      socklen_t size = sizeof from;
      const ssize_t count = recvfrom(socket_, room.data(), room.size(), 0, as_sockaddr(&from), &size);
      const bool is_peer = !outcome_.was_answered || habit_.takes_any_port || from.sin_port == peer_.sin_port;
      if (count >= static_cast<ssize_t>(kOpcodeBytes) && is_peer)
        take({room.data(), static_cast<std::size_t>(count)}, from);
    }
    file_.close();
    if (!outcome_.arrived) std::remove(request_.local_file.c_str());
    return outcome_;
  }

 private:
  bool wait_for_datagram_until(Clock::time_point end) const {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
    pollfd readable = {socket_, POLLIN, 0};
    return poll(&readable, 1, static_cast<int>(std::max<std::int64_t>(left, 0))) == 1;
  }

  void take_silence() {
    if (Clock::now() >= gives_up_at_) {
      is_over_ = true;
      return;
    }
    send_last();
    wait_ = std::min(wait_ * habit_.growth, std::max(habit_.most_seconds, wait_));
    repeats_at_ = Clock::now() + as_duration(wait_);
  }

  void send_new(const std::string& bytes, double wait) {
    last_ = bytes;
    send_last();
    wait_ = wait;
    repeats_at_ = Clock::now() + as_duration(wait_);
    gives_up_at_ = Clock::now() + as_duration(habit_.patience_seconds);
  }

  void send_last() { sendto(socket_, last_.data(), last_.size(), 0, as_sockaddr(&peer_), sizeof peer_); }

  void acknowledge(unsigned block) {
    send_new(word(kAck) + word(block), habit_.ack_seconds);
    if (request_.dies_after && taken_ >= *request_.dies_after) outcome_.arrived = is_over_ = true;
  }

  void take(std::string_view datagram, const sockaddr_in& from) {
    const unsigned opcode = word_at(datagram, 0);
    if (opcode == kError) return take_error(datagram);
    const bool is_block = opcode == kData && datagram.size() >= kHeader;
    if (!is_block && opcode != kOack) return;
    peer_ = from;
    outcome_.was_answered = true;
    const unsigned number = is_block ? word_at(datagram, kOpcodeBytes) : 0;
    if (last_number_ && number == *last_number_) return send_last();  // it came twice
    if (is_block ? number != (last_number_.value_or(0) + 1) % kBlockNumbers : last_number_.has_value())
      return;
    last_number_ = number;
    is_block ? take_block(number, datagram.substr(kHeader)) : take_options(datagram.substr(kOpcodeBytes));
  }

  void take_error(std::string_view datagram) {
    TFTP_Packet packet;
    packet.addMemory(datagram.data(), static_cast<int>(std::min(datagram.size(), kLongestError)));
    outcome_.error_code = packet.errorCode();
    packet.errorText().copy(outcome_.error_text, sizeof outcome_.error_text - 1);
    outcome_.was_answered = is_over_ = true;
  }

  void take_options(std::string_view options) {
    std::istringstream words{std::string(options)};
    for (std::string name, value; std::getline(words, name, '\0') && std::getline(words, value, '\0');) {
      if (name == TFTP_Packet::kBlockSizeOption) block_size_ = std::strtoul(value.c_str(), nullptr, 10);
      if (name == TFTP_Packet::kTransferSizeOption) is_empty_ = value == "0";
    }
    is_over_ = is_empty_ && habit_.at_empty_file == AtEmptyFile::kLeaves;
    if (!is_over_) acknowledge(0);
  }

  void take_block(unsigned number, std::string_view data) {
    file_.write(data.data(), static_cast<std::streamsize>(data.size()));
    taken_ += static_cast<double>(data.size());
    is_over_ = data.size() < block_size_;
    outcome_.arrived = is_over_ && !request_.dies_after;
    if (!is_empty_ || habit_.at_empty_file != AtEmptyFile::kLeavesBlock) acknowledge(number);
  }

  const ReadRequest& request_;
  Habit habit_;  // with the request's own patience
  const int socket_;
  sockaddr_in peer_;
  std::ofstream file_;
  ReadOutcome outcome_ = {};
  std::string last_;  // that was sent
  double wait_ = 0;   // seconds, until that is repeated
  Clock::time_point repeats_at_, gives_up_at_;
  std::optional<unsigned> last_number_;  // of the block that came last; 0: the options
  std::size_t block_size_ = kUsualBlock;
  double taken_ = 0;       // bytes
  bool is_empty_ = false;  // the file, by its tsize
  bool is_over_ = false;
};

}  // namespace

ReadOutcome load(const ReadRequest& request) {
  return Loader(request).run();
}
