#ifndef ZIRN_RUN_CHECKED_STATION_H
#define ZIRN_RUN_CHECKED_STATION_H

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <ctime>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "check/check.h"
#include "support/fake_board.h"
#include "support/sandbox.h"
#include "support/scratch_directory.h"
#include "support/test_network.h"
#include "support/whole_file.h"

// A station in namespaces of its own in which every point is ok; each test breaks one. It serves from the current
// folder.
class CheckedStation : public testing::Test {
 protected:
  using Words = std::vector<std::string>;

  void SetUp() override {
    NEEDS_SANDBOX();
    network = std::make_unique<TestNetwork>();
    board = std::make_unique<FakeBoard>();
    files = std::make_unique<ScratchDirectory>();
    board->sets_variable("tempmac", "02:00:00:00:10:00");
    write_whole_file("bootscript.txt", "tftp 47000000 kernel.img\r\ntftp 45000000 F_l_m_01Kernel_loaded\r\n");
    write_whole_file("kernel.img", "kernel");
    setup.station = station::station_of({"-o", TestNetwork::kStation});
    setup.folder = files->path();
    setup.path = board->Board::path();
    setup.now = std::time(nullptr);
  }

  static const check::Point& point(const std::string& name) {
    for (const check::Point& it : check::points()) {
      if (it.name == name) return it;
    }
    throw std::runtime_error("there is no point " + name);
  }
  check::Finding found(const std::string& name) const { return point(name).look(setup); }
  std::string text(const std::string& name) const { return found(name).text; }
  Words points_that_are(check::State state) const {
    Words names;
    for (const check::Point& it : check::points()) {
      if (it.look(setup).state == state) names.emplace_back(it.name);
    }
    return names;
  }
  // Exactly these are wrong, and exactly those cannot be known because of it.
  void expect_wrong(const Words& wrong, const Words& not_known = {}) const {
    EXPECT_EQ(points_that_are(check::State::kWrong), wrong);
    EXPECT_EQ(points_that_are(check::State::kNotKnown), not_known);
  }
  void expect_ready() const { expect_wrong({}); }

  std::unique_ptr<TestNetwork> network;
  std::unique_ptr<FakeBoard> board;
  std::unique_ptr<ScratchDirectory> files;
  check::Setup setup;
};

// A socket that has a port while it lives.
class HeldPort {
 public:
  HeldPort(int kind, const std::string& address, std::uint16_t port)
      : descriptor_(socket(AF_INET, kind | SOCK_CLOEXEC, 0)) {
    sockaddr_in at = {};
    at.sin_family = AF_INET;
    at.sin_port = htons(port);
    inet_pton(AF_INET, address.c_str(), &at.sin_addr);
    take(&at, sizeof at, kind);
  }
  // Of IPv6, on all addresses.
  HeldPort(int kind, std::uint16_t port) : descriptor_(socket(AF_INET6, kind | SOCK_CLOEXEC, 0)) {
    sockaddr_in6 at = {};
    at.sin6_family = AF_INET6;
    at.sin6_port = htons(port);
    take(&at, sizeof at, kind);
  }
  ~HeldPort() { close(descriptor_); }
  HeldPort(const HeldPort&) = delete;
  HeldPort& operator=(const HeldPort&) = delete;
  int descriptor() const { return descriptor_; }

 private:
  void take(const void* address, socklen_t size, int kind) const {
    if (bind(descriptor_, static_cast<const sockaddr*>(address), size) != 0 ||
        (kind == SOCK_STREAM && listen(descriptor_, 1) != 0))
      throw std::runtime_error(std::string("a port cannot be taken: ") + std::strerror(errno));
  }
  const int descriptor_;
};

#endif
