#include "scenario/wire.h"

#include <algorithm>
#include <utility>

namespace scenario {

namespace {

using story::Transfer;
using End = Transfer::End;

constexpr Nanoseconds kMillisecond = kSecond / 1000;
constexpr Nanoseconds kMostDelay = 60000;  // milliseconds
constexpr Nanoseconds kSlowBlock = kSecond / 100;
constexpr std::uint64_t kFewBlocks = 10;   // that say nothing of the wire
constexpr std::uint64_t kMostLosses = 20;  // that are said one by one

std::string form_of(const story::Loss& loss) {
  const std::string number = std::to_string(loss.number);
  switch (loss.what) {
    case story::Loss::What::kRequest:
      return " loses the request of NAME";
    case story::Loss::What::kAnswer:
      return " loses the answer to NAME";
    case story::Loss::What::kBlock:
      return " loses block " + number + " of NAME";
    case story::Loss::What::kAck:
      break;
  }
  return " loses ACK " + number + " of NAME";
}

bool is_by_cut(const story::Loss& loss, const Writing& writing) {
  return std::any_of(writing.disturbances.begin(), writing.disturbances.end(), [&loss](const auto* step) {
    return step->kind == story::Step::Kind::kCut && step->from <= loss.at && loss.at <= step->until;
  });
}

}  // namespace

void write_losses(const Transfer& transfer, const std::string& wire, Nanoseconds before,
                  const Writing& writing, Script* script) {
  for (const story::Loss& loss : transfer.losses) {
    if (is_by_cut(loss, writing)) continue;
    const std::string times = loss.times == 1 ? "" : " " + std::to_string(loss.times) + " times";
    std::string form = wire;
    form += form_of(loss);
    form += times;
    script->acts(before - 1, before - 1, form, {transfer.name}, transfer.frames);
  }
}

bool are_few(const std::vector<const Transfer*>& transfers, const Writing& writing) {
  std::uint64_t losses = 0;
  for (const Transfer* const one : transfers) {
    losses += one->losses_left_out;
    for (const story::Loss& loss : one->losses) losses += is_by_cut(loss, writing) ? 0 : loss.times;
  }
  return losses <= kMostLosses;
}

template <typename Count>
Wire::Damage Wire::damage(const std::vector<const Transfer*>& reads, Count count) const {
  Damage result;
  std::uint64_t damaged = 0, sent = 0, sent_since = 0;
  for (const Transfer* const one : reads) {
    if (is_disturbed(*one)) continue;
    sent_since += one->requests + one->data.sent + one->acks.sent;
    if (count(*one) == 0) {
      if (damaged == 0) sent_since = 0;
      continue;
    }
    if (damaged == 0) result.from = one->from;
    result.until = one->from;
    damaged += count(*one);
    sent += std::exchange(sent_since, 0);
  }
  result.percent = sent == 0 ? 0 : 100.0 * static_cast<double>(damaged) / static_cast<double>(sent);
  return result;
}

void Wire::add(const std::string& what, Damage damage) {
  if (damage.percent == 0) return;
  damage.percent = std::min(damage.percent, 100.0);
  damage.step = "wire " + what + " " + in_tenths(std::max(damage.percent, 0.1)) + " %";
  damages_.push_back(damage);
}

// By something else than chance.
bool Wire::is_disturbed(const Transfer& one) const {
  return std::any_of(writing_.disturbances.begin(), writing_.disturbances.end(),
                     [&one](const story::Step* step) {
                       const bool is_end = step->kind == story::Step::Kind::kStationEnds;
                       return !is_end && step->from <= one.until && step->until >= one.from;
                     });
}

// One way; 0: it is a quick one, or too short to tell.
Nanoseconds Wire::delay_of(const Transfer& read) const {
  if (read.blocks < kFewBlocks) return is_disturbed(read) && read.answered ? *read.answered - read.from : 0;
  Nanoseconds busy = read.data_until - read.data_from;
  for (const story::Silence& silence : read.silences) busy -= silence.until - silence.from;
  const Nanoseconds block = busy / static_cast<Nanoseconds>(read.blocks);
  return block < kSlowBlock ? 0 : block / 2;
}

Wire::Wire(const std::vector<const Transfer*>& reads, const Writing& writing)
    : writing_(writing), is_exact_(are_few(reads, writing)) {
  if (!is_exact_ && (writing.has_cause("net.loss") || writing.has_cause("net.read-broken"))) {
    const Damage lost = damage(reads, [](const Transfer& one) {
      const bool is_request_lost = one.end == End::kUnanswered || one.end == End::kStationEnds;
      const std::uint64_t seen = one.data.lost + one.acks.lost;
      return std::max(seen + (is_request_lost && seen == 0 ? one.requests : 0), one.inferred_lost);
    });
    add("loses", lost);
  }
  if (writing.has_cause("net.duplicates"))
    add("duplicates",
        damage(reads, [](const Transfer& one) { return one.data.duplicated + one.acks.duplicated; }));
  if (writing.has_cause("net.swaps"))
    add("swaps", damage(reads, [](const Transfer& one) { return one.data.swapped + one.acks.swapped; }));
}

void Wire::write_before(const Transfer& read, Script* script) {
  if (is_exact_) write_losses(read, "wire", read.from, writing_, script);
  std::vector<std::string> wanted;
  for (const Damage& one : damages_) {
    if (read.from >= one.from && read.from <= one.until) wanted.push_back(one.step);
  }
  if (const Nanoseconds delay = delay_of(read); delay > 0 && wanted.empty())
    wanted.push_back("wire delays " +
                     std::to_string(std::min<Nanoseconds>(delay / kMillisecond, kMostDelay)) + " ms");
  if (wanted == now_) return;
  if (!now_.empty()) script->acts(read.from - 2, read.from - 2, "wire is whole", {}, {});
  for (const std::string& step : wanted) script->acts(read.from - 1, read.from - 1, step, {}, {});
  now_ = wanted;
}

}  // namespace scenario
