#include "scenario/read_end.h"

#include <algorithm>

namespace scenario {

namespace {

using story::Transfer;
using End = Transfer::End;

// Its client went on with nothing.
bool is_answer_lost(const Transfer& one) {
  return one.acks.sent == 0 && std::any_of(one.losses.begin(), one.losses.end(), [](const story::Loss& loss) {
           return loss.what == story::Loss::What::kAnswer;
         });
}

}  // namespace

bool is_finished(const Transfer& one) {
  return one.end == End::kFinished || (one.is_last_sent && one.end != End::kError && !is_answer_lost(one));
}

bool is_read_in_vain(const Transfer& one) {
  if (is_answer_lost(one)) return true;
  return one.end == End::kUnanswered || one.end == End::kStationEnds ||
         (one.end == End::kError && one.ended_by != one.client) ||
         (one.end == End::kAbandoned && one.ended_by != one.client);
}

bool is_crash(const Transfer& one) {
  const bool is_repeated = one.sent_in_vain >= 2 && one.sent_in_vain_lost == 0 && !one.silences.empty() &&
                           one.silences.back().ended_by == one.server;
  return one.closed_ports == 0 && !is_finished(one) && !is_answer_lost(one) &&
         ((one.end == End::kAbandoned && one.ended_by == one.client) ||
          (one.end == End::kStationEnds && is_repeated));
}

}  // namespace scenario
