// What the PPT server did.
#include <algorithm>
#include <iterator>
#include <map>
#include <set>

#include "scenario/wire.h"
#include "scenario/writing.h"

namespace scenario {

namespace {

using story::Transfer;

constexpr char kAnswers[] = "ppt answers";
constexpr char kCutOff[] = "ppt is cut off";
constexpr char kRefuses[] = "ppt refuses";
constexpr char kRefusesVerdicts[] = "ppt refuses verdicts";
constexpr char kAnswersNothing[] = "ppt answers nothing";
constexpr char kRefused[] = "ppt.refused";
constexpr char kOddAnswer[] = "ppt.odd-answer";
// The first one that was found holds for the whole run, unless the queries in the record show how it was then.
struct Setting {
  const char* cause;
  const char* step;
  bool is_shown_by_queries;
};
constexpr Setting kSettings[] = {
    {"ppt.absent", "ppt is absent", false}, {"ppt.dropped", kCutOff, false},     {kRefused, kRefuses, true},
    {"ppt.closed", kRefusesVerdicts, true}, {kOddAnswer, kAnswersNothing, true},
};
constexpr char kForbidden[] = "ppt is forbidden";

struct State {
  std::string form = kAnswers;
  std::string text;  // of an ERROR

  bool operator!=(const State& other) const { return form != other.form || text != other.text; }
};

bool refuses(const std::string& form) {
  return form == kRefuses || form == kRefusesVerdicts;
}

// The station connects after the first one.
State state_in(const Transfer& query, bool is_first, const Writing& writing) {
  if (is_first && writing.has_cause(kRefused)) return {kRefuses, ""};
  if (!query.losses.empty()) return {};
  if (query.closed_ports > 0 && !query.answered) return {kRefusesVerdicts, ""};
  const Nanoseconds wait = query.answered.value_or(query.until) - query.from;
  const Nanoseconds own = wait - delay_of(query, writing);  // without the wire's
  if (query.answered && own >= kSecond)
    return {"ppt answers after " + in_tenths(static_cast<double>(own) / kSecond) + " s", ""};
  if (query.end == Transfer::End::kError)
    return {"ppt answers ERROR " + std::to_string(query.error_code) + " TEXT", query.error.text};
  if (query.answered && query.data.sent == 0 && writing.has_cause(kOddAnswer)) return {kAnswersNothing, ""};
  const bool is_without_end =
      query.end == Transfer::End::kUnanswered || query.end == Transfer::End::kStationEnds;
  const bool is_silent = !query.answered && (is_without_end || wait >= kSecond);
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
  const story::Reading& reading = writing.reading;
  const auto& verdicts = reading.verdicts;
  const bool is_ppt_network_known = reading.networks.size() > 1 && reading.not_whole == 0;
  return !writing.has_cause("verdict.too-short") && !writing.has_cause("ppt.no-route") &&
         is_ppt_network_known && queries_in(reading).empty() &&
         std::any_of(verdicts.begin(), verdicts.end(), [&](const auto& one) {
           return !story::is_final(one.says) && has_reached_station(one, writing);
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
  const auto& verdicts = writing.reading.verdicts;
  const bool has_queries = std::any_of(verdicts.begin(), verdicts.end(),
                                       [](const auto& verdict) { return !verdict.queries.empty(); });
  for (const auto& [cause, step, is_shown_by_queries] : kSettings) {
    if (writing.has_cause(cause) && !(has_queries && is_shown_by_queries)) return step;
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

using States = std::map<Nanoseconds, std::string>;  // from when on

// In which it was, as far as the queries show it.
States write_queries(const std::string& lasting, Wire* wire, Writing* writing) {
  State now;
  bool is_first = true;
  States states;
  std::set<std::string> heard;
  for (const story::Verdict& verdict : writing->reading.verdicts) {
    if (!writing->awaits(verdict.unit)) continue;
    for (const std::size_t place : verdict.queries) {
      const Transfer& query = writing->reading.transfers[place];
      const State state = lasting.empty() ? state_in(query, is_first, *writing) : now;
      if (state != now) write_state(state, verdict.at, is_first, query.frames, &writing->script);
      wire->write_before(verdict.at, query, &writing->script);
      const bool is_lost = !query.losses.empty() && query.losses[0].what == story::Loss::What::kRequest;
      const bool hears = wire->is_exact() && lasting.empty() && !refuses(state.form);
      if (hears && !is_lost && heard.insert(query.name).second)
        writing->script.waits(query.from, "ppt hears NAME", {query.name}, query.frames);
      states[is_first ? 0 : verdict.at] = state.form;
      now = state;
      is_first = false;
    }
  }
  return states;
}

bool is_relay_closed(const story::Relayed& relayed, const story::Reading& reading) {
  return std::any_of(reading.closed_ports.begin(), reading.closed_ports.end(), [&relayed](const auto& port) {
    return port.from == story::kStation && port.port == kRelayPort && port.first <= relayed.until + kSecond &&
           port.last >= relayed.from;
  });
}

void write_relayed(const States& states, Writing* writing) {
  for (const story::Relayed& relayed : writing->reading.relayed) {
    if (!writing->awaits(relayed.unit)) continue;
    const Nanoseconds at = relayed.passed_on_at.value_or(relayed.until);
    const auto next = states.upper_bound(at);
    const bool is_there = next == states.begin() || std::prev(next)->second != kRefuses;
    const bool is_whole = relayed.said.text.size() == relayed.said.size;
    if (is_there && is_whole && relayed.passed_on > 0 && !is_relay_closed(relayed, writing->reading))
      writing->script.waits(at, "ppt receives TEXT", {std::string(story::passed_on_part(relayed.said.text))},
                            relayed.frames);
  }
}

}  // namespace

void write_ppt_server(Writing* writing) {
  Script& script = writing->script;
  const std::string lasting = lasting_state(*writing);
  if (!lasting.empty()) script.sets(lasting);
  Wire wire = ppt_wire(*writing);
  writing->waits_by_chance = !wire.is_exact();
  const States states = write_queries(lasting, &wire, writing);
  write_left_out_of_ppt_wire(wire.is_exact(), lasting == kCutOff, writing);
  for (const story::Connection& connection : writing->reading.connections) {
    if (connection.client != story::kStation || !connection.opened) continue;
    if (lasting == kCutOff && connection.attempts > 1)
      script.acts(connection.from + kSecond / 5, *connection.opened, "ppt is back", {}, connection.frames);
    script.waits(*connection.opened, "ppt is connected", {}, connection.frames);
  }
  if (lasting.empty() && wire.is_exact()) write_relayed(states, writing);
}

}  // namespace scenario
