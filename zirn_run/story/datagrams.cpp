#include "story/datagrams.h"

#include <algorithm>
#include <string_view>

#include "story/roles.h"

namespace story {

namespace {

using frames::Packet;

// Of either no more may be kept than was said.
bool passes_on(const Said& out, const Said& in) {
  const std::string_view one = passed_on_part(out.text);
  const std::string_view other = passed_on_part(in.text);
  const std::size_t common = std::min(one.size(), other.size());
  const bool is_cut = out.text.size() < out.size || in.text.size() < in.size;
  return one.substr(0, common) == other.substr(0, common) && (one.size() == other.size() || is_cut);
}

}  // namespace

void Datagrams::take_boot_script(const Packet& packet, std::size_t source) {
  if (boot_script_step_ == kNone) {
    boot_script_step_ = book_->add_step(Step::Kind::kBootScript, packet, source, kEveryone, kNone);
    book_->reading.boot_script = BootScript();
    book_->reading.boot_script->first = packet.at;
  } else {
    book_->fold(boot_script_step_, packet);
  }
  BootScript& script = *book_->reading.boot_script;
  script.last = std::max(script.last, packet.at);
  ++script.count;
  script.lost += packet.fate.lost ? 1 : 0;
  script.frames.add(packet.frames);
}

bool Datagrams::take_relayed(const Packet& packet, std::size_t source, std::size_t target) {
  if (packet.destination.port != kRelayPort) return false;
  if (target == kStation && source != kStation) {
    receive(packet, source, target);
    return true;
  }
  if (source != kStation || book_->reading.parties[target].role != Role::kPptServer) return false;
  pass_on(packet, source, target);
  return true;
}

// One more of the same step, or a new one.
std::size_t Datagrams::tell(Step::Kind kind, const Packet& packet, std::size_t source, std::size_t target,
                            std::size_t thread) {
  const std::uint16_t port = packet.destination.port;
  if (last_steps_.size() >= kMaxFollowed) last_steps_.clear();
  const auto [last, is_first] = last_steps_.emplace(Way{kind, source, target, port}, kNone);
  const Said text = said(packet.payload, packet.payload_size);
  const Step* const before = is_first ? nullptr : book_->step(last->second);
  if (before != nullptr && before->thread == thread && packet.at - before->until <= kFoldPause &&
      (thread == kNone || before->said == text)) {
    book_->fold(last->second, packet);
    return last->second;
  }
  last->second = book_->add_step(kind, packet, source, target, thread);
  if (Step* const step = book_->step(last->second)) {
    step->port = port;
    step->said = text;
  }
  return last->second;
}

void Datagrams::receive(const Packet& packet, std::size_t source, std::size_t target) {
  std::vector<Relayed>& all = book_->reading.relayed;
  const Said text = said(packet.payload, packet.payload_size);
  std::size_t place = all.empty() ? kNone : all.size() - 1;
  const bool repeats = place != kNone && all[place].unit == source && all[place].said == text &&
                       packet.at - all[place].until <= kFoldPause;
  if (!repeats) {
    Relayed relayed;
    relayed.unit = source;
    relayed.said = text;
    relayed.from = packet.at;
    place = book_->add(&all, relayed);
  }
  tell(Step::Kind::kDatagram, packet, source, target, place);
  if (place == kNone) return;
  Relayed& relayed = all[place];
  relayed.until = std::max(relayed.until, packet.at);
  ++relayed.received;
  relayed.received_lost += packet.fate.lost ? 1 : 0;
  relayed.frames.add(packet.frames);
  book_->changed(&relayed);
}

// The oldest one that fits and has not been passed on is meant.
void Datagrams::pass_on(const Packet& packet, std::size_t source, std::size_t target) {
  std::vector<Relayed>& all = book_->reading.relayed;
  const Said text = said(packet.payload, packet.payload_size);
  const std::size_t first = all.size() - std::min(all.size(), kRelayedBack);
  const auto found =
      std::find_if(all.begin() + static_cast<std::ptrdiff_t>(first), all.end(), [&](const Relayed& one) {
        return one.passed_on < one.received - one.received_lost && passes_on(text, one.said);
      });
  const std::size_t place = found == all.end() ? kNone : static_cast<std::size_t>(found - all.begin());
  tell(Step::Kind::kRelayed, packet, source, target, place);
  if (place == kNone) return;
  ++found->passed_on;
  found->passed_on_at = packet.at;
  found->frames.add(packet.frames);
  book_->changed(&*found);
}

void Datagrams::take_other(const Packet& packet, std::size_t source, std::size_t target) {
  tell(Step::Kind::kDatagram, packet, source, target, kNone);
}

void Datagrams::take_closed_port(const Packet& packet, std::size_t source, std::size_t target) {
  const std::uint16_t port = packet.quoted_destination.port;
  if (last_steps_.size() >= kMaxFollowed) last_steps_.clear();
  const auto [last, is_first] =
      last_steps_.emplace(Way{Step::Kind::kOtherClosedPort, source, target, port}, kNone);
  if (is_first) {
    ClosedPort closed;
    closed.at = source;
    closed.from = target;
    closed.port = port;
    closed.first = packet.at;
    const std::size_t place = book_->add_unmarked(&book_->reading.closed_ports, closed, Book::kMaxThreads);
    last->second = book_->add_step(Step::Kind::kOtherClosedPort, packet, source, target, place);
    if (Step* const step = book_->step(last->second)) step->port = port;
  } else {
    book_->fold(last->second, packet);
  }
  const Step* const step = book_->step(last->second);
  if (step == nullptr || step->thread == kNone) return;
  ClosedPort& closed = book_->reading.closed_ports[step->thread];
  ++closed.count;
  closed.last = std::max(closed.last, packet.at);
  closed.frames.add(packet.frames);
}

}  // namespace story
