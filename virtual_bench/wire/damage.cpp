#include "wire/damage.h"

#include <algorithm>

bool Damage::happens(double percent) {
  // The upper 53 bits are a fraction that a double holds exactly, below 1.
  constexpr double kPercentPerStep = 100.0 / 9007199254740992.0;
  return static_cast<double>(generator_() >> 11) * kPercentPerStep < percent;
}

void Damage::cut(Duration time, Time now) {
  let_out(now);
  for (Direction& direction : directions_) {
    for (const WaitingFrame& waiting : direction.delayed) sink_.note(waiting.number, Fate::kLostByCut);
    if (direction.held) sink_.note(direction.held->number, Fate::kLostByCut);
    direction.delayed.clear();
    direction.held.reset();
  }
  delayed_bytes_ = 0;
  cut_until_ = now + time;
}

void Damage::enter(int direction, std::uint64_t number, std::string_view frame, Time now) {
  let_out(now);
  const bool is_lost = happens(lost_percent_);
  const bool is_duplicated = happens(duplicated_percent_);
  const bool is_swapped = happens(swapped_percent_);
  const bool is_cut = now < cut_until_;
  const bool is_picked = losses_.takes(frame, is_cut || is_lost);
  if (is_cut || is_lost || is_picked)
    return sink_.note(number, is_cut      ? Fate::kLostByCut
                              : is_picked ? Fate::kLostAsOrdered
                                          : Fate::kLostByChance);
  if (is_duplicated) sink_.note(number, Fate::kDuplicated);
  const int copies = is_duplicated ? 2 : 1;
  std::optional<WaitingFrame>& held = directions_[direction].held;
  if (is_swapped && !held) {
    sink_.note(number, Fate::kSwapped);
    held = WaitingFrame{number, std::string(frame), copies, now + kHoldTime};
    return;
  }
  go_on(direction, {number, frame, copies}, now);
  if (held) release_held(direction, now);
}

void Damage::let_out(Time now) {
  for (int direction : {0, 1}) {
    std::deque<WaitingFrame>& delayed = directions_[direction].delayed;
    while (!delayed.empty() && delayed.front().due <= now) {
      const WaitingFrame& first = delayed.front();
      sink_.leave(direction, first.number, first.bytes, first.copies);
      delayed_bytes_ -= first.bytes.size();
      delayed.pop_front();
    }
    const std::optional<WaitingFrame>& held = directions_[direction].held;
    if (held && held->due <= now) release_held(direction, now);
  }
}

std::optional<Damage::Time> Damage::next_due() const {
  std::optional<Time> next;
  const auto consider = [&next](Time due) { next = next ? std::min(*next, due) : due; };
  for (const Direction& direction : directions_) {
    if (direction.held) consider(direction.held->due);
    if (!direction.delayed.empty()) consider(direction.delayed.front().due);
  }
  return next;
}

// Everything that is due has left, so that whatever is still delayed is due later than now.
void Damage::go_on(int direction, const Frame& frame, Time now) {
  std::deque<WaitingFrame>& delayed = directions_[direction].delayed;
  const Time due = delayed.empty() ? now + delay_ : std::max(now + delay_, delayed.back().due);
  if (due <= now) {
    sink_.leave(direction, frame.number, frame.bytes, frame.copies);
  } else if (delayed_bytes_ + frame.bytes.size() > kMostDelayedBytes) {
    sink_.note(frame.number, Fate::kLostAtTheEnd);
  } else {
    delayed.push_back({frame.number, std::string(frame.bytes), frame.copies, due});
    delayed_bytes_ += frame.bytes.size();
  }
}

void Damage::release_held(int direction, Time now) {
  std::optional<WaitingFrame>& held = directions_[direction].held;
  go_on(direction, held->frame(), now);
  held.reset();
}
