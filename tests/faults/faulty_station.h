#ifndef FAULTS_FAULTY_STATION_H
#define FAULTS_FAULTY_STATION_H

#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/emulated.h"
#include "support/sanitized.h"
#include "support/station.h"
#include "support/threads.h"

// Loads a library into every program that is started while the object lives.
class Preloaded {
 public:
  Preloaded(const char* variable, const std::string& value) : variable_(variable) {
    setenv(variable_, value.c_str(), 1);
    setenv("LD_PRELOAD", PRELOADED_LIBRARY, 1);
  }
  ~Preloaded() {
    unsetenv("LD_PRELOAD");
    unsetenv(variable_);
  }
  Preloaded(const Preloaded&) = delete;
  Preloaded& operator=(const Preloaded&) = delete;

 private:
  const char* variable_;
};

#define NEEDS_PRELOADING()                                                          \
  NEEDS_SANDBOX();                                                                  \
  if (kSanitized) GTEST_SKIP() << "a sanitizer wants to be loaded before all else"; \
  LEFT_OUT_UNDER_EMULATION("the library would be loaded into qemu")

// The daemon on loopback with a client whose transfer has begun before anything goes wrong, and must arrive
// whole whatever does. "file" is there for the client that is struck.
//
// Calls up to then, for the number of the one that is to fail: socket.dgram 3 (server, relay, first client),
// bind 3 (the same), sendto 1, recvfrom 1 (of the server; its second one waits), select 1, fopen 1,
// pthread_create 2 (relay, first client).
class FaultyStation {
 public:
  using Milliseconds = std::chrono::milliseconds;

  explicit FaultyStation(const std::string& fault = "none 0 0")
      : station_(with_fault(fault)), first_(station_->client(2003)) {
    write_whole_file("file", contents());
    write_whole_file("first", contents());
    first_.sends(tftp::rrq("first"));
    first_.expects(tftp::data(1, block(1)));
    settles(1);
  }

  static const std::string& contents() {
    static const std::string result = noise(1000);
    return result;
  }
  static std::string block(int number) {
    return contents().substr(512 * (static_cast<std::size_t>(number) - 1), 512);
  }
  // Waits until the server waits for a request, and so many transfers, which are all, for an acknowledgement.
  void settles(int transfers) const {
    EXPECT_TRUE(wait_until([&] {
      const std::string tasks = "/proc/" + std::to_string(daemon().pid()) + "/task";
      int threads = 0;
      int waiting = 0;
      for (const auto& task : std::filesystem::directory_iterator(tasks)) {
        ++threads;
        const bool is_main = task.path().filename() == std::to_string(daemon().pid());
        waiting += !is_main && system_call(task.path().string()) == SYS_recvfrom ? 1 : 0;
      }
      return threads == 1 + transfers && waiting == transfers &&
             system_call(tasks + "/" + std::to_string(daemon().pid())) == SYS_recvfrom;
    }));
  }
  UdpPeer client() const { return station_->client(); }
  UdpPeer asks(const std::string& request) const { return station_->asks(request); }
  const station::OnLoopback& station() const { return *station_; }
  Daemon& daemon() const { return *station_->daemon; }

  // The rest of the file, from behind the block that came.
  static void goes_on(UdpPeer& client) {
    client.sends(tftp::ack(1));
    client.expects(tftp::data(2, block(2)));
    client.sends(tftp::ack(2));
  }
  // For a test that waits longer than the first client is waited for; else `survives` does it.
  void first_client_goes_on() {
    if (!has_gone_on_) goes_on(first_);
    has_gone_on_ = true;
  }
  // Nothing more comes to the client that was struck.
  static void is_left_alone(UdpPeer& client) { client.expects_nothing(Milliseconds(300)); }
  // The first client gets the rest of its file, the next client all of its own, and a signal ends the
  // program. The lines are all that it printed behind those of its start and of the first client.
  void survives(const std::string& lines) {
    first_client_goes_on();
    station_->printed("RRQ first\n" + lines);
  }

 private:
  // Which one the thread waits in; -1 for none.
  static long system_call(const std::string& task) {
    std::ifstream file(task + "/syscall");
    long number = -1;
    file >> number;
    return file ? number : -1;
  }
  static std::unique_ptr<station::OnLoopback> with_fault(const std::string& fault) {
    const Preloaded library("FAIL", fault);
    return std::make_unique<station::OnLoopback>(std::vector<std::string>{},
                                                 station::OnLoopback::Relay::kHasNoAddress);
  }

  std::unique_ptr<station::OnLoopback> station_;
  UdpPeer first_;
  bool has_gone_on_ = false;
};

#endif
