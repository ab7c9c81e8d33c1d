// The wire in its process: devices in two namespaces, Ethernet frames at their ends, orders to it.

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <optional>
#include <thread>

#include "record/reader.h"
#include "record/run_entry.h"
#include "stage/network_namespace.h"
#include "support/sandbox.h"
#include "support/scratch_directory.h"
#include "wire/wire_process.h"
#include "wire/wire_record.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using What = Order::What;

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

struct RecordedFrame {
  double seconds;
  std::string bytes;
};

std::vector<RecordedFrame> recorded_frames() {
  std::ifstream file("record", std::ios::binary);
  record::Reader reader(file);
  std::vector<RecordedFrame> frames;
  while (const auto item = reader.next()) {
    if (const auto* const frame = std::get_if<record::Frame>(&*item)) {
      frames.push_back({static_cast<double>(frame->at) / 1e9, std::string(frame->bytes)});
    }
  }
  return frames;
}

// A line for each: the frame's number, and what the wire did to it.
std::string recorded_fates() {
  std::ifstream file("record", std::ios::binary);
  std::string text;
  for (const auto& [number, comments] : read_fates(file).of_frames) {
    for (const std::string& comment : comments) text += std::to_string(number) + " " + comment + "\n";
  }
  return text;
}

// The wire between this namespace (left) and another (right): test0 is the first link, plain0 the second.
class Bench {
 public:
  Bench() {
    left.emplace("test0");
    plain_left.emplace("plain0");
    const ScopedNamespace inside(right_place);
    right.emplace("test0");
    plain_right.emplace("plain0");
  }

  // Waits until the file is as it will stay, by an order that changes nothing.
  void catches_up() const { wire.order({What::kDelay, 0}); }
  std::string fates() const {
    catches_up();
    return recorded_fates();
  }

 private:
  ScratchDirectory directory_;
  NetworkNamespace left_place_ = NetworkNamespace::current();

 public:
  NetworkNamespace right_place;
  WireProcess wire{"record",
                   1,
                   {{{left_place_, "test0"}, {right_place, "test0"}},
                    {{{left_place_, "plain0"}, {right_place, "plain0"}}}}};
  std::optional<Station> left, right, plain_left, plain_right;
};

// Two machines at the far end of a link: both get what the first end sends, and it gets what either sends.
TEST(Wire, JoinsSeveralEndsWithTheFirst) {
  NEEDS_WIRE();
  const ScratchDirectory directory;
  const NetworkNamespace here = NetworkNamespace::current();
  const NetworkNamespace one, other;
  const WireProcess wire("record", 1, {{{here, "first0"}, {one, "far0"}, {other, "far0"}}});
  const Station first("first0");
  std::optional<Station> one_station, other_station;
  {
    const ScopedNamespace inside(one);
    one_station.emplace("far0");
  }
  {
    const ScopedNamespace inside(other);
    other_station.emplace("far0");
  }
  first.sends("to all");
  EXPECT_EQ(one_station->receives(), "to all");
  EXPECT_EQ(other_station->receives(), "to all");
  one_station->sends("from one");
  EXPECT_EQ(first.receives(), "from one");
  other_station->sends("from the other");
  EXPECT_EQ(first.receives(), "from the other");
  wire.order({What::kDelay, 0});
  EXPECT_EQ(recorded_fates(), "");
  EXPECT_EQ(recorded_frames().size(), 3U);
}

double seconds_since_epoch() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

TEST(Wire, CarriesFramesBothWaysAndRecordsThem) {
  NEEDS_WIRE();
  Bench bench;
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
  const std::vector<RecordedFrame> frames = recorded_frames();
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
  Bench bench;
  for (int i = 0; i < 300; ++i) bench.left->sends(std::to_string(i));
  for (int i = 0; i < 300; ++i) ASSERT_EQ(bench.right->receives(), std::to_string(i));
}

TEST(Wire, CarriesFramesOfEveryLength) {
  NEEDS_WIRE();
  Bench bench;
  ip(bench.right_place, "link set test0 mtu 65521");
  ip("link set test0 mtu 65521");
  for (const std::size_t length : {0UL, 1UL, 1500UL, 65521UL}) {
    const std::string text(length, 'x');
    bench.left->sends(text);
    EXPECT_TRUE(bench.right->receives() == text) << length;
  }
  bench.catches_up();
  EXPECT_EQ(recorded_frames().back().bytes.size(), 65535U);
}

TEST(Wire, TheFileFollowsByItself) {
  NEEDS_WIRE();
  Bench bench;
  bench.wire.order({What::kLose, 100});
  bench.left->sends("lost");
  const auto end = Clock::now() + 10s;
  while (recorded_fates().empty() && Clock::now() < end) std::this_thread::sleep_for(5ms);
  EXPECT_EQ(recorded_fates(), "1 lost: by chance\n");
  EXPECT_EQ(recorded_frames().size(), 1U);
}

TEST(Wire, LosesEveryFrameOfTheLinkThatIsMeant) {
  NEEDS_WIRE();
  Bench bench;
  bench.wire.order({What::kLose, 100});
  bench.left->sends("lost");
  bench.right->sends("lost too");
  bench.plain_left->sends("plain");
  EXPECT_EQ(bench.plain_right->receives(), "plain");
  EXPECT_EQ(bench.right->receives(kQuietMilliseconds), "nothing");
  EXPECT_EQ(bench.left->receives(0), "nothing");
  bench.wire.order({What::kLose, 0});
  bench.left->sends("not lost");
  EXPECT_EQ(bench.right->receives(), "not lost");
  EXPECT_EQ(bench.fates(), "1 lost: by chance\n2 lost: by chance\n");
  EXPECT_EQ(recorded_frames().size(), 4U);
}

TEST(Wire, WhatWasSentBeforeAnOrderIsNotSubjectToIt) {
  NEEDS_WIRE();
  Bench bench;
  for (int i = 0; i < 50; ++i) {
    bench.left->sends("before");
    bench.wire.order({What::kLose, 100});
    ASSERT_EQ(bench.right->receives(), "before");
    bench.wire.order({What::kLose, 0});
    std::this_thread::sleep_for(1ms);
  }
}

TEST(Wire, DuplicatesFrames) {
  NEEDS_WIRE();
  Bench bench;
  bench.wire.order({What::kDuplicate, 100});
  bench.right->sends("twice");
  EXPECT_EQ(bench.left->receives(), "twice");
  EXPECT_EQ(bench.left->receives(), "twice");
  EXPECT_EQ(bench.left->receives(kQuietMilliseconds), "nothing");
  EXPECT_EQ(bench.fates(), "1 duplicated\n");
  EXPECT_EQ(recorded_frames().size(), 1U);
}

TEST(Wire, SwapsFramesAndReleasesTheLastOneAlone) {
  NEEDS_WIRE();
  Bench bench;
  bench.wire.order({What::kSwap, 100});
  // In one turn, so that the hold does not end between them.
  kill(bench.wire.process().pid(), SIGSTOP);
  bench.left->sends("first");
  bench.left->sends("second");
  bench.left->sends("third");
  kill(bench.wire.process().pid(), SIGCONT);
  EXPECT_EQ(bench.right->receives(), "second");
  EXPECT_EQ(bench.right->receives(), "first");
  EXPECT_EQ(bench.right->receives(), "third");
  EXPECT_EQ(bench.fates(), "1 swapped with the next one\n3 swapped with the next one\n");
}

TEST(Wire, DelaysFrames) {
  NEEDS_WIRE();
  Bench bench;
  bench.wire.order({What::kDelay, 150});
  const auto start = Clock::now();
  bench.left->sends("late");
  EXPECT_EQ(bench.right->receives(), "late");
  EXPECT_GE(Clock::now() - start, 150ms);
  EXPECT_LT(Clock::now() - start, 5s);
  EXPECT_EQ(bench.fates(), "");
}

TEST(Wire, ACutEndsByItselfAndIsOnRecord) {
  NEEDS_WIRE();
  Bench bench;
  const double before = seconds_since_epoch();
  bench.wire.order({What::kCut, 0.5});
  const double after = seconds_since_epoch();
  bench.left->sends("into the cut");
  EXPECT_EQ(bench.right->receives(600), "nothing");
  bench.left->sends("past the cut");
  EXPECT_EQ(bench.right->receives(), "past the cut");
  EXPECT_EQ(bench.fates(), "1 lost: the cable was out\n");
  std::ifstream file("record", std::ios::binary);
  const std::vector<record::Entry> cuts = read_fates(file).cuts;
  ASSERT_EQ(cuts.size(), 1U);
  EXPECT_GE(static_cast<double>(cuts[0].at) / 1e9, before - 0.001);
  EXPECT_LE(static_cast<double>(cuts[0].at) / 1e9, after + 0.001);
  EXPECT_EQ(std::get<record::Cut>(record::said_by(cuts[0]).value()).lasts, 500000000);
}

TEST(Wire, FollowsOrdersWhileFramesKeepComing) {
  NEEDS_WIRE();
  Bench bench;
  std::atomic<bool> flooding = true;
  const auto floods = [&](const Station& station) {
    while (flooding) station.can_send("more");
  };
  std::thread flood(floods, std::cref(*bench.plain_left));
  std::thread flood_back(floods, std::cref(*bench.plain_right));
  bench.wire.order({What::kLose, 100});
  bench.left->sends("lost");
  EXPECT_EQ(bench.right->receives(kQuietMilliseconds), "nothing");
  flooding = false;
  flood.join();
  flood_back.join();
}

TEST(Wire, LosesWhatADeviceDoesNotTake) {
  NEEDS_WIRE();
  Bench bench;
  ip(bench.right_place, "link set test0 down");
  bench.left->sends("to a device that is down");
  EXPECT_EQ(bench.fates(), "1 lost: the far end took none\n");
  ip(bench.right_place, "link set test0 up");
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

TEST(Wire, RefusesOrdersOnceItHasEnded) {
  NEEDS_WIRE();
  Bench bench;
  bench.wire.process().send_signal(SIGKILL);
  EXPECT_THROW(bench.wire.order({What::kLose, 5}), std::runtime_error);
}

TEST(Wire, SleepsWhenNothingComesEvenWhenADeviceIsDeleted) {
  NEEDS_WIRE();
  Bench bench;
  bench.left->sends("awake");
  EXPECT_EQ(bench.right->receives(), "awake");
  ip("link delete test0");
  bench.plain_left->sends("plain");
  EXPECT_EQ(bench.plain_right->receives(), "plain");
  const long before = ticks_of(bench.wire.process().pid());
  ASSERT_GE(before, 0);
  std::this_thread::sleep_for(1s);
  EXPECT_LE(ticks_of(bench.wire.process().pid()) - before, 10);
}

TEST(Wire, EndsWithItsOrdersAndDropsWhatIsDelayed) {
  NEEDS_WIRE();
  Bench bench;
  bench.wire.order({What::kDelay, 60000});
  bench.left->sends("delayed");
  bench.catches_up();
  bench.plain_left->sends("recorded");
  EXPECT_EQ(bench.plain_right->receives(), "recorded");
  bench.wire.process().close_input();
  EXPECT_EQ(bench.wire.process().wait_for_end()->text(), "exit status 0");
  EXPECT_EQ(bench.right->receives(0), "nothing");
  EXPECT_EQ(recorded_frames().size(), 2U);
  EXPECT_EQ(if_nametoindex("test0"), 0U);
}

TEST(Wire, EndsWithZeroOnSignals) {
  NEEDS_WIRE();
  for (const int signal_number : {SIGTERM, SIGINT}) {
    Bench bench;
    bench.plain_left->sends("recorded");
    EXPECT_EQ(bench.plain_right->receives(), "recorded");
    kill(bench.wire.process().pid(), signal_number);
    EXPECT_EQ(bench.wire.process().wait_for_end()->text(), "exit status 0");
    EXPECT_EQ(recorded_frames().size(), 1U);
  }
}

void expect_refused(const std::string& record, const std::string& device, const std::string& expected) {
  const NetworkNamespace here = NetworkNamespace::current();
  const NetworkNamespace there;
  try {
    const WireProcess wire(record, 1, {{{here, "taken0"}, {there, device}}});
    FAIL() << "was made instead of: " << expected;
  } catch (const std::runtime_error& error) {
    EXPECT_EQ(error.what(), expected);
  }
}

TEST(Wire, SaysWhatItExpected) {
  NEEDS_WIRE();
  const ScratchDirectory directory;
  const NetworkNamespace here = NetworkNamespace::current();
  expect_refused("/nowhere/record", "test0",
                 "expected a file that can be written: /nowhere/record: No such file or directory");
  for (const std::string device : {"", "0123456789abcdef"}) {
    expect_refused("record", device,
                   "expected a device name of 1 to 15 characters instead of '" + device + "'");
  }
  const TapDevice first(here, "taken0");
  expect_refused(
      "record", "test0",
      "expected the right to make a device, and a name that is free, taken0: Device or resource busy");
}

}  // namespace
