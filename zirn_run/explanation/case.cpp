#include "explanation/case.h"

#include <algorithm>
#include <cstdio>
#include <deque>
#include <utility>

#include "frames/tftp_message.h"
#include "frames/words.h"

namespace explanation {

namespace {

using story::kNone;
using story::kStation;
using story::Reading;
using story::Transfer;

constexpr std::string_view kVerdictLine = "Cmd received: <NAME>";
constexpr std::string_view kRequestLine = "RRQ <NAME>";
constexpr std::string_view kModeLine = "Mode detected: <NUMBER>";
constexpr std::string_view kMacLine = "Assigned MAC is <MAC>";
constexpr Nanoseconds kPptPatience = 4900000000;   // the station waits five seconds for the PPT server
constexpr Nanoseconds kAlarmAfter = 10 * kSecond;  // the station's start
constexpr Nanoseconds kAlarmMargin = kSecond;
constexpr Nanoseconds kLineDelay = kSecond / 10;  // at most, behind the frames

// The n-th answer of the station comes from port 100 n + 33033, of which the low 16 bits count.
bool is_port_of_station(std::uint16_t port) {
  return port % 100 == 33 || port % 100 == 97;
}

bool is_empty_answer(const Transfer& transfer) {
  return transfer.answered && transfer.bytes == 0 && transfer.blocks <= 1 &&
         !(transfer.end == Transfer::End::kError && transfer.ended_by == transfer.server);
}

// Whether a cut name can be that of the whole one.
bool begins_as(std::string_view whole, std::string_view cut) {
  const std::string_view kept = frames::kept_of(cut);
  return whole.substr(0, kept.size()) == kept;
}

}  // namespace

bool has_come_to_its_end(const Transfer& transfer) {
  if (transfer.end == Transfer::End::kFinished) return true;
  // It had everything, and only its last ACK is not there.
  return transfer.is_last_sent && transfer.end != Transfer::End::kError &&
         transfer.acknowledged_blocks + 1 >= transfer.blocks;
}

bool is_cut(const story::Said& said) {
  return said.text.size() < std::min<std::uint64_t>(said.size, story::kMaxText);
}

Case::Case(const Reading& told) : reading(told) {
  note_unread();
  take_steps();
  take_verdicts();
  take_waits();
  take_successes();
  note_shown_lines();
}

void Case::find(std::string_view id, Nanoseconds when, std::string sentence, Evidence evidence,
                bool can_explain, std::string subject) {
  findings.push_back({&cause(id), when, {std::move(sentence), evidence}, can_explain, std::move(subject)});
}

std::vector<const Case::Line*> Case::lines_with(std::string_view printed) const {
  std::vector<const Line*> found;
  for (const Line& line : lines) {
    if (line.printed != nullptr && line.printed->text == printed) found.push_back(&line);
  }
  return found;
}

void Case::note_unread() {
  for (const story::Step& step : reading.steps) {
    if (step.kind == story::Step::Kind::kCutTftp) unread_.insert(unread_.end(), {step.from, step.until});
  }
  for (const story::Connection& connection : reading.connections) {
    if (connection.server != kStation) continue;
    for (const story::Connection::Text& text : connection.texts) {
      if (is_cut(text.said)) unread_.push_back(text.at);
    }
  }
}

// Lines without a time keep their place among the others by their numbers.
void Case::take_steps() {
  for (const std::size_t place : reading.order) {
    const story::Step& step = reading.steps[place];
    if (step.kind == story::Step::Kind::kLine)
      lines.push_back({step.said.text, step.from, step.lines, step.count, nullptr});
    if (step.kind == story::Step::Kind::kCut) cuts.push_back(&step);
  }
  for (const story::UntimedLine& line : reading.untimed_lines)
    lines.push_back({line.text, 0, line.lines, 1, nullptr});
  if (!reading.untimed_lines.empty()) {
    std::stable_sort(lines.begin(), lines.end(), [](const Line& one, const Line& other) {
      return one.numbers.first < other.numbers.first;
    });
  }
  Nanoseconds before = reading.first;
  for (Line& line : lines) {
    line.at = std::max(line.at, before + 1);
    before = line.at;
    line.printed = printed_line(line.text);
    is_a_run = is_a_run || line.printed != nullptr;
  }
}

bool Case::was_taken(const story::Verdict& verdict) const {
  if (!verdict.queries.empty()) return true;
  if (verdict.transfer == kNone) return false;
  const Transfer& transfer = reading.transfers[verdict.transfer];
  return transfer.server == kStation && is_empty_answer(transfer) &&
         (is_a_run || is_port_of_station(transfer.server_port));
}

void Case::take_verdicts() {
  is_a_run = is_a_run || reading.run || reading.station_end || reading.boot_script;
  std::map<std::string_view, std::deque<std::size_t>> answered;  // places, by name
  std::deque<std::size_t> cut;                                   // those of which the name is
  for (std::size_t i = 0; i < reading.verdicts.size(); ++i) {
    const std::string& name = reading.verdicts[i].name;
    const std::size_t transfer = reading.verdicts[i].transfer;
    if (transfer != kNone && reading.transfers[transfer].answered)
      (frames::is_cut(name) ? cut : answered[name]).push_back(i);
  }
  std::set<std::size_t> used;
  std::set<std::string_view> told;
  for (const Line* line : lines_with(kVerdictLine)) {
    const std::string_view name = values_in(*line->printed, line->text).front();
    const auto says = story::verdict_in(name);
    if (!says) continue;
    const bool is_next_cut = !cut.empty() && begins_as(name, reading.verdicts[cut.front()].name);
    std::deque<std::size_t>& places = answered[name].empty() && is_next_cut ? cut : answered[name];
    if (!places.empty()) {
      const story::Verdict& verdict = reading.verdicts[places.front()];
      const Numbers& frames = reading.transfers[verdict.transfer].frames;
      verdicts.push_back({std::string(name), *says, verdict.at, seen(frames, line->numbers), places.front()});
      used.insert(places.front());
      places.pop_front();
    } else if (told.count(name) == 0) {  // else the same request, which came again
      verdicts.push_back({std::string(name), *says, line->at, seen({}, line->numbers), kNone});
    }
    told.insert(name);
  }
  for (std::size_t i = 0; i < reading.verdicts.size(); ++i) {
    const story::Verdict& verdict = reading.verdicts[i];
    if (used.count(i) != 0 || !was_taken(verdict)) continue;
    is_a_run = true;
    if (frames::is_cut(verdict.name)) {
      unread_.push_back(verdict.at);
      continue;
    }
    const std::size_t transfer = verdict.transfer != kNone ? verdict.transfer : verdict.queries.front();
    verdicts.push_back({verdict.name, verdict.says, verdict.at, seen(reading.transfers[transfer].frames), i});
  }
  std::stable_sort(verdicts.begin(), verdicts.end(),
                   [](const Verdict& one, const Verdict& other) { return one.at < other.at; });
}

bool Case::is_read_of_file(const Transfer& transfer) const {
  return transfer.server == kStation && transfer.kind == Transfer::Kind::kRead &&
         !story::verdict_in(transfer.name) && transfer.second_answer_of == kNone;
}

const Transfer& Case::served_by(const Transfer& transfer) const {
  const auto second = by_second_answer_.find(static_cast<std::size_t>(&transfer - reading.transfers.data()));
  return second == by_second_answer_.end() || has_come_to_its_end(transfer)
             ? transfer
             : reading.transfers[second->second];
}

void Case::take_successes() {
  const auto hear = [this](std::size_t party) {
    has_unit = has_unit || (party != kNone && reading.parties[party].role == story::Role::kUnit);
  };
  const auto succeed = [this](Nanoseconds when) { last_success = std::max(last_success, when); };
  std::map<std::string_view, Nanoseconds>
      served;  // until when the last read of a file may be told by its line
  for (std::size_t i = 0; i < reading.transfers.size(); ++i) {
    if (reading.transfers[i].second_answer_of != kNone && has_come_to_its_end(reading.transfers[i]))
      by_second_answer_[reading.transfers[i].second_answer_of] = i;
  }
  for (const Transfer& asked : reading.transfers) {
    hear(asked.client);
    if (asked.server == kStation && asked.requests > 0) {
      requested_.insert(asked.name);
      if (frames::is_cut(asked.name)) requested_so_far_.insert(frames::kept_of(asked.name));
    }
    const Transfer& transfer = served_by(asked);
    if (!is_read_of_file(asked) || !has_come_to_its_end(transfer)) continue;
    read_at[asked.name] = std::max(read_at[asked.name], asked.from);
    last_read = std::max(last_read, transfer.data_until);
    if (transfer.bytes == 0) continue;
    succeed(transfer.answered.value_or(asked.from));
    served[asked.name] = transfer.data_until + kLineDelay;
  }
  for (const story::Connection& connection : reading.connections) {
    hear(connection.client);
    if (connection.server != kStation) continue;
    for (const story::Connection::Text& text : connection.texts) {
      if (!text.is_from_client) succeed(text.at);
    }
  }
  for (const story::Relayed& relayed : reading.relayed) {
    hear(relayed.unit);
    succeed(relayed.from);
  }
  // The station's line of a read may come later than its frames: it stands behind what the station printed before.
  for (const Line* line : lines_with(kRequestLine)) {
    const auto read = served.find(values_in(*line->printed, line->text).front());
    if (read != served.end() && line->at <= read->second) succeed(line->at);
  }
  for (const Verdict& verdict : verdicts) succeed(verdict.at);
  has_unit = has_unit || !verdicts.empty() || has_line(kRequestLine);
}

// The station's alarm cuts one wait for the PPT server short, unless a verdict has come before: the first one stops it.
bool Case::may_be_cut_by_alarm(const Verdict& verdict, Nanoseconds until) const {
  if (&verdict != &verdicts.front()) return false;
  if (const auto alarm = story::alarm_in(reading))
    return verdict.at <= *alarm + kAlarmMargin && until >= *alarm - kAlarmMargin;
  Nanoseconds first_sign = verdict.at;  // of the station, which may have started long before
  if (reading.boot_script) first_sign = std::min(first_sign, reading.boot_script->first);
  for (const Transfer& transfer : reading.transfers) {
    if (transfer.server == kStation && transfer.answered) first_sign = std::min(first_sign, transfer.from);
  }
  return verdict.at <= first_sign + kAlarmAfter + kAlarmMargin;
}

// The station reads no request while it waits for the PPT server.
bool Case::is_ppt_known(const Verdict& verdict) const {
  if (story::is_final(verdict.says)) return true;
  if (verdict.place == kNone) return false;
  const story::PassedOn passed = story::passed_on(reading, reading.verdicts[verdict.place]);
  if (passed != story::PassedOn::kNotSeen && passed != story::PassedOn::kWaiting) return true;
  for (std::size_t i = reading.verdicts[verdict.place].transfer; i < reading.transfers.size(); ++i) {
    const Transfer& transfer = reading.transfers[i];
    if (transfer.from > verdict.at + kPptPatience) break;
    if (transfer.server == kStation && transfer.answered && transfer.from > verdict.at &&
        *transfer.answered < verdict.at + kPptPatience)
      return !may_be_cut_by_alarm(verdict, *transfer.answered);
  }
  return false;
}

// A query may come long after its verdict, where a hasty unit's requests have to wait for their turn.
void Case::take_waits() {
  for (const story::Verdict& verdict : reading.verdicts) {
    const story::PassedOn passed = story::passed_on(reading, verdict);
    if (passed != story::PassedOn::kSilent && passed != story::PassedOn::kClosedPort) continue;
    waits_.push_back(verdict.at);
    for (const std::size_t query : verdict.queries) waits_.push_back(reading.transfers[query].from);
  }
  std::sort(waits_.begin(), waits_.end());
}

bool Case::waits_for_ppt(Nanoseconds when) const {
  constexpr Nanoseconds kLongest = 6 * kSecond;
  const auto began = std::lower_bound(waits_.begin(), waits_.end(), when - kLongest);
  return began != waits_.end() && *began < when;
}

bool Case::is_shown_by_requests(std::string_view name) const {
  if (requested_.count(name) != 0) return true;
  for (std::size_t size = 0; !requested_so_far_.empty() && size <= name.size(); ++size) {
    if (requested_so_far_.count(name.substr(0, size)) != 0) return true;
  }
  return false;
}

void Case::note_shown_lines() {
  const bool has_commands = std::any_of(reading.connections.begin(), reading.connections.end(),
                                        [](const auto& connection) { return connection.server == kStation; });
  for (Line& line : lines) {
    if (line.printed == nullptr) continue;
    const std::string_view text = line.printed->text;
    if (text == kRequestLine || text == kVerdictLine)
      line.is_shown = is_shown_by_requests(values_in(*line.printed, line.text).front());
    if (text == kModeLine || text == kMacLine) line.is_shown = has_commands;
  }
}

bool Case::lacks_a_side() const {
  bool is_asked = false;
  bool is_answered = reading.transfers.empty() && reading.boot_script;  // where only connections ask
  for (const Transfer& transfer : reading.transfers) {
    if (transfer.kind == Transfer::Kind::kMidway) return true;
    is_asked = is_asked || transfer.server == kStation;
    is_answered = is_answered || (transfer.server == kStation && transfer.answered);
  }
  for (const story::Connection& connection : reading.connections) {
    const bool is_in_vain = connection.state == story::Connection::State::kConnecting;
    is_asked = is_asked || connection.server == kStation;
    is_answered = is_answered || (connection.server == kStation && !is_in_vain);
  }
  return is_asked && !is_answered;
}

bool Case::sees_test_network() const {
  const auto is_at_station = [](const auto& thread) { return thread.server == kStation; };
  return reading.boot_script ||
         std::any_of(reading.transfers.begin(), reading.transfers.end(), is_at_station) ||
         std::any_of(reading.connections.begin(), reading.connections.end(), is_at_station);
}

bool Case::sees_unit(Nanoseconds from, Nanoseconds until) const {
  const bool has_dropped = std::any_of(reading.networks.begin(), reading.networks.end(),
                                       [](const auto& network) { return network.dropped.value_or(0) > 0; });
  const bool is_asked = std::all_of(lines.begin(), lines.end(), [&](const Line& line) {
    return line.at < from || line.at > until || line.is_shown;
  });
  const bool is_read =
      std::none_of(unread_.begin(), unread_.end(), [&](Nanoseconds at) { return at >= from && at <= until; });
  return sees_test_network() && reading.left_out == 0 && !has_dropped && !has_gap(from, until) &&
         !lacks_a_side() && is_asked && is_read;
}

bool Case::sees_tools(Nanoseconds from, Nanoseconds until) const {
  if (!lines.empty()) return true;
  return std::none_of(reading.connections.begin(), reading.connections.end(), [&](const auto& connection) {
    return std::any_of(connection.texts.begin(), connection.texts.end(), [&](const auto& text) {
      return text.at >= from && text.at <= until && text.said.text.find("DO_PMC_INIT") != std::string::npos;
    });
  });
}

bool Case::sees_ppt(Nanoseconds from, Nanoseconds until) const {
  return std::all_of(verdicts.begin(), verdicts.end(), [&](const Verdict& verdict) {
    return verdict.at < from || verdict.at >= until || is_ppt_known(verdict);
  });
}

bool Case::is_all_seen(Nanoseconds from, Nanoseconds until) const {
  return sees_ppt(from, until) && sees_unit(from, until) && sees_tools(from, until);
}

std::string seconds(Nanoseconds time) {
  constexpr Nanoseconds kMillisecond = 1000000;
  char text[40];
  if (time < kSecond / 10 && time > -kSecond / 10) {
    std::snprintf(text, sizeof text, "%lld ms", static_cast<long long>(time / kMillisecond));
  } else {
    std::snprintf(text, sizeof text, "%.1f s", static_cast<double>(time) / 1e9);
  }
  return text;
}

std::string cut_in_words(const Case& c, const story::Step& cut) {
  return "the cable was out from " + moment(c, cut.from) +
         (cut.until >= c.reading.last ? " on" : " to " + moment(c, cut.until));
}

std::string moment(const Case& c, Nanoseconds when) {
  return seconds(when - c.reading.first);
}

std::string at(const Case& c, Nanoseconds when) {
  return c.reading.first == 0 ? "" : " at " + moment(c, when);
}

std::string address_of(const Reading& reading, std::size_t party) {
  if (party == kNone || reading.parties[party].addresses.empty()) return "an unknown address";
  return frames::dotted(reading.parties[party].addresses.front());
}

}  // namespace explanation
