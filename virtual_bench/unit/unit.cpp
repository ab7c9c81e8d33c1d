// The unit on the test network, one thing at a time:
//   - unit hear PORT SECONDS: prints the first datagram that comes to the port
//   - unit read SERVER PORT NAME LOCAL_FILE BLOCK_SIZE TIMEOUT: downloads a file; in bytes and in seconds
//   - unit ask SERVER PORT TEXT SECONDS: sends a text on a new connection, prints the answer
//   - unit send SERVER PORT TEXT: sends a datagram
// Exit status 0 when it was done, 1 when it was not, 2 for a call that is none of these.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "sockets/sockets.h"
#include "tftp_client/tftp_client.h"

namespace {

using Clock = std::chrono::steady_clock;
using Arguments = std::vector<std::string>;

constexpr std::size_t kLongestText = 65536;  // bytes
constexpr std::chrono::milliseconds kBetweenConnections{100};

sockaddr_in address_of(const std::string& ip, const std::string& port) {
  return ipv4_address(inet_addr(ip.c_str()), std::atoi(port.c_str()));
}

Clock::time_point in_seconds(const std::string& seconds) {
  return Clock::now() + std::chrono::duration_cast<Clock::duration>(
                            std::chrono::duration<double>(std::atof(seconds.c_str())));
}

// One datagram or one piece of a connection's text; nothing when none came in time or the connection ended.
std::optional<std::string> next_text(int socket, Clock::time_point until) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now()).count();
  pollfd readable = {socket, POLLIN, 0};
  if (left <= 0 || poll(&readable, 1, static_cast<int>(left)) <= 0) return std::nullopt;
  std::array<char, kLongestText> text;
  const ssize_t count = recv(socket, text.data(), text.size(), 0);
  if (count <= 0) return std::nullopt;
  return std::string(text.data(), static_cast<std::size_t>(count));
}

bool hear(const Arguments& arguments) {
  const int socket_fd = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in here = address_of("0.0.0.0", arguments[0]);
  if (bind(socket_fd, as_sockaddr(&here), sizeof here) != 0) return false;
  const std::optional<std::string> text = next_text(socket_fd, in_seconds(arguments[1]));
  std::cout << text.value_or("") << std::flush;
  return text.has_value();
}

bool read(const Arguments& arguments) {
  TFTPClient client(arguments[0], std::atoi(arguments[1].c_str()));
  client.block_size = std::atoi(arguments[4].c_str());
  client.timeout = std::atoi(arguments[5].c_str());
  return client.getFile(arguments[2], arguments[3]) == 1;
}

// The command port opens only after a verdict: until then a connection is refused and tried again.
int connected(sockaddr_in server, Clock::time_point until) {
  for (;;) {
    const int socket_fd = socket(AF_INET, SOCK_STREAM, 0);
    if (connect(socket_fd, as_sockaddr(&server), sizeof server) == 0) return socket_fd;
    close(socket_fd);
    if (Clock::now() + kBetweenConnections > until) return -1;
    std::this_thread::sleep_for(kBetweenConnections);
  }
}

bool ask(const Arguments& arguments) {
  const Clock::time_point until = in_seconds(arguments[3]);
  const int connection = connected(address_of(arguments[0], arguments[1]), until);
  const std::string& question = arguments[2];
  if (connection < 0 || send(connection, question.data(), question.size(), MSG_NOSIGNAL) < 0) return false;
  const std::optional<std::string> answer = next_text(connection, until);
  std::cout << answer.value_or("") << std::flush;
  return answer.has_value();
}

bool send(const Arguments& arguments) {
  const int socket_fd = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in server = address_of(arguments[0], arguments[1]);
  const std::string& text = arguments[2];
  return sendto(socket_fd, text.data(), text.size(), 0, as_sockaddr(&server), sizeof server) ==
         static_cast<ssize_t>(text.size());
}

struct Deed {
  const char* name;
  std::size_t arguments;
  bool (*does)(const Arguments&);
};
constexpr Deed kDeeds[] = {{"hear", 2, hear}, {"read", 6, read}, {"ask", 4, ask}, {"send", 3, send}};

}  // namespace

int main(int argc, char** argv) {
  const Arguments arguments(argv + (argc > 1 ? 2 : argc), argv + argc);
  for (const Deed& deed : kDeeds) {
    if (argc > 1 && argv[1] == std::string(deed.name) && arguments.size() == deed.arguments) {
      return deed.does(arguments) ? EXIT_SUCCESS : EXIT_FAILURE;
    }
  }
  std::cerr << "unit: expected: hear PORT SECONDS, read SERVER PORT NAME LOCAL_FILE BLOCK_SIZE TIMEOUT,\n"
               "ask SERVER PORT TEXT SECONDS, or send SERVER PORT TEXT\n";
  return 2;
}
