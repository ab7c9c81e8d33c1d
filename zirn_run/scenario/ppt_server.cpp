// What the PPT server did.
#include <algorithm>
#include <cmath>
#include <set>

#include "scenario/wire.h"
#include "scenario/writing.h"

namespace scenario {

namespace {

using story::Step;
using story::Transfer;

constexpr char kAnswers[] = "ppt answers";
constexpr char kCutOff[] = "ppt is cut off";
// The first one that was found holds for the whole run.
struct Setting {
  const char* cause;
  const char* step;
};
constexpr Setting kSettings[] = {
    {"ppt.refused", "ppt refuses"},
    {"ppt.closed", "ppt refuses verdicts"},
    {"ppt.absent", "ppt is absent"},
    {"ppt.dropped", kCutOff},
    {"ppt.odd-answer", "ppt answers nothing"},
};
constexpr char kForbidden[] = "ppt is forbidden";
constexpr Nanoseconds kLateAnswer = 3 * kSecond / 10;

struct State {
  std::string form = kAnswers;
  std::string text;  // of an ERROR

  bool operator!=(const State& other) const { return form != other.form || text != other.text; }
};

State state_in(const Transfer& query, const Writing& writing) {
  if (!query.losses.empty()) return {};
  if (query.answered) {
    const Nanoseconds time = *query.answered - query.from - delay_of(query, writing);
    const bool is_late = time >= kLateAnswer && query.end != Transfer::End::kError;
    if (query.is_answered_late || is_late)
      return {"ppt answers after " + in_tenths(static_cast<double>(time) / kSecond) + " s", ""};
  }
  if (query.end == Transfer::End::kError)
    return {"ppt answers ERROR " + std::to_string(query.error_code) + " TEXT", query.error.text};
  const bool is_silent = query.end == Transfer::End::kUnanswered && !query.answered;
  return {is_silent ? "ppt is silent" : kAnswers, ""};
}

// Not one whose every request was lost.
bool has_reached_station(const story::Verdict& verdict, const Writing& writing) {
  if (verdict.transfer == story::kNone) return true;
  const Transfer& read = writing.reading.transfers[verdict.transfer];
  std::uint64_t lost = 0;
  for (const story::Loss& loss : read.losses)
    lost += loss.what == story::Loss::What::kRequest ? loss.times : 0;
  return lost < read.requests;
}

// A verdict that is due and was not asked for shows that the station could not send.
bool is_forbidden(const Writing& writing) {
  const auto& verdicts = writing.reading.verdicts;
  return !writing.has_cause("verdict.too-short") && !writing.has_cause("ppt.no-route") &&
         writing.reading.has_frames && std::any_of(verdicts.begin(), verdicts.end(), [&](const auto& one) {
           return !story::is_final(one.says) && one.queries.empty() && has_reached_station(one, writing);
         });
}

bool is_connected_late(const Writing& writing) {
  const auto& connections = writing.reading.connections;
  return std::any_of(connections.begin(), connections.end(), [](const auto& one) {
    return one.client == story::kStation && one.opened && one.attempts > 1;
  });
}

// Nothing where it answers one so, and another so.
std::string lasting_state(const Writing& writing) {
  for (const auto& [cause, step] : kSettings) {
    if (writing.has_cause(cause)) return step;
  }
  if (is_connected_late(writing)) return kCutOff;
  return is_forbidden(writing) ? kForbidden : "";
}

void write_state(const State& state, Nanoseconds before, bool is_first, const Numbers& frames,
                 Script* script) {
  if (is_first)
    script->sets(state.form, {state.text}, frames);
  else
    script->acts(before - 1, before - 1, state.form, {state.text}, frames);
}

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

std::vector<const Transfer*> queries_in(const story::Reading& reading) {
  std::vector<const Transfer*> queries;
  for (const story::Verdict& verdict : reading.verdicts) {
    for (const std::size_t place : verdict.queries) queries.push_back(&reading.transfers[place]);
  }
  return queries;
}

// No step is for what is lost of a connection, or of a datagram, or damaged before the first verdict; and a percentage says
// nothing of the single verdict.
void write_left_out(bool is_exact, bool is_opening_told, Nanoseconds first_verdict, Writing* writing) {
  const std::string where = " between the station and the PPT server";
  const story::Reading& reading = writing->reading;
  Numbers by_chance;
  for (const Step& step : reading.steps) {
    if (!is_on_network(step, reading)) continue;
    const bool is_of_query = step.kind >= Step::Kind::kRequest && step.kind <= Step::Kind::kError;
    const bool is_of_connection = step.kind >= Step::Kind::kConnect && step.kind <= Step::Kind::kBreaksOff;
    if (step.lost > 0 && !is_exact) by_chance.add(step.frames);
    if (step.lost > 0 && is_exact && !is_of_query && !is_of_connection)
      writing->script.cannot_say(step.from, "lost" + where, step.frames);
    if (step.duplicated + step.swapped > 0 && step.from < first_verdict)
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

void write_queries(const std::string& lasting, bool hears, Wire* wire, Writing* writing) {
  State now;
  bool is_first = true;
  std::set<std::string> heard;
  for (const story::Verdict& verdict : writing->reading.verdicts) {
    for (const std::size_t place : verdict.queries) {
      const Transfer& query = writing->reading.transfers[place];
      const State state = lasting.empty() ? state_in(query, *writing) : now;
      if (state != now) write_state(state, verdict.at, is_first, query.frames, &writing->script);
      wire->write_before(verdict.at, query, &writing->script);
      const bool is_lost = !query.losses.empty() && query.losses[0].what == story::Loss::What::kRequest;
      if (hears && !is_lost && heard.insert(query.name).second)
        writing->script.waits(query.from, "ppt hears NAME", {query.name}, query.frames);
      now = state;
      is_first = false;
    }
  }
}

}  // namespace

void write_ppt_server(Writing* writing) {
  Script& script = writing->script;
  const story::Reading& reading = writing->reading;
  const std::string lasting = lasting_state(*writing);
  if (!lasting.empty()) script.sets(lasting);
  const std::set<Nanoseconds> verdicts = times_of_verdicts(reading);
  Wire wire("ppt wire", queries_in(reading), passages_of(verdicts, reading), *writing);
  const bool hears = wire.is_exact() && (lasting.empty() || lasting == "ppt answers nothing");
  write_queries(lasting, hears, &wire, writing);
  write_left_out(wire.is_exact(), lasting == kCutOff, verdicts.empty() ? reading.last : *verdicts.begin(),
                 writing);
  for (const story::Connection& connection : reading.connections) {
    if (connection.client != story::kStation || !connection.opened) continue;
    if (lasting == kCutOff && connection.attempts > 1)
      script.acts(connection.from + kSecond / 5, *connection.opened, "ppt is back", {}, connection.frames);
    script.waits(*connection.opened, "ppt is connected", {}, connection.frames);
  }
  for (const story::Relayed& relayed : reading.relayed) {
    if (hears && relayed.passed_on > 0)
      script.waits(relayed.passed_on_at.value_or(relayed.until), "ppt receives TEXT", {relayed.said.text},
                   relayed.frames);
  }
}

}  // namespace scenario
