#include "ppt_server/ppt_server.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <utility>

#include "sockets/sockets.h"
#include "tftp_packet/tftp_packet.h"

namespace {

constexpr std::size_t kLongestDatagram = 65536;  // bytes
constexpr int kBacklog = 5;

// What has come; nothing when nothing has. A connection that has ended gives an empty text.
std::optional<std::string> received(int socket_fd) {
  std::array<char, kLongestDatagram> text;
  const ssize_t count = recv(socket_fd, text.data(), text.size(), 0);
  if (count < 0 && errno != ECONNRESET) return std::nullopt;
  return std::string(text.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
}

}  // namespace

std::string PptServer::Event::in_words() const {
  switch (kind) {
    case Kind::kHeard:
      return "heard " + text;
    case Kind::kConnected:
      return "connected";
    case Kind::kClosed:
      return "closed";
    case Kind::kReceived:
      break;
  }
  return "received \"" + text + '"';
}

PptServer::PptServer(const NetworkNamespace& place, int tftp_port, int message_port)
    : place_(place), tftp_port_(tftp_port), message_port_(message_port) {
  open_ports();
}

PptServer::~PptServer() {
  close_ports();
  for (const int socket_fd : transfers_) close(socket_fd);
}

void PptServer::move_to(int tftp_port, int message_port) {
  tftp_port_ = tftp_port;
  message_port_ = message_port;
  if (listening_ < 0) return;
  const bool hears_requests = requests_ >= 0;
  close_ports();
  open_ports();
  if (!hears_requests) refuse_requests();
}

void PptServer::answer(double after_seconds) {
  mode_ = Mode::kAnswers;
  wait_ = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(after_seconds));
  open_ports();
}

void PptServer::answer_nothing() {
  mode_ = Mode::kAnswersNothing;
  open_ports();
}

void PptServer::answer_error(int code, const std::string& text) {
  mode_ = Mode::kAnswersError;
  error_code_ = code;
  error_text_ = text;
  open_ports();
}

void PptServer::keep_silent() {
  mode_ = Mode::kSilent;
  open_ports();
}

void PptServer::refuse() {
  close_ports();
}

void PptServer::refuse_requests() {
  open_ports();
  if (requests_ >= 0) close(std::exchange(requests_, -1));
}

int PptServer::bound(int kind, int port) const {
  const ScopedNamespace inside(place_);
  const int socket_fd = socket(AF_INET, kind | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  const int on = 1;
  if (kind == SOCK_STREAM) setsockopt(socket_fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in here = ipv4_address(INADDR_ANY, port);
  if (bind(socket_fd, as_sockaddr(&here), sizeof here) == 0) return socket_fd;
  const std::string why = std::strerror(errno);
  close(socket_fd);
  throw std::runtime_error("the PPT server's port " + std::to_string(port) + ": " + why);
}

void PptServer::open_ports() {
  if (requests_ < 0) requests_ = bound(SOCK_DGRAM, tftp_port_);
  if (listening_ >= 0) return;
  relayed_ = bound(SOCK_DGRAM, kRelayPort);
  listening_ = bound(SOCK_STREAM, message_port_);
  listen(listening_, kBacklog);
}

void PptServer::close_ports() {
  for (int* socket_fd : {&requests_, &relayed_, &listening_, &connection_}) {
    if (*socket_fd >= 0) close(std::exchange(*socket_fd, -1));
  }
}

void PptServer::add_descriptors(std::vector<pollfd>* watched) const {
  for (const int socket_fd : {requests_, relayed_, listening_, connection_})
    watched->push_back({socket_fd, POLLIN, 0});
}

std::vector<PptServer::Event> PptServer::serve() {
  std::vector<Event> events;
  for (Event event; requests_ >= 0 && hear_request(&event);) events.push_back(event);
  for (; !due_.empty() && due_.front().at <= Clock::now(); due_.erase(due_.begin()))
    answer_from_new_port(due_.front().station);
  const int accepted =
      listening_ < 0 ? -1 : accept4(listening_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (accepted >= 0) {
    if (connection_ >= 0) close(connection_);
    connection_ = accepted;
    events.push_back({Event::Kind::kConnected, ""});
  }
  const auto said = connection_ < 0 ? std::nullopt : received(connection_);
  if (said && said->empty()) {
    close(std::exchange(connection_, -1));
    events.push_back({Event::Kind::kClosed, ""});
  }
  for (std::optional<std::string> text; relayed_ >= 0 && (text = received(relayed_));) {
    if (!text->empty() && text->back() == '\0') text->pop_back();
    events.push_back({Event::Kind::kReceived, *text});
  }
  return events;
}

// False when no request is there.
bool PptServer::hear_request(Event* event) {
  TFTP_Packet request;
  sockaddr_in station = {};
  socklen_t length = sizeof station;
  do {
    const auto room = static_cast<std::size_t>(request.receivableSize());
    const ssize_t count = recvfrom(requests_, request.getData(0), room, 0, as_sockaddr(&station), &length);
    if (count < 0) return false;
    request.setSize(static_cast<int>(count));
  } while (!request.isRRQ());  // after a silence, the station's ACK comes here
  *event = {Event::Kind::kHeard, request.fileName()};
  if (mode_ != Mode::kSilent)
    due_.push_back({Clock::now() + (mode_ == Mode::kAnswers ? wait_ : Clock::duration()), station});
  return true;
}

// As RFC 1350 wants it.
void PptServer::answer_from_new_port(sockaddr_in station) {
  TFTP_Packet answer;
  if (mode_ == Mode::kAnswersNothing) {
    answer.setSize(0);
  } else if (mode_ == Mode::kAnswersError) {
    answer.createError(error_code_, error_text_);
  } else {
    answer.createData(1, nullptr, 0);
  }
  transfers_.push_back(bound(SOCK_DGRAM, 0));
  sendto(transfers_.back(), answer.getData(0), static_cast<std::size_t>(answer.sendableSize()), 0,
         as_sockaddr(&station), sizeof station);
}
