#include "unit/unit.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <iostream>
#include <stdexcept>

#include "sockets/sockets.h"
#include "tftp_client/tftp_client.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr double kBetweenConnectionsSeconds = 0.1;
constexpr int kRequestBytes = 1024;
constexpr int kOptionsRefused = 8;         // RFC 2347
constexpr double kUntilReadSeconds = 0.3;  // for a text, and for its connection's end, to be read
// RFC 1350
const std::string kReadRequest("\0\1", 2), kWriteRequest("\0\2", 2), kError("\0\5", 2);

sockaddr_in address_of(const std::string& ip, int port) {
  return ipv4_address(inet_addr(ip.c_str()), port);
}

constexpr int kUsualBlock = 512;  // bytes, of the station's own client
constexpr int kUsualTimeout = 5;  // seconds, the same

// By the station's own client.
ReadOutcome read_by_client(const ReadRequest& request) {
  TFTPClient client(request.server, request.port);
  client.block_size = request.block_size.value_or(kUsualBlock);
  client.timeout = request.timeout_seconds.value_or(kUsualTimeout);
  ReadOutcome outcome = {};
  outcome.arrived = client.getFile(request.name, request.local_file) == 1;
  const TFTP_Packet& last = client.received_packet;
  outcome.was_answered = last.size > 0;
  outcome.error_code = last.isError() ? last.errorCode() : -1;
  last.errorText().copy(outcome.error_text, sizeof outcome.error_text - 1);
  return outcome;
}

int read_file(const NetworkNamespace& place, const ReadRequest& request) {
  place.enter();
  std::cout.setstate(std::ios::failbit);  // what the client prints is not for the bench
  const bool is_like_client =
      request.habit == std::begin(scenario::kHabits) && !request.patience && !request.dies_after;
  const ReadOutcome outcome = is_like_client ? read_by_client(request) : load(request);
  return write(STDOUT_FILENO, &outcome, sizeof outcome) == sizeof outcome ? 0 : 1;
}

void reset_at_close(int connection) {
  const linger at_once = {1, 0};
  setsockopt(connection, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
}

}  // namespace

Reading::Reading(const NetworkNamespace& place, const ReadRequest& request)
    : process_([&] { return read_file(place, request); }) {}

std::optional<std::string> Reading::failure() {
  const std::string told = process_.read_text();
  ReadOutcome outcome;
  if (told.size() != sizeof outcome) return "its client failed";
  std::memcpy(&outcome, told.data(), sizeof outcome);
  if (outcome.arrived) return std::nullopt;
  if (outcome.error_code < 0)
    return outcome.was_answered ? "the station fell silent" : "no answer came from the station";
  const std::string text = outcome.error_text;
  return "ERROR " + std::to_string(outcome.error_code) + (text.empty() ? ", no text" : ", " + text);
}

// One that does not wait, in the place of the unit.
class Unit::Socket {
 public:
  Socket(const NetworkNamespace& place, int kind) {
    const ScopedNamespace inside(place);
    descriptor_ = socket(AF_INET, kind | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (descriptor_ < 0)
      throw std::runtime_error(std::string("a socket of the unit: ") + std::strerror(errno));
  }
  ~Socket() { close(descriptor_); }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;
  int descriptor() const { return descriptor_; }

 private:
  int descriptor_;
};

std::optional<std::string> Unit::next_text(const Socket& socket, double seconds, std::size_t most) const {
  std::array<char, kAnyLength> text;
  ssize_t count = -1;
  const auto has_come = [&] {
    count = recv(socket.descriptor(), text.data(), std::min(most, text.size()), 0);
    return count >= 0 || errno != EAGAIN;
  };
  if (!wait_until_(seconds, has_come) || count < 0) return std::nullopt;
  return std::string(text.data(), static_cast<std::size_t>(count));
}

std::optional<std::string> Unit::hear(int port, double seconds) const {
  const Socket socket(place_, SOCK_DGRAM);
  sockaddr_in here = ipv4_address(INADDR_ANY, port);
  if (bind(socket.descriptor(), as_sockaddr(&here), sizeof here) != 0)
    throw std::runtime_error("the unit's port " + std::to_string(port) + ": " + std::strerror(errno));
  return next_text(socket, seconds, kAnyLength);
}

bool Unit::send(const std::string& server, int port, const std::string& text) const {
  const Socket socket(place_, SOCK_DGRAM);
  sockaddr_in there = address_of(server, port);
  return sendto(socket.descriptor(), text.data(), text.size(), 0, as_sockaddr(&there), sizeof there) ==
         static_cast<ssize_t>(text.size());
}

bool Unit::gives_up(const std::string& server, int port, const std::string& name, int block_size, int blocks,
                    double seconds) const {
  const Socket socket(place_, SOCK_DGRAM);
  sockaddr_in there = address_of(server, port);
  TFTP_Packet packet;
  const auto send_packet = [&] {
    sendto(socket.descriptor(), packet.getData(0), static_cast<std::size_t>(packet.sendableSize()), 0,
           as_sockaddr(&there), sizeof there);
  };
  packet.reSize(kRequestBytes);
  packet.createRRQ(name, {TFTP_Packet::kBlockSizeOption}, {std::to_string(block_size)});
  send_packet();
  std::array<char, Unit::kAnyLength> answer;
  socklen_t size = sizeof there;
  const auto has_come = [&] {
    return recvfrom(socket.descriptor(), answer.data(), answer.size(), 0, as_sockaddr(&there), &size) >= 0;
  };
  for (int block = 0; wait_until_(seconds, has_come); ++block) {
    if (block == blocks) {
      packet.createError(kOptionsRefused, "no room");
      send_packet();
      return true;
    }
    packet.createACK(block);
    send_packet();
  }
  return false;
}

std::optional<int> Unit::send_request(const std::string& server, int port, const std::string& request,
                                      double seconds) const {
  const Socket socket(place_, SOCK_DGRAM);
  sockaddr_in there = address_of(server, port);
  sendto(socket.descriptor(), request.data(), request.size(), 0, as_sockaddr(&there), sizeof there);
  const std::optional<std::string> answer = next_text(socket, seconds, kAnyLength);
  if (!answer) return std::nullopt;
  constexpr std::size_t kCodeAt = 2;
  const bool is_error = answer->size() >= 2 * kCodeAt && answer->compare(0, kCodeAt, kError) == 0;
  return is_error ? static_cast<unsigned char>((*answer)[kCodeAt + 1]) : kNoError;
}

std::optional<int> Unit::is_refused(const std::string& server, int port, const std::string& name,
                                    const std::string& mode, double seconds) const {
  return send_request(server, port, kReadRequest + name + '\0' + mode + '\0', seconds);
}

bool Unit::repeats(const std::string& server, int port, const std::string& name, int times,
                   double seconds) const {
  const Socket socket(place_, SOCK_DGRAM);
  sockaddr_in there = address_of(server, port);
  const std::string request = kReadRequest + name + '\0' + "octet" + '\0';
  for (int time = 1; time <= times; ++time) {
    sendto(socket.descriptor(), request.data(), request.size(), 0, as_sockaddr(&there), sizeof there);
    if (time < times) wait_until_(1, [] { return false; });
  }
  return next_text(socket, seconds, kAnyLength).has_value();
}

std::optional<int> Unit::writes(const std::string& server, int port, const std::string& name,
                                double seconds) const {
  return send_request(server, port, kWriteRequest + name + '\0' + "octet" + '\0', seconds);
}

Unit::Connected Unit::connect_to(const std::string& server, int port, double seconds) const {
  const auto end = Clock::now() + std::chrono::duration<double>(seconds);
  const auto seconds_left = [end] { return std::chrono::duration<double>(end - Clock::now()).count(); };
  for (;;) {
    auto connection = std::make_shared<Socket>(place_, SOCK_STREAM);
    sockaddr_in there = address_of(server, port);
    // How it went, the socket tells once it is connected or refused.
    [[maybe_unused]] const int begun = connect(connection->descriptor(), as_sockaddr(&there), sizeof there);
    pollfd connected = {connection->descriptor(), POLLOUT, 0};
    if (!wait_until_(seconds_left(), [&] { return poll(&connected, 1, 0) == 1; }))
      return {nullptr, "the connection was neither taken nor refused"};
    int error = 0;
    socklen_t length = sizeof error;
    getsockopt(connection->descriptor(), SOL_SOCKET, SO_ERROR, &error, &length);
    if (error == 0) return {std::move(connection), ""};
    if (seconds_left() < kBetweenConnectionsSeconds)
      return {nullptr, error == ECONNREFUSED ? "every connection was refused" : std::strerror(error)};
    wait_until_(kBetweenConnectionsSeconds, [] { return false; });
  }
}

Unit::Answer Unit::ask(const std::string& server, int port, const std::string& question, double seconds,
                       std::size_t longest, bool holds) {
  const auto end = Clock::now() + std::chrono::duration<double>(seconds);
  const Connected connection = connect_to(server, port, seconds);
  if (connection.socket == nullptr) return {false, connection.why_not};
  ::send(connection.socket->descriptor(), question.data(), question.size(), MSG_NOSIGNAL);
  if (holds) held_ = connection.socket;
  const std::optional<std::string> answer =
      next_text(*connection.socket, std::chrono::duration<double>(end - Clock::now()).count(), longest);
  if (!answer) return {false, "the connection was taken, and no answer came"};
  if (answer->empty()) return {false, "the connection was taken, and closed without an answer"};
  return {true, *answer};
}

Unit::Answer Unit::ask_on(const std::string& question, double seconds, std::size_t longest) const {
  if (held_ == nullptr) return {false, "it holds no connection"};
  ::send(held_->descriptor(), question.data(), question.size(), MSG_NOSIGNAL);
  const std::optional<std::string> answer = next_text(*held_, seconds, longest);
  if (!answer || answer->empty()) return {false, answer ? "the connection was closed" : "no answer came"};
  return {true, *answer};
}

std::string Unit::hang_up() {
  std::string left = held_ == nullptr ? "" : next_text(*held_, 0, kAnyLength).value_or("");
  held_.reset();
  return left;
}

void Unit::drop_connection() {
  if (held_ != nullptr) reset_at_close(held_->descriptor());
  held_.reset();
}

std::optional<std::string> Unit::ask_and_leave(const std::string& server, int port,
                                               const std::string& question, Leaves leaves,
                                               double seconds) const {
  Connected connection = connect_to(server, port, seconds);
  if (connection.socket == nullptr) return connection.why_not;
  const int descriptor = connection.socket->descriptor();
  ::send(descriptor, question.data(), question.size(), MSG_NOSIGNAL);
  wait_until_(kUntilReadSeconds, [] { return false; });
  if (leaves == Leaves::kAfterItsTexts) shutdown(descriptor, SHUT_WR);
  reset_at_close(descriptor);
  connection.socket.reset();
  wait_until_(kUntilReadSeconds, [] { return false; });
  return std::nullopt;
}
