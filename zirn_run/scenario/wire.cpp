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
constexpr Nanoseconds kSlowQuery = kSecond / 10;  // one alone: a busy station takes some of it itself
constexpr std::uint64_t kFewBlocks = 10;          // that say nothing of the wire
constexpr std::uint64_t kMostLosses = 20;         // that are said one by one

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

bool is_by_cut(const story::Loss& loss, const Transfer& transfer, const Writing& writing) {
  const auto is_in = [&loss](const story::Step* step) {
    return step->kind == story::Step::Kind::kCut && step->from <= loss.at && loss.at <= step->until;
  };
  const bool is_on_test_network = transfer.client != story::kStation;  // whose cable it is
  return is_on_test_network && std::any_of(writing.disturbances.begin(), writing.disturbances.end(), is_in);
}

// By something else than chance.
bool is_disturbed(const Transfer& one, const Writing& writing) {
  return std::any_of(writing.disturbances.begin(), writing.disturbances.end(),
                     [&one](const story::Step* step) {
                       const bool is_end = step->kind == story::Step::Kind::kStationEnds;
                       return !is_end && step->from <= one.until && step->until >= one.from;
                     });
}

// Where the record was made in the midst of the wire: the station acknowledges at once.
Nanoseconds delay_of_query(const Transfer& query) {
  const std::uint64_t held_up = query.data.lost + query.data.swapped + query.acks.swapped;
  if (!query.answered || query.data.sent != 1 || query.acks.sent != 1 || held_up > 0) return 0;
  const Nanoseconds delay = query.until - *query.answered;
  return delay < kSlowQuery ? 0 : delay;
}

void write_losses(const Transfer& transfer, const std::string& wire, Nanoseconds before,
                  const Writing& writing, Script* script) {
  for (const story::Loss& loss : transfer.losses) {
    if (is_by_cut(loss, transfer, writing)) continue;
    const std::string times = loss.times == 1 ? "" : " " + std::to_string(loss.times) + " times";
    std::string form = wire;
    form += form_of(loss);
    form += times;
    script->acts(before - 1, before - 1, form, {transfer.name}, transfer.frames);
  }
}

// Whether the losses of all these are few enough to be said one by one; there may be none.
bool are_few(const std::vector<const Transfer*>& transfers, const Writing& writing) {
  std::uint64_t losses = 0;
  for (const Transfer* const one : transfers) {
    losses += one->losses_left_out;
    for (const story::Loss& loss : one->losses) losses += is_by_cut(loss, *one, writing) ? 0 : loss.times;
  }
  return losses <= kMostLosses;
}

}  // namespace

std::vector<Passage> passages_of(const std::vector<const Transfer*>& reads, const Writing& writing) {
  std::vector<Passage> passages;
  for (const Transfer* const read : reads) {
    const Transfer& one = *read;
    if (is_disturbed(one, writing)) continue;
    const bool is_request_lost = one.end == End::kUnanswered || one.end == End::kStationEnds;
    const std::uint64_t seen = one.data.lost + one.acks.lost;
    const std::uint64_t lost = seen + (is_request_lost && seen == 0 ? one.requests : 0);
    passages.push_back({one.from, one.requests + one.data.sent + one.acks.sent,
                        std::max(lost, one.inferred_lost), one.data.duplicated + one.acks.duplicated,
                        one.data.swapped + one.acks.swapped});
  }
  return passages;
}

Nanoseconds delay_of(const Transfer& transfer, const Writing& writing) {
  if (transfer.client == story::kStation) return delay_of_query(transfer);
  if (transfer.blocks < kFewBlocks)
    return is_disturbed(transfer, writing) && transfer.answered ? *transfer.answered - transfer.from : 0;
  Nanoseconds busy = transfer.data_until - transfer.data_from;
  for (const story::Silence& silence : transfer.silences) busy -= silence.until - silence.from;
  const Nanoseconds block = busy / static_cast<Nanoseconds>(transfer.blocks);
  return block < kSlowBlock ? 0 : block / 2;
}

Wire::Wire(std::string name, const std::vector<const Transfer*>& transfers,
           const std::vector<Passage>& passages, const Writing& writing)
    : name_(std::move(name)), writing_(writing), is_exact_(are_few(transfers, writing)) {
  if (!is_exact_) add(" loses ", passages, &Passage::lost);
  add(" duplicates ", passages, &Passage::duplicated);
  add(" swaps ", passages, &Passage::swapped);
}

void Wire::add(const std::string& what, const std::vector<Passage>& passages, std::uint64_t Passage::*count) {
  Damage damage;
  std::uint64_t damaged = 0, sent = 0, sent_since = 0;
  for (const Passage& one : passages) {
    sent_since += one.sent;
    if (one.*count == 0) {
      if (damaged == 0) sent_since = 0;
      continue;
    }
    if (damaged == 0) damage.from = one.from;
    damage.until = one.from;
    damaged += one.*count;
    sent += std::exchange(sent_since, 0);
  }
  if (sent == 0) return;
  const double percent = 100.0 * static_cast<double>(damaged) / static_cast<double>(sent);
  damage.step = name_ + what + in_tenths(std::clamp(percent, 0.1, 100.0)) + " %";
  damages_.push_back(damage);
}

void Wire::write_before(Nanoseconds beginning, const Transfer& transfer, Script* script) {
  if (is_exact_) write_losses(transfer, name_, beginning, writing_, script);
  std::vector<std::string> wanted;
  for (const Damage& one : damages_) {
    if (beginning >= one.from && beginning <= one.until) wanted.push_back(one.step);
  }
  const bool is_query = transfer.client == story::kStation;  // whose delay nothing else lengthens
  if (const Nanoseconds delay = delay_of(transfer, writing_); delay > 0 && (is_query || wanted.empty()))
    wanted.push_back(name_ + " delays " +
                     std::to_string(std::min<Nanoseconds>(delay / kMillisecond, kMostDelay)) + " ms");
  if (wanted == now_) return;
  if (!now_.empty()) script->acts(beginning - 2, beginning - 2, name_ + " is whole", {}, {});
  for (const std::string& step : wanted) script->acts(beginning - 1, beginning - 1, step, {}, {});
  now_ = wanted;
}

}  // namespace scenario
