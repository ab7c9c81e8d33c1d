// What the PPT server did.
#include <algorithm>
#include <cmath>
#include <set>

#include "scenario/wire.h"
#include "scenario/writing.h"

namespace scenario {

namespace {

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

struct State {
  std::string form = kAnswers;
  std::string text;  // of an ERROR

  bool operator!=(const State& other) const { return form != other.form || text != other.text; }
};

State state_in(const Transfer& query) {
  if (!query.losses.empty()) return {};
  if (query.is_answered_late && query.answered) {
    const double seconds = static_cast<double>(*query.answered - query.from) / kSecond;
    return {"ppt answers after " + in_tenths(seconds) + " s", ""};
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
         writing.reading.has_frames && queries_in(writing.reading).empty() &&
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

void write_queries(const std::string& lasting, bool hears, Wire* wire, Writing* writing) {
  State now;
  bool is_first = true;
  std::set<std::string> heard;
  for (const story::Verdict& verdict : writing->reading.verdicts) {
    for (const std::size_t place : verdict.queries) {
      const Transfer& query = writing->reading.transfers[place];
      const State state = lasting.empty() ? state_in(query) : now;
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
  const std::string lasting = lasting_state(*writing);
  if (!lasting.empty()) script.sets(lasting);
  Wire wire = ppt_wire(*writing);
  writing->waits_by_chance = !wire.is_exact();
  const bool hears = wire.is_exact() && (lasting.empty() || lasting == "ppt answers nothing");
  write_queries(lasting, hears, &wire, writing);
  write_left_out_of_ppt_wire(wire.is_exact(), lasting == kCutOff, writing);
  for (const story::Connection& connection : writing->reading.connections) {
    if (connection.client != story::kStation || !connection.opened) continue;
    if (lasting == kCutOff && connection.attempts > 1)
      script.acts(connection.from + kSecond / 5, *connection.opened, "ppt is back", {}, connection.frames);
    script.waits(*connection.opened, "ppt is connected", {}, connection.frames);
  }
  for (const story::Relayed& relayed : writing->reading.relayed) {
    if (hears && relayed.passed_on > 0)
      script.waits(relayed.passed_on_at.value_or(relayed.until), "ppt receives TEXT", {relayed.said.text},
                   relayed.frames);
  }
}

}  // namespace scenario
