// The wire as a process: devices in two namespaces, Ethernet frames at their ends, orders by its pipes.

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <optional>
#include <thread>

#include "stage/network_namespace.h"
#include "support/sandbox.h"
#include "support/scratch_directory.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr int kPatienceMilliseconds = 10000;
constexpr int kQuietMilliseconds = 200;
// For local experiments: no protocol of the kernel answers it.
constexpr std::uint16_t kEtherType = 0x88b5;

std::string no_tun_device() {
  const int descriptor = open("/dev/net/tun", O_RDWR | O_CLOEXEC);
  if (descriptor == -1) return std::strerror(errno);
  close(descriptor);
  return "";
}

#define NEEDS_WIRE() \
  NEEDS_SANDBOX();   \
  if (!no_tun_device().empty()) GTEST_SKIP() << "needs /dev/net/tun: " << no_tun_device()

// Without IPv6 and addresses, devices send nothing on their own.
void keep_quiet() {
  std::ofstream("/proc/sys/net/ipv6/conf/default/disable_ipv6") << 1;
}

// A second network namespace beside that of the test.
class FarPlace {
 public:
  FarPlace() {
    std::thread([this] {
      if (unshare(CLONE_NEWNET) != 0) return;
      descriptor_ = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
      keep_quiet();
    }).join();
    if (descriptor_ == -1) throw std::runtime_error("unshare of a network failed");
  }
  ~FarPlace() { close(descriptor_); }
  FarPlace(const FarPlace&) = delete;
  FarPlace& operator=(const FarPlace&) = delete;

  std::string path() const {
    return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(descriptor_);
  }
  void visit(const std::function<void()>& function) const {
    std::thread([&] {
      ASSERT_EQ(setns(descriptor_, CLONE_NEWNET), 0);
      function();
    }).join();
  }

 private:
  int descriptor_ = -1;
};

// Whoever sits at one device and speaks Ethernet. Made in the namespace of the device.
class Station {
 public:
  explicit Station(const std::string& device)
      : socket_(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(kEtherType))) {
    ip("link set " + device + " up");
    sockaddr_ll address = {};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(kEtherType);
    address.sll_ifindex = static_cast<int>(if_nametoindex(device.c_str()));
    if (bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
      throw std::runtime_error("cannot sit at " + device);
    }
  }
  ~Station() { close(socket_); }
  Station(const Station&) = delete;
  Station& operator=(const Station&) = delete;

  static std::string frame(const std::string& text) {
    return std::string(6, '\xff') + std::string("\x02\0\0\0\0\x01\x88\xb5", 8) + text;
  }
  // False when the device has no room for the frame.
  bool can_send(const std::string& text) const {
    const std::string bytes = frame(text);
    return send(socket_, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size());
  }
  void sends(const std::string& text) const { ASSERT_TRUE(can_send(text)); }
  // The text of the next frame, or "nothing" when none comes in time.
  std::string receives(int patience_milliseconds = kPatienceMilliseconds) const {
    pollfd waiting = {socket_, POLLIN, 0};
    std::string bytes(65536, '\0');
    ssize_t length = -1;
    // The first try may only report that the device went down.
    while (length == -1) {
      if (poll(&waiting, 1, patience_milliseconds) != 1) return "nothing";
      length = recv(socket_, bytes.data(), bytes.size(), 0);
    }
    bytes.resize(static_cast<std::size_t>(length));
    const std::size_t header = frame("").size();
    return bytes.substr(0, header) == frame("") ? bytes.substr(header) : "something else";
  }

 private:
  int socket_;
};

// The program with its standard input and output as pipes. It is killed with the object if it still runs.
class WireProcess {
 public:
  explicit WireProcess(std::vector<std::string> words) : errors_(memfd_create("errors", MFD_CLOEXEC)) {
    int to_wire[2];
    int from_wire[2];
    if (pipe2(to_wire, O_CLOEXEC) != 0 || pipe2(from_wire, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
    words.insert(words.begin(), WIRE_PROGRAM);
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
      dup2(to_wire[0], STDIN_FILENO);
      dup2(from_wire[1], STDOUT_FILENO);
      dup2(errors_, STDERR_FILENO);
      execv(argv[0], argv.data());
      _exit(127);
    }
    close(to_wire[0]);
    close(from_wire[1]);
    orders_ = to_wire[1];
    answers_ = from_wire[0];
  }
  ~WireProcess() {
    end_orders();
    if (!ended_) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    close(answers_);
    close(errors_);
  }
  WireProcess(const WireProcess&) = delete;
  WireProcess& operator=(const WireProcess&) = delete;

  pid_t pid() const { return pid_; }
  std::string errors() const { return whole_file(errors_); }
  // The next line that it says, or what came of it in time.
  std::string says() const {
    std::string line;
    pollfd waiting = {answers_, POLLIN, 0};
    char letter = 0;
    while (poll(&waiting, 1, kPatienceMilliseconds) == 1 && read(answers_, &letter, 1) == 1) {
      if (letter == '\n') return line;
      line += letter;
    }
    return line + " (no end of line)";
  }
  void is_told(const std::string& text) const {
    ASSERT_EQ(write(orders_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  std::string answers(const std::string& order) const {
    is_told(order + "\n");
    return says();
  }
  void end_orders() {
    if (orders_ != -1) close(orders_);
    orders_ = -1;
  }
  // Its exit status, or minus the number of the signal that ended it, or -1000 when it still runs.
  int exit_status() {
    constexpr int kStillRunning = -1000;
    int status = 0;
    for (int waited = 0; !ended_ && waited < kPatienceMilliseconds; ++waited) {
      ended_ = waitpid(pid_, &status, WNOHANG) == pid_;
      if (!ended_) std::this_thread::sleep_for(1ms);
    }
    if (!ended_) return kStillRunning;
    return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
  }

 private:
  int errors_;
  int orders_ = -1;
  int answers_ = -1;
  pid_t pid_ = -1;
  bool ended_ = false;
};

// The wire between this namespace (left) and another (right): test0 is the first link, plain0 the second.
class Bench {
 public:
  Bench() : wire({"capture", "fates", "1", link("test0"), link("plain0")}) {
    keep_quiet();
    if (wire.says() != "ready") throw std::runtime_error("the wire is not ready: " + wire.errors());
    left.emplace("test0");
    plain_left.emplace("plain0");
    far_place_.visit([this] {
      right.emplace("test0");
      plain_right.emplace("plain0");
    });
  }

  static std::string link_between(const std::string& left, const std::string& right,
                                  const std::string& device) {
    return left + "=" + device + "," + right + "=" + device;
  }
  // Waits until the files are as they will stay, by an order that changes nothing.
  void catches_up() const { EXPECT_EQ(wire.answers("delays 0"), "ok"); }
  std::string fates() const {
    catches_up();
    return whole_file("fates");
  }

 private:
  std::string link(const std::string& device) const {
    return link_between("/proc/self/ns/net", far_place_.path(), device);
  }

  ScratchDirectory directory_;
  FarPlace far_place_;

 public:
  WireProcess wire;
  std::optional<Station> left, right, plain_left, plain_right;

  void at_the_right(const std::function<void()>& function) const { far_place_.visit(function); }
};

struct CapturedFrame {
  double seconds;
  std::string bytes;
};

std::vector<CapturedFrame> captured_frames() {
  const std::string file = whole_file("capture");
  std::vector<CapturedFrame> frames;
  for (std::size_t position = 24; position < file.size();) {
    std::uint32_t header[4];
    file.copy(reinterpret_cast<char*>(header), sizeof header, position);
    position += sizeof header;
    frames.push_back({header[0] + header[1] / 1e6, file.substr(position, header[2])});
    position += header[2];
  }
  return frames;
}

double seconds_since_epoch() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

TEST(Wire, CarriesFramesBothWaysAndRecordsThem) {
  NEEDS_WIRE();
  const Bench bench;
  const double before = seconds_since_epoch();
  bench.left->sends("to the right");
  EXPECT_EQ(bench.right->receives(), "to the right");
  bench.right->sends("to the left");
  EXPECT_EQ(bench.left->receives(), "to the left");
  bench.plain_left->sends("plain, to the right");
  EXPECT_EQ(bench.plain_right->receives(), "plain, to the right");
  bench.plain_right->sends("plain, to the left");
  EXPECT_EQ(bench.plain_left->receives(), "plain, to the left");
  EXPECT_EQ(bench.fates(), "");
  const std::vector<CapturedFrame> frames = captured_frames();
  ASSERT_EQ(frames.size(), 4U);
  EXPECT_EQ(frames[0].bytes, Station::frame("to the right"));
  EXPECT_EQ(frames[1].bytes, Station::frame("to the left"));
  EXPECT_EQ(frames[2].bytes, Station::frame("plain, to the right"));
  EXPECT_EQ(frames[3].bytes, Station::frame("plain, to the left"));
  EXPECT_GE(frames.front().seconds, before - 0.001);
  EXPECT_LE(frames.back().seconds, seconds_since_epoch() + 0.001);
}

TEST(Wire, CarriesABurstInOrder) {
  NEEDS_WIRE();
  const Bench bench;
  for (int i = 0; i < 300; ++i) bench.left->sends(std::to_string(i));
  for (int i = 0; i < 300; ++i) ASSERT_EQ(bench.right->receives(), std::to_string(i));
}

TEST(Wire, CarriesFramesOfEveryLength) {
  NEEDS_WIRE();
  const Bench bench;
  bench.at_the_right([] { ip("link set test0 mtu 65521"); });
  ip("link set test0 mtu 65521");
  for (const std::size_t length : {0UL, 1UL, 1500UL, 65521UL}) {
    const std::string text(length, 'x');
    bench.left->sends(text);
    EXPECT_TRUE(bench.right->receives() == text) << length;
  }
  bench.catches_up();
  EXPECT_EQ(captured_frames().back().bytes.size(), 65535U);
}

TEST(Wire, TheFilesFollowByThemselves) {
  NEEDS_WIRE();
  const Bench bench;
  EXPECT_EQ(bench.wire.answers("loses 100"), "ok");
  bench.left->sends("lost");
  const auto end = Clock::now() + 10s;
  while (whole_file("fates").empty() && Clock::now() < end) std::this_thread::sleep_for(5ms);
  EXPECT_EQ(whole_file("fates"), "1 lost\n");
  EXPECT_EQ(captured_frames().size(), 1U);
}

TEST(Wire, LosesEveryFrameOfTheFirstLinkOnly) {
  NEEDS_WIRE();
  const Bench bench;
  EXPECT_EQ(bench.wire.answers("loses 100"), "ok");
  bench.left->sends("lost");
  bench.right->sends("lost too");
  bench.plain_left->sends("plain");
  EXPECT_EQ(bench.plain_right->receives(), "plain");
  EXPECT_EQ(bench.right->receives(kQuietMilliseconds), "nothing");
  EXPECT_EQ(bench.left->receives(0), "nothing");
  EXPECT_EQ(bench.wire.answers("loses 0"), "ok");
  bench.left->sends("not lost");
  EXPECT_EQ(bench.right->receives(), "not lost");
  EXPECT_EQ(bench.fates(), "1 lost\n2 lost\n");
  EXPECT_EQ(captured_frames().size(), 4U);
}

TEST(Wire, WhatWasSentBeforeAnOrderIsNotSubjectToIt) {
  NEEDS_WIRE();
  const Bench bench;
  for (int i = 0; i < 50; ++i) {
    bench.left->sends("before");
    EXPECT_EQ(bench.wire.answers("loses 100"), "ok");
    ASSERT_EQ(bench.right->receives(), "before");
    EXPECT_EQ(bench.wire.answers("loses 0"), "ok");
    std::this_thread::sleep_for(1ms);
  }
}

TEST(Wire, DoublesFrames) {
  NEEDS_WIRE();
  const Bench bench;
  EXPECT_EQ(bench.wire.answers("duplicates 100"), "ok");
  bench.right->sends("twice");
  EXPECT_EQ(bench.left->receives(), "twice");
  EXPECT_EQ(bench.left->receives(), "twice");
  EXPECT_EQ(bench.left->receives(kQuietMilliseconds), "nothing");
  EXPECT_EQ(bench.fates(), "1 doubled\n");
  EXPECT_EQ(captured_frames().size(), 1U);
}

TEST(Wire, SwapsFramesAndReleasesTheLastOneAlone) {
  NEEDS_WIRE();
  const Bench bench;
  EXPECT_EQ(bench.wire.answers("swaps 100"), "ok");
  // In one turn, so that the hold does not end between them.
  kill(bench.wire.pid(), SIGSTOP);
  bench.left->sends("first");
  bench.left->sends("second");
  bench.left->sends("third");
  kill(bench.wire.pid(), SIGCONT);
  EXPECT_EQ(bench.right->receives(), "second");
  EXPECT_EQ(bench.right->receives(), "first");
  EXPECT_EQ(bench.right->receives(), "third");
  EXPECT_EQ(bench.fates(), "1 swapped\n3 swapped\n");
}

TEST(Wire, DelaysFrames) {
  NEEDS_WIRE();
  const Bench bench;
  EXPECT_EQ(bench.wire.answers("delays 150"), "ok");
  const auto start = Clock::now();
  bench.left->sends("late");
  EXPECT_EQ(bench.right->receives(), "late");
  EXPECT_GE(Clock::now() - start, 150ms);
  EXPECT_LT(Clock::now() - start, 5s);
  EXPECT_EQ(bench.fates(), "");
}

TEST(Wire, ACutEndsByItselfAndIsOnRecord) {
  NEEDS_WIRE();
  const Bench bench;
  const double before = seconds_since_epoch();
  EXPECT_EQ(bench.wire.answers("cuts 0.5"), "ok");
  const double after = seconds_since_epoch();
  bench.left->sends("into the cut");
  EXPECT_EQ(bench.right->receives(600), "nothing");
  bench.left->sends("past the cut");
  EXPECT_EQ(bench.right->receives(), "past the cut");
  double from = 0;
  double until = 0;
  int length = 0;
  const std::string fates = bench.fates();
  ASSERT_EQ(std::sscanf(fates.c_str(), "cut %lf %lf\n%n", &from, &until, &length), 2) << fates;
  EXPECT_EQ(fates.substr(static_cast<std::size_t>(length)), "1 lost\n");
  EXPECT_GE(from, before - 0.001);
  EXPECT_LE(from, after + 0.001);
  EXPECT_NEAR(until - from, 0.5, 0.000002);
}

TEST(Wire, RefusesWhatIsNoOrderAndGoesOn) {
  NEEDS_WIRE();
  const Bench bench;
  EXPECT_EQ(bench.wire.answers("sings"), "refused: loses, duplicates, swaps, delays or cuts, and a number");
  EXPECT_EQ(bench.wire.answers("loses 101"), "refused: loses and a number of percent from 0 to 100");
  bench.left->sends("still there");
  EXPECT_EQ(bench.right->receives(), "still there");
}

TEST(Wire, TakesOrdersInPiecesAndSeveralAtOnce) {
  NEEDS_WIRE();
  const Bench bench;
  bench.wire.is_told("loses 1");
  std::this_thread::sleep_for(50ms);
  bench.wire.is_told("00\nswaps x\nduplicates 5\n");
  EXPECT_EQ(bench.wire.says(), "ok");
  EXPECT_EQ(bench.wire.says(), "refused: swaps and a number of percent from 0 to 100");
  EXPECT_EQ(bench.wire.says(), "ok");
  bench.left->sends("lost");
  EXPECT_EQ(bench.fates(), "1 lost\n");
}

TEST(Wire, FollowsOrdersWhileFramesKeepComing) {
  NEEDS_WIRE();
  const Bench bench;
  std::atomic<bool> flooding = true;
  const auto floods = [&](const Station& station) {
    while (flooding) station.can_send("more");
  };
  std::thread flood(floods, std::cref(*bench.plain_left));
  std::thread flood_back(floods, std::cref(*bench.plain_right));
  EXPECT_EQ(bench.wire.answers("loses 100"), "ok");
  bench.left->sends("lost");
  EXPECT_EQ(bench.right->receives(kQuietMilliseconds), "nothing");
  flooding = false;
  flood.join();
  flood_back.join();
}

TEST(Wire, LosesWhatADeviceDoesNotTake) {
  NEEDS_WIRE();
  const Bench bench;
  bench.at_the_right([] { ip("link set test0 down"); });
  bench.left->sends("to a device that is down");
  EXPECT_EQ(bench.fates(), "1 lost\n");
  bench.at_the_right([] { ip("link set test0 up"); });
  bench.left->sends("to a device that is up");
  EXPECT_EQ(bench.right->receives(), "to a device that is up");
}

// The processor time of a process so far, in clock ticks of 10 ms.
long ticks_of(pid_t pid) {
  const std::string state = whole_file("/proc/" + std::to_string(pid) + "/stat");
  long user = 0;
  long kernel = 0;
  std::sscanf(state.c_str() + state.rfind(')'), ") %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %ld %ld",
              &user, &kernel);
  return user + kernel;
}

TEST(Wire, SleepsWhenNothingComesEvenWhenADeviceIsDeleted) {
  NEEDS_WIRE();
  const Bench bench;
  bench.left->sends("awake");
  EXPECT_EQ(bench.right->receives(), "awake");
  ip("link delete test0");
  bench.plain_left->sends("plain");
  EXPECT_EQ(bench.plain_right->receives(), "plain");
  const long before = ticks_of(bench.wire.pid());
  ASSERT_GE(before, 0);
  std::this_thread::sleep_for(1s);
  EXPECT_LE(ticks_of(bench.wire.pid()) - before, 10);
}

TEST(Wire, EndsWithItsOrdersAndDropsWhatIsDelayed) {
  NEEDS_WIRE();
  Bench bench;
  EXPECT_EQ(bench.wire.answers("delays 60000"), "ok");
  bench.left->sends("delayed");
  bench.catches_up();
  bench.plain_left->sends("recorded");
  EXPECT_EQ(bench.plain_right->receives(), "recorded");
  bench.wire.end_orders();
  EXPECT_EQ(bench.wire.exit_status(), 0);
  EXPECT_EQ(bench.right->receives(0), "nothing");
  EXPECT_EQ(captured_frames().size(), 2U);
  EXPECT_EQ(bench.wire.errors(), "");
  EXPECT_EQ(if_nametoindex("test0"), 0U);
}

TEST(Wire, EndsWithZeroOnSignals) {
  NEEDS_WIRE();
  for (const int signal_number : {SIGTERM, SIGINT}) {
    Bench bench;
    bench.plain_left->sends("recorded");
    EXPECT_EQ(bench.plain_right->receives(), "recorded");
    kill(bench.wire.pid(), signal_number);
    EXPECT_EQ(bench.wire.exit_status(), 0);
    EXPECT_EQ(captured_frames().size(), 1U);
  }
}

void expect_failure(const std::vector<std::string>& words, const std::string& line) {
  WireProcess wire(words);
  EXPECT_EQ(wire.exit_status(), 2);
  EXPECT_EQ(wire.errors(), line + "\n");
  EXPECT_EQ(wire.says(), " (no end of line)");
}

TEST(Wire, SaysWhatItExpectedAndEndsWithTwo) {
  NEEDS_WIRE();
  const ScratchDirectory directory;
  const FarPlace far_place;
  const std::string here = "/proc/self/ns/net";
  const std::string link = Bench::link_between(here, far_place.path(), "test0");
  expect_failure({"capture", "fates", "1"}, "wire: expected CAPTURE FATES SEED LINK [LINK]");
  expect_failure({"/nowhere/capture", "fates", "1", link},
                 "wire: expected a file that can be written: /nowhere/capture: No such file or directory");
  expect_failure({"capture", "/nowhere/fates", "1", link},
                 "wire: expected a file that can be written: /nowhere/fates: No such file or directory");
  expect_failure({"capture", "fates", "1", Bench::link_between(here, "/nowhere", "test0")},
                 "wire: expected a namespace that can be opened, /nowhere: No such file or directory");
  expect_failure({"capture", "fates", "1", Bench::link_between(here, "/dev/null", "test0")},
                 "wire: expected a network namespace and the right to enter it, /dev/null: Invalid argument");
  expect_failure({"capture", "fates", "1", Bench::link_between(here, here, "test0")},
                 "wire: expected the right to make a device, and a name that is free, test0 in " + here +
                     ": Device or resource busy");
}

}  // namespace
