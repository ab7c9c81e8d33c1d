#ifndef SUPPORT_LOSSY_WIRE_H
#define SUPPORT_LOSSY_WIRE_H

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sstream>
#include <stdexcept>
#include <string>

#include "stage/network_namespace.h"
#include "support/sandbox.h"
#include "support/test_network.h"
#include "support/whole_file.h"

// Takes the place of the unit's link in a test network: the virtual bench's wire carries the frames, and
// loses some of them on order. Make it before anything uses the link, in a test that began with NEEDS_WIRE();
// it keeps its capture and the fate of every frame in the working directory.
class LossyWire {
 public:
  explicit LossyWire(const TestNetwork& network) {
    ip("link delete lan0");
    int unit = -1;
    network.at_unit([&] { unit = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC); });
    const std::string process = "/proc/" + std::to_string(getpid());
    starts(process + "/ns/net=lan0," + process + "/fd/" + std::to_string(unit) + "=lan0");
    expects("ready\n");
    close(unit);
    ip("address add 172.40.0.1/24 broadcast 172.40.0.255 label lan0:0 dev lan0");
    ip("link set lan0 up");
    network.at_unit([] {
      ip("address add 172.40.0.2/24 broadcast 172.40.0.255 dev lan0");
      ip("link set lan0 up");
    });
  }
  ~LossyWire() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    close(orders_);
  }
  LossyWire(const LossyWire&) = delete;
  LossyWire& operator=(const LossyWire&) = delete;

  // From now on, of the frames of both directions.
  void loses(int percent) const {
    const std::string order = "loses " + std::to_string(percent) + "\n";
    if (write(orders_, order.data(), order.size()) != static_cast<ssize_t>(order.size())) {
      throw std::runtime_error("the wire takes no order");
    }
    expects("ok\n");
  }
  int lost_frames() const {
    std::istringstream fates(whole_file("wire.fates"));
    int count = 0;
    for (std::string line; std::getline(fates, line);)
      count += line.find(" lost") != std::string::npos ? 1 : 0;
    return count;
  }

 private:
  void starts(const std::string& link) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
      throw std::runtime_error("cannot make a socket pair");
    }
    pid_ = fork();
    if (pid_ == 0) {
      dup2(ends[1], STDIN_FILENO);
      dup2(ends[1], STDOUT_FILENO);
      execl(WIRE_PROGRAM, WIRE_PROGRAM, "wire.pcap", "wire.fates", "1", link.c_str(), nullptr);
      _exit(127);
    }
    close(ends[1]);
    orders_ = ends[0];
  }
  void expects(const std::string& line) const {
    constexpr int kPatienceMilliseconds = 10000;
    std::string answer;
    pollfd waiting{orders_, POLLIN, 0};
    for (char byte = 0; byte != '\n'; answer += byte) {
      if (poll(&waiting, 1, kPatienceMilliseconds) <= 0 || read(orders_, &byte, 1) != 1) break;
    }
    if (answer != line) throw std::runtime_error("the wire said '" + answer + "' instead of '" + line + "'");
  }

  pid_t pid_ = -1;
  int orders_ = -1;
};

#define NEEDS_WIRE()                                                        \
  NEEDS_SANDBOX();                                                          \
  if (access(WIRE_PROGRAM, X_OK) != 0)                                      \
    GTEST_SKIP() << "needs the wire, which is built for this machine only"; \
  if (access("/dev/net/tun", R_OK | W_OK) != 0) GTEST_SKIP() << "needs /dev/net/tun"

#endif
