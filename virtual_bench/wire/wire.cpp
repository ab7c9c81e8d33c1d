#include "wire/wire.h"

#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <stdexcept>

namespace {

using namespace std::chrono_literals;

constexpr std::size_t kTestNetwork = 0;  // whose cuts are on record
constexpr int kFramesPerTurn = 64;
constexpr Damage::Duration kSpinTime = 100us;
// How long orders may wait while frames keep the wire awake.
constexpr Damage::Duration kOrdersInterval = 1ms;
// How old what is not yet in the file may get.
constexpr Damage::Duration kFlushInterval = 10ms;
// How long it sleeps when there is nothing to wake for.
constexpr Damage::Duration kLongestSleep = 1h;

record::Nanoseconds time_of_day() {
  const auto time = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::nanoseconds>(time).count();
}

std::vector<std::string> names_of(const std::vector<Wire::Ends>& links) {
  std::vector<std::string> names;
  names.reserve(links.size());
  for (const Wire::Ends& ends : links) names.push_back(ends[0].device);
  return names;
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

timespec as_timespec(Damage::Duration time) {
  const auto nanoseconds = std::chrono::duration_cast<std::chrono::nanoseconds>(time).count();
  return {static_cast<std::time_t>(nanoseconds / 1000000000), static_cast<long>(nanoseconds % 1000000000)};
}

}  // namespace

Wire::Wire(const std::string& record, std::uint64_t seed, const std::vector<Ends>& links)
    : record_(record, names_of(links)) {
  for (const Ends& ends : links) links_.push_back(std::make_unique<Link>(this, seed + links_.size(), ends));
}

void Wire::run(int orders, int answers) {
  const int signals = ending_signals();
  Time awake_until = Time::min();
  Time next_look = Time::min();
  for (;;) {
    const Time now = Damage::Clock::now();
    const bool came = take_frames(now);
    if (came) awake_until = now + kSpinTime;
    for (const auto& link : links_) link->damage.let_out(now);
    if (flush_due_ && *flush_due_ <= now) flush();
    if (now < awake_until && now < next_look) {
      if (!came) sched_yield();
      continue;
    }
    const Wake wake = sleep(orders, signals, now < awake_until ? now : next_due(now));
    if (wake == Wake::kSignal || (wake == Wake::kOrder && !follow_next_order(orders, answers))) break;
    next_look = Damage::Clock::now() + kOrdersInterval;
  }
  flush();
}

bool Wire::take_frames(Time now) {
  bool came = false;
  for (std::size_t link = 0; link < links_.size(); ++link) {
    for (std::size_t end = 0; end < links_[link]->ends.size(); ++end) {
      if (take_frames_of(link, end, now)) came = true;
    }
  }
  return came;
}

bool Wire::take_frames_of(std::size_t link, std::size_t end, Time now) {
  TapDevice& device = links_[link]->ends[end];
  for (int i = 0; i < kFramesPerTurn; ++i) {
    const std::size_t length = device.take(frame_.data(), frame_.size());
    if (length == 0) return i > 0;
    const std::string_view frame(frame_.data(), length);
    const std::uint64_t number = record_.add_frame(link, frame, time_of_day());
    if (!flush_due_) flush_due_ = now + kFlushInterval;
    links_[link]->damage.enter(end == 0 ? 0 : 1, number, frame, now);
  }
  return true;
}

Wire::Link::Link(Wire* wire, std::uint64_t seed, const Ends& devices) : damage(seed, *this), wire_(wire) {
  for (const End& end : devices) ends.emplace_back(end.place, end.device);
}

void Wire::Link::leave(int direction, std::uint64_t number, std::string_view frame, int copies) {
  const auto first = ends.begin() + (direction == 0 ? 1 : 0);
  bool arrived = false;
  for (auto end = first; end != (direction == 0 ? ends.end() : first + 1); ++end) {
    for (int i = 0; i < copies; ++i) {
      if (end->deliver(frame)) arrived = true;
    }
  }
  if (!arrived) note(number, Fate::kLostAtTheEnd);
}

void Wire::Link::note(std::uint64_t number, Fate fate) {
  wire_->record_.add_fate(number, fate, time_of_day());
  if (!wire_->flush_due_) wire_->flush_due_ = Damage::Clock::now() + kFlushInterval;
}

Wire::Time Wire::next_due(Time now) const {
  Time due = now + kLongestSleep;
  if (flush_due_) due = std::min(due, *flush_due_);
  for (const auto& link : links_) {
    if (const std::optional<Time> waiting = link->damage.next_due()) due = std::min(due, *waiting);
  }
  return due;
}

// Until a frame, an order or a signal comes, at most until the time.
Wire::Wake Wire::sleep(int orders, int signals, Time until) const {
  std::vector<pollfd> watched = {{orders, POLLIN, 0}, {signals, POLLIN, 0}};
  for (const auto& link : links_) {
    for (const TapDevice& end : link->ends) watched.push_back({end.descriptor(), POLLIN, 0});
  }
  const timespec limit = as_timespec(std::max(until - Damage::Clock::now(), Damage::Duration::zero()));
  if (ppoll(watched.data(), watched.size(), &limit, nullptr) <= 0) return Wake::kTimeOrFrame;
  if (watched[1].revents != 0) return Wake::kSignal;
  return watched[0].revents != 0 ? Wake::kOrder : Wake::kTimeOrFrame;
}

// False when there will be no more.
bool Wire::follow_next_order(int orders, int answers) {
  // What was sent before the order is not subject to it.
  take_frames(Damage::Clock::now());
  Order order;
  if (recv(orders, &order, sizeof order, MSG_WAITALL) != sizeof order) return false;
  follow(order);
  flush();
  const char done = 1;
  return write(answers, &done, sizeof done) == sizeof done;
}

void Wire::follow(const Order& order) {
  using Seconds = std::chrono::duration<double>;
  using Milliseconds = std::chrono::duration<double, std::milli>;
  Damage& damage = links_.at(order.link)->damage;
  switch (order.what) {
    case Order::What::kLose:
      return damage.lose(order.amount);
    case Order::What::kDuplicate:
      return damage.duplicate(order.amount);
    case Order::What::kSwap:
      return damage.swap(order.amount);
    case Order::What::kDelay:
      return damage.delay(std::chrono::duration_cast<Damage::Duration>(Milliseconds(order.amount)));
    case Order::What::kCut: {
      const Seconds time(order.amount);
      const record::Nanoseconds from = time_of_day();
      damage.cut(std::chrono::duration_cast<Damage::Duration>(time), Damage::Clock::now());
      if (order.link == kTestNetwork)
        record_.add_cut(std::chrono::duration_cast<std::chrono::nanoseconds>(time).count(), from);
      return;
    }
    case Order::What::kLoseNoMore:
      return damage.losses().clear();
    default:
      damage.losses().add(order);
  }
}

void Wire::flush() {
  record_.flush();
  flush_due_.reset();
}
