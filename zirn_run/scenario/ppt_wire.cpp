// What the network towards the PPT server did to frames.
#include <iterator>
#include <set>

#include "scenario/wire.h"

namespace scenario {

namespace {

using story::Step;
using story::Transfer;

bool is_on_network(const Step& step, const story::Reading& reading) {
  const auto is_it = [&reading](std::size_t party) {
    return party != story::kNone && reading.parties[party].role == story::Role::kPptServer;
  };
  return step.frames.count > 0 && (is_it(step.source) || is_it(step.target));
}

// Of the verdicts that were asked for.
std::set<Nanoseconds> times_of_verdicts(const story::Reading& reading) {
  std::set<Nanoseconds> times;
  for (const story::Verdict& verdict : reading.verdicts) {
    if (!verdict.queries.empty()) times.insert(verdict.at);
  }
  return times;
}

// What each verdict led to.
std::vector<Passage> passages_of(const std::set<Nanoseconds>& verdicts, const story::Reading& reading) {
  std::vector<Passage> passages;
  for (const std::size_t place : reading.order) {
    const Step& step = reading.steps[place];
    const auto next = verdicts.upper_bound(step.from);
    if (next == verdicts.begin() || !is_on_network(step, reading)) continue;
    const Nanoseconds led = *std::prev(next);
    if (passages.empty() || passages.back().from != led) passages.push_back({led});
    Passage& passage = passages.back();
    passage.sent += step.count;
    passage.lost += step.lost;
    passage.duplicated += step.duplicated;
    passage.swapped += step.swapped;
  }
  return passages;
}

}  // namespace

std::vector<const Transfer*> queries_in(const story::Reading& reading) {
  std::vector<const Transfer*> queries;
  for (const story::Verdict& verdict : reading.verdicts) {
    for (const std::size_t place : verdict.queries) queries.push_back(&reading.transfers[place]);
  }
  return queries;
}

Wire ppt_wire(const Writing& writing) {
  const story::Reading& reading = writing.reading;
  return {"ppt wire", queries_in(reading), passages_of(times_of_verdicts(reading), reading), writing};
}

void write_left_out_of_ppt_wire(bool is_exact, bool is_opening_told, Writing* writing) {
  const std::string where = " between the station and the PPT server";
  const story::Reading& reading = writing->reading;
  const std::set<Nanoseconds> verdicts = times_of_verdicts(reading);
  Numbers by_chance;
  for (const Step& step : reading.steps) {
    if (!is_on_network(step, reading)) continue;
    const bool is_of_query = step.kind >= Step::Kind::kRequest && step.kind <= Step::Kind::kError;
    const bool is_of_connection = step.kind >= Step::Kind::kConnect && step.kind <= Step::Kind::kBreaksOff;
    if (step.lost > 0 && !is_exact) by_chance.add(step.frames);
    if (step.lost > 0 && is_exact && !is_of_query && !is_of_connection)
      writing->script.cannot_say(step.from, "lost" + where, step.frames);
    if (step.duplicated + step.swapped > 0 && (verdicts.empty() || step.from < *verdicts.begin()))
      writing->script.cannot_say(step.from, "doubled or overtaken" + where, step.frames);
  }
  for (const story::Connection& one : reading.connections) {
    if (one.client == story::kStation && one.lost > 0 && is_exact && !is_opening_told)
      writing->script.cannot_say(one.from, "lost of a connection" + where, one.frames);
  }
  if (by_chance.count > 0)
    writing->script.cannot_say(reading.first, "many are lost" + where + "; which ones, is left to chance",
                               by_chance);
}

}  // namespace scenario
