#include "wire/wire.h"

#include <poll.h>
#include <sched.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace {

using namespace std::chrono_literals;

constexpr std::size_t kDamagedLink = 0;
constexpr int kFramesPerTurn = 64;
constexpr Damage::Duration kWakefulTime = 100us;
// How long orders may wait while frames keep the wire awake.
constexpr Damage::Duration kOrdersInterval = 1ms;
// How old what is not yet in the files may get.
constexpr Damage::Duration kFlushInterval = 10ms;
// How long it sleeps when there is nothing to wake for.
constexpr Damage::Duration kLongestSleep = 1h;

std::uint64_t microseconds_since_epoch() {
  const auto time = std::chrono::system_clock::now().time_since_epoch();
  return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(time).count());
}

int ending_signals() {
  sigset_t ending;
  sigemptyset(&ending);
  sigaddset(&ending, SIGTERM);
  sigaddset(&ending, SIGINT);
  sigprocmask(SIG_BLOCK, &ending, nullptr);
  const int descriptor = signalfd(-1, &ending, SFD_CLOEXEC);
  if (descriptor == -1) throw std::runtime_error(std::string("expected a signalfd: ") + std::strerror(errno));
  return descriptor;
}

// Nobody may be listening any more; then standard input ends too.
void say(const std::string& line) {
  const std::string text = line + "\n";
  if (write(STDOUT_FILENO, text.data(), text.size()) == -1) return;
}

timespec as_timespec(Damage::Duration time) {
  const auto nanoseconds = std::chrono::duration_cast<std::chrono::nanoseconds>(time).count();
  return {nanoseconds / 1000000000, nanoseconds % 1000000000};
}

}  // namespace

Wire::Wire(const Arguments& arguments)
    : capture_(arguments.capture),
      fates_(arguments.fates),
      damage_(arguments.seed, *this),
      signals_(ending_signals()) {
  for (const LinkAddress& link : arguments.links) {
    links_.push_back({{TapDevice(link[0].network_namespace, link[0].device),
                       TapDevice(link[1].network_namespace, link[1].device)}});
  }
}

Wire::~Wire() {
  close(signals_);
}

void Wire::run() {
  say("ready");
  Time awake_until = Time::min();
  Time next_look = Time::min();
  for (;;) {
    const Time now = Damage::Clock::now();
    const bool came = take_frames(now);
    if (came) awake_until = now + kWakefulTime;
    damage_.let_out(now);
    if (flush_due_ && *flush_due_ <= now) flush();
    if (now < awake_until && now < next_look) {
      if (!came) sched_yield();
      continue;
    }
    if (!goes_on_after_waiting(now < awake_until ? now : next_due(now))) break;
    next_look = Damage::Clock::now() + kOrdersInterval;
  }
  flush();
}

bool Wire::take_frames(Time now) {
  bool came = false;
  for (std::size_t link = 0; link < links_.size(); ++link) {
    for (int end : {0, 1}) {
      if (take_frames_of(link, end, now)) came = true;
    }
  }
  return came;
}

bool Wire::take_frames_of(std::size_t link, int end, Time now) {
  TapDevice& device = links_[link].ends[static_cast<std::size_t>(end)];
  for (int i = 0; i < kFramesPerTurn; ++i) {
    const std::size_t length = device.take(capture_.room(), Capture::kLongestFrameBytes);
    if (length == 0) return i > 0;
    const std::string_view frame = capture_.keep(length, microseconds_since_epoch());
    if (!flush_due_) flush_due_ = now + kFlushInterval;
    if (link == kDamagedLink) {
      damage_.enter(end, capture_.count(), frame, now);
    } else {
      deliver(link, end, capture_.count(), frame, 1);
    }
  }
  return true;
}

void Wire::leave(int direction, std::uint64_t number, std::string_view frame, int copies) {
  deliver(kDamagedLink, direction, number, frame, copies);
}

// A direction has the number of the end that it comes from.
void Wire::deliver(std::size_t link, int direction, std::uint64_t number, std::string_view frame,
                   int copies) {
  TapDevice& far_end = links_[link].ends[static_cast<std::size_t>(1 - direction)];
  bool arrived = false;
  for (int i = 0; i < copies; ++i) {
    if (far_end.deliver(frame)) arrived = true;
  }
  if (!arrived) suffer(number, Fate::kLost);
}

void Wire::suffer(std::uint64_t number, Fate fate) {
  fates_.note(number, fate);
  if (!flush_due_) flush_due_ = Damage::Clock::now() + kFlushInterval;
}

Wire::Time Wire::next_due(Time now) const {
  Time due = now + kLongestSleep;
  if (flush_due_) due = std::min(due, *flush_due_);
  if (const std::optional<Time> waiting = damage_.next_due()) due = std::min(due, *waiting);
  return due;
}

// Sleeps until a frame, an order or a signal comes, at most until the time. False when it is time to end.
bool Wire::goes_on_after_waiting(Time until) {
  std::vector<pollfd> watched = {{STDIN_FILENO, POLLIN, 0}, {signals_, POLLIN, 0}};
  for (const Link& link : links_) {
    for (const TapDevice& end : link.ends) watched.push_back({end.descriptor(), POLLIN, 0});
  }
  const timespec limit = as_timespec(std::max(until - Damage::Clock::now(), Damage::Duration::zero()));
  if (ppoll(watched.data(), watched.size(), &limit, nullptr) <= 0) return true;
  if (watched[1].revents != 0) return false;
  return watched[0].revents == 0 || follow_orders();
}

// False when there will be no more.
bool Wire::follow_orders() {
  // What was sent before the orders is not subject to them.
  take_frames(Damage::Clock::now());
  char piece[4096];
  const ssize_t length = read(STDIN_FILENO, piece, sizeof piece);
  if (length <= 0) return false;
  unfinished_line_.append(piece, static_cast<std::size_t>(length));
  for (std::size_t end = unfinished_line_.find('\n'); end != std::string::npos;
       end = unfinished_line_.find('\n')) {
    const std::string answer = answer_to(std::string_view(unfinished_line_).substr(0, end));
    unfinished_line_.erase(0, end + 1);
    flush();
    say(answer);
  }
  return true;
}

std::string Wire::answer_to(std::string_view line) {
  const ReadOrder read = read_order(line);
  if (!read.is_valid) return "refused: " + read.expected;
  follow(read.order);
  return "ok";
}

void Wire::follow(const Order& order) {
  using Seconds = std::chrono::duration<double>;
  using Milliseconds = std::chrono::duration<double, std::milli>;
  switch (order.what) {
    case Order::What::kLose:
      return damage_.lose(order.amount);
    case Order::What::kDuplicate:
      return damage_.duplicate(order.amount);
    case Order::What::kSwap:
      return damage_.swap(order.amount);
    case Order::What::kDelay:
      return damage_.delay(std::chrono::duration_cast<Damage::Duration>(Milliseconds(order.amount)));
    case Order::What::kCut: {
      const std::uint64_t from = microseconds_since_epoch();
      const Seconds time(order.amount);
      damage_.cut(std::chrono::duration_cast<Damage::Duration>(time), Damage::Clock::now());
      const auto lasts = std::chrono::duration_cast<std::chrono::microseconds>(time).count();
      fates_.note_cut(from, from + static_cast<std::uint64_t>(lasts));
    }
  }
}

void Wire::flush() {
  capture_.flush();
  fates_.flush();
  flush_due_.reset();
}
