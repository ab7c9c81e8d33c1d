// The remote PPT server: ppt_server ADDRESS TFTP_PORT MESSAGE_PORT RELAY_PORT
// It is asked for files by TFTP (and hears verdicts so), takes the station's connection, and receives relayed
// datagrams. Orders on standard input, one a line, each confirmed by "ok":
//   answers            every request gets an empty file (so it begins)
//   silent             requests are heard and not answered
//   error CODE TEXT    every request gets an ERROR packet
//   refuses            every port is closed
// On standard output, one a line: "heard NAME", "connected", "closed", "received TEXT" (a final NUL is left
// away).
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "sockets/sockets.h"
#include "tftp_packet/tftp_packet.h"

namespace {

constexpr std::size_t kLongestDatagram = 65536;  // bytes
constexpr std::size_t kLongestName = 512;        // bytes
constexpr int kBacklog = 5;

[[noreturn]] void give_up(const std::string& what) {
  std::cerr << "ppt_server: " << what << std::endl;
  std::exit(2);
}

void close_socket(int* socket_fd) {
  if (*socket_fd >= 0) close(*socket_fd);
  *socket_fd = -1;
}

class PptServer {
 public:
  PptServer(const std::string& ip, int tftp_port, int message_port, int relay_port)
      : address_(inet_addr(ip.c_str())),
        tftp_port_(tftp_port),
        message_port_(message_port),
        relay_port_(relay_port) {
    open_ports();
  }

  // Until the end of standard input.
  void run() {
    std::cout << "ready" << std::endl;
    for (std::array<pollfd, 5> ports; wait_for(&ports);) {
      if (ports[0].revents != 0 && !obey_next_order()) return;
      if (ports[1].revents != 0) hear_request();
      if (ports[2].revents != 0) accept_station();
      if (ports[3].revents != 0) read_connection();
      if (ports[4].revents != 0) receive_relayed();
    }
  }

 private:
  enum class Manner { kAnswers, kSilent, kError };

  // poll passes over the sockets that are -1.
  bool wait_for(std::array<pollfd, 5>* ports) {
    *ports = {{{STDIN_FILENO, POLLIN, 0},
               {requests_, POLLIN, 0},
               {listening_, POLLIN, 0},
               {connection_, POLLIN, 0},
               {relayed_, POLLIN, 0}}};
    return poll(ports->data(), ports->size(), -1) > 0;
  }

  int bound(int kind, int port) const {
    const int socket_fd = socket(AF_INET, kind, 0);
    const int on = 1;
    setsockopt(socket_fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in here = ipv4_address(address_, port);
    if (bind(socket_fd, as_sockaddr(&here), sizeof here) != 0)
      give_up("port " + std::to_string(port) + " is not free");
    return socket_fd;
  }

  void open_ports() {
    if (requests_ >= 0) return;
    requests_ = bound(SOCK_DGRAM, tftp_port_);
    relayed_ = bound(SOCK_DGRAM, relay_port_);
    listening_ = bound(SOCK_STREAM, message_port_);
    if (listen(listening_, kBacklog) != 0) give_up("cannot listen");
  }

  void close_ports() {
    for (int* socket_fd : {&requests_, &relayed_, &listening_, &connection_}) close_socket(socket_fd);
  }

  bool obey_next_order() {
    std::string line;
    if (!std::getline(std::cin, line)) return false;
    std::istringstream order(line);
    std::string word;
    order >> word;
    if (word == "refuses") {
      close_ports();
    } else if (word == "answers" || word == "silent" || word == "error") {
      open_ports();
      manner_ = word == "answers" ? Manner::kAnswers : word == "silent" ? Manner::kSilent : Manner::kError;
      if (manner_ == Manner::kError) std::getline(order >> error_code_ >> std::ws, error_text_);
    } else {
      give_up("expected: answers, silent, error CODE TEXT, or refuses");
    }
    std::cout << "ok" << std::endl;
    return true;
  }

  // The answer comes from a port of its own, as RFC 1350 wants it.
  void hear_request() {
    TFTP_Packet request;
    sockaddr_in station = {};
    socklen_t length = sizeof station;
    const auto room = static_cast<std::size_t>(request.receivableSize());
    const ssize_t count = recvfrom(requests_, request.getData(0), room, 0, as_sockaddr(&station), &length);
    request.setSize(static_cast<int>(count));
    if (!request.isRRQ()) return;  // after a silence, the station's ACK comes here
    std::array<char, kLongestName> name = {};
    request.getString(2, name.data(), static_cast<int>(name.size()));
    std::cout << "heard " << name.data() << std::endl;
    if (manner_ == Manner::kSilent) return;
    TFTP_Packet answer;
    if (manner_ == Manner::kError) {
      answer.createError(error_code_, error_text_.c_str());
    } else {
      answer.createData(1, nullptr, 0);
    }
    const int transfer = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in here = ipv4_address(address_, 0);
    if (bind(transfer, as_sockaddr(&here), sizeof here) != 0) give_up("no port is free");
    sendto(transfer, answer.getData(0), static_cast<std::size_t>(answer.sendableSize()), 0, as_sockaddr(&station),
           length);
    transfers_.push_back(transfer);  // stays open for the ACK
  }

  void accept_station() {
    close_socket(&connection_);
    connection_ = accept(listening_, nullptr, nullptr);
    std::cout << "connected" << std::endl;
  }

  void read_connection() {
    std::array<char, kLongestDatagram> text;
    const ssize_t count = recv(connection_, text.data(), text.size(), 0);
    if (count > 0) return;
    close_socket(&connection_);
    std::cout << "closed" << std::endl;
  }

  void receive_relayed() {
    std::array<char, kLongestDatagram> datagram;
    const ssize_t count = recv(relayed_, datagram.data(), datagram.size(), 0);
    if (count < 0) return;
    std::string text(datagram.data(), static_cast<std::size_t>(count));
    if (!text.empty() && text.back() == '\0') text.pop_back();
    std::cout << "received " << text << std::endl;
  }

  const in_addr_t address_;
  const int tftp_port_, message_port_, relay_port_;
  Manner manner_ = Manner::kAnswers;
  int error_code_ = 0;
  std::string error_text_;
  int requests_ = -1, listening_ = -1, connection_ = -1, relayed_ = -1;
  std::vector<int> transfers_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) give_up("expected: ADDRESS TFTP_PORT MESSAGE_PORT RELAY_PORT");
  PptServer(argv[1], std::atoi(argv[2]), std::atoi(argv[3]), std::atoi(argv[4])).run();
}
