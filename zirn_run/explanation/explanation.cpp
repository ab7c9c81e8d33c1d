#include "explanation/explanation.h"

#include <algorithm>
#include <map>
#include <set>
#include <utility>

#include "explanation/case.h"
#include "frames/words.h"

namespace explanation {

namespace {

using story::kNone;
using story::Reading;
using Says = story::Verdict::Says;

constexpr std::string_view kUnitFailed = "unit.failed";

bool is_failure(Says says) {
  return says == Says::kFailed || says == Says::kStepFailed;
}

Outcome outcome_of(const Case& c) {
  std::set<Says> finals;
  for (const Case::Verdict& verdict : c.verdicts) {
    if (story::is_final(verdict.says)) finals.insert(verdict.says);
  }
  if (finals.size() != 1) return Outcome::kNone;  // two runs, if there are both
  return *finals.begin() == Says::kPassed ? Outcome::kPassed : Outcome::kFailed;
}

// Which unit, too, where there are several.
std::string gave(const Case& c, const Case::Verdict& verdict) {
  std::string text = "the unit gave " + frames::printable(verdict.name) + at(c, verdict.at);
  const auto units =
      std::count_if(c.reading.parties.begin(), c.reading.parties.end(),
                    [](const story::Party& party) { return party.role == story::Role::kUnit; });
  const std::size_t unit = verdict.place == kNone ? kNone : c.reading.verdicts[verdict.place].unit;
  if (units > 1 && unit != kNone) text += ", from " + address_of(c.reading, unit);
  return text;
}

void find_failures(Case* c) {
  for (const Case::Verdict& verdict : c->verdicts) {
    if (!is_failure(verdict.says)) continue;
    c->find(kUnitFailed, verdict.at, gave(*c, verdict), verdict.evidence, true,
            frames::printable(verdict.name));
  }
}

bool is_part_of(const Statement& part, const Statement& whole) {
  return part.evidence.is_inferred == whole.evidence.is_inferred &&
         whole.sentence.find(part.sentence) != std::string::npos;
}

bool is_same(const Numbers& one, const Numbers& other) {
  return one.first == other.first && one.last == other.last && one.count == other.count;
}

void join(const Evidence& more, Evidence* evidence) {
  if (!is_same(more.frames, evidence->frames)) evidence->frames.add(more.frames);
  if (!is_same(more.lines, evidence->lines)) evidence->lines.add(more.lines);
}

// What is said already is not said again.
void add(const Statement& statement, Claim* claim) {
  for (Statement& told : claim->statements) {
    if (!is_part_of(statement, told) && !is_part_of(told, statement)) continue;
    if (told.sentence.size() < statement.sentence.size()) told.sentence = statement.sentence;
    return join(statement.evidence, &told.evidence);
  }
  if (claim->statements.size() < Claim::kMostStatements) {
    claim->statements.push_back(statement);
  } else {
    ++claim->left_out;
  }
}

// All that was found of the cause.
Claim claim_of(const Cause& cause, const Case& c) {
  Claim claim;
  claim.cause = &cause;
  for (const Finding& finding : c.findings) {
    if (finding.cause == &cause) add(finding.statement, &claim);
  }
  return claim;
}

Claim claim_of(std::string_view id, const Statement& statement) {
  Claim claim;
  claim.cause = &cause(id);
  add(statement, &claim);
  return claim;
}

// All that there is.
Evidence everything(const Case& c) {
  Evidence evidence;
  for (const story::Step& step : c.reading.steps) {
    evidence.frames.add(step.frames);
    evidence.lines.add(step.lines);
  }
  for (const Case::Line& line : c.lines) evidence.lines.add(line.numbers);
  evidence.is_inferred = true;
  return evidence;
}

// The first one in the table that was found with this weight, and where it counts.
template <typename Counts>
const Cause* first_found(const Case& c, Weight weight, const Counts& counts) {
  const Cause* first = nullptr;
  for (const Finding& finding : c.findings) {
    if (finding.cause->weight != weight || !finding.can_explain || !counts(finding)) continue;
    if (first == nullptr || finding.cause < first) first = finding.cause;
  }
  return first;
}

// Whether nothing that the record lacks can come before the cause in the table.
bool is_first_for_sure(const Cause& found, Nanoseconds from, Nanoseconds until, const Case& c) {
  return c.sees_unit(from, until) && (&found <= &cause("board.tool-missing") || c.sees_tools(from, until)) &&
         (&found <= &cause("ppt.late") || c.sees_ppt(from, until));
}

// What led to the verdict that says that something failed.
Claim blame(const Case& c, const Case::Verdict& failure) {
  Nanoseconds before = c.reading.first;
  for (const Case::Verdict& verdict : c.verdicts) {
    if (verdict.at < failure.at) before = verdict.at;
  }
  const Cause* const better = first_found(c, Weight::kExplains, [&](const Finding& finding) {
    return finding.cause->id != kUnitFailed && finding.at >= before && finding.at < failure.at;
  });
  if (better != nullptr && is_first_for_sure(*better, before, failure.at, c)) return claim_of(*better, c);
  if (better == nullptr && c.is_all_seen(before, failure.at)) return claim_of(cause(kUnitFailed), c);
  return claim_of("verdict.unexplained", {gave(c, failure), failure.evidence});
}

Claim fault_of_failure(const Case& c) {
  return blame(c, *std::find_if(c.verdicts.begin(), c.verdicts.end(),
                                [](const Case::Verdict& verdict) { return is_failure(verdict.says); }));
}

// What kept the unit from coming further; null where the record may lack that it did.
const Cause* what_hindered(const Case& c) {
  const Cause* const found =
      first_found(c, Weight::kExplains, [&](const Finding& finding) { return finding.at >= c.last_success; });
  const bool is_sure =
      found == nullptr || !c.has_unit || is_first_for_sure(*found, c.last_success, c.reading.last, c);
  return is_sure ? found : nullptr;
}

// Why there is no final verdict.
Claim fault_of_none(const Case& c) {
  const auto always = [](const Finding&) { return true; };
  if (!c.is_a_run) return claim_of("record.no-run", {"no frame and no line is a station's", everything(c)});
  if (const Cause* decides = first_found(c, Weight::kDecides, always)) return claim_of(*decides, c);
  const Cause* const hindrance = what_hindered(c);
  if (hindrance != nullptr && hindrance->id == kUnitFailed) return blame(c, c.verdicts.back());
  if (hindrance != nullptr) return claim_of(*hindrance, c);
  const Cause* const ends = first_found(c, Weight::kEnds, always);
  if (ends != nullptr && c.is_all_seen(c.last_success, c.reading.last)) return claim_of(*ends, c);
  const bool has_ended = ends != nullptr || c.reading.station_end;
  return claim_of(
      has_ended ? "verdict.unexplained" : "record.no-end",
      {has_ended ? "there is no final verdict" : "the record ends without a final verdict", everything(c)});
}

Claim fault_of(const Case& c, Outcome outcome) {
  if (outcome == Outcome::kFailed) return fault_of_failure(c);
  if (outcome == Outcome::kNone) return fault_of_none(c);
  const auto final = std::find_if(c.verdicts.begin(), c.verdicts.end(),
                                  [](const Case::Verdict& verdict) { return verdict.says == Says::kPassed; });
  return claim_of("passed", {gave(c, *final), final->evidence});
}

std::vector<Claim> others(const Case& c, const Claim& fault) {
  std::set<const Cause*> found;
  for (const Finding& finding : c.findings) found.insert(finding.cause);
  found.erase(fault.cause);
  if (fault.cause->id == "verdict.unexplained") found.erase(&cause(kUnitFailed));  // it says so itself
  std::vector<Claim> claims;
  if (!c.is_a_run) return claims;
  std::map<const Cause*, Claim> by_cause;
  for (const Finding& finding : c.findings) {
    if (found.count(finding.cause) == 0) continue;
    Claim& claim = by_cause[finding.cause];
    claim.cause = finding.cause;
    add(finding.statement, &claim);
  }
  for (auto& [cause, claim] : by_cause) claims.push_back(std::move(claim));
  return claims;
}

// What shows the same as the fault does.
void take_over_what_belongs_to(Claim* fault, std::vector<Claim>* also) {
  const auto belongs = [fault](const Claim& claim) {
    if (fault->cause->id == "ppt.refused") return claim.cause->id == "ppt.closed";
    const auto is_of_envtool = [](const Statement& statement) {
      return statement.sentence.find("envtool") != std::string::npos;
    };
    return fault->cause->id == "board.mac-default" && claim.cause->id == "board.tool-missing" &&
           std::all_of(claim.statements.begin(), claim.statements.end(), is_of_envtool);
  };
  const auto claim = std::find_if(also->begin(), also->end(), belongs);
  if (claim == also->end()) return;
  for (const Statement& statement : claim->statements) add(statement, fault);
  fault->left_out += claim->left_out;
  also->erase(claim);
}

// The failure of a unit that another fault explains.
void tell_what_follows(Explanation* told) {
  for (Claim& claim : told->also) {
    if (claim.cause->id != kUnitFailed) continue;
    std::string& sentence = claim.statements.front().sentence;
    sentence.insert(std::string_view("the unit ").size(), "then ");
    sentence += "; it may be because of this fault";
  }
}

// Of one that failed.
std::string advice_for_unit(const Cause& cause) {
  if (cause.id == kUnitFailed) return "";  // says so itself
  const std::string again = " This unit: test it again";
  return again + (cause.owner == Owner::kUnit ? "; if the same comes again, put it aside as failed." : ".");
}

std::string mac_text(const frames::Mac& mac) {
  return frames::hexadecimal(std::string(mac.begin(), mac.end()), ":");
}

std::vector<Unit> units_of(const Case& c) {
  std::vector<std::size_t> places;
  for (const Case::Verdict& verdict : c.verdicts) {
    if (verdict.place != kNone && places.empty()) places.push_back(c.reading.verdicts[verdict.place].unit);
  }
  if (!places.empty() && places.front() == kNone) places.clear();
  for (std::size_t i = 0; i < c.reading.parties.size(); ++i) {
    const bool is_new = places.empty() || places.front() != i;
    if (c.reading.parties[i].role == story::Role::kUnit && is_new) places.push_back(i);
  }
  std::vector<Unit> units;
  for (const std::size_t place : places) {
    const auto& mac = c.reading.parties[place].mac;
    units.push_back({address_of(c.reading, place), mac ? mac_text(*mac) : ""});
  }
  return units;
}

std::vector<Read> reads_of(const Case& c) {
  std::vector<Read> reads;
  for (const story::Transfer& asked : c.reading.transfers) {
    if (!c.is_read_of_file(asked)) continue;
    const story::Transfer& transfer = c.served_by(asked);
    Read read;
    read.file = frames::printable(asked.name);
    if (transfer.blocks > 0) {
      read.bytes = transfer.bytes;
      read.block_size = transfer.block_size;
      read.blocks = transfer.blocks;
      read.repeated = transfer.data.again;
      read.seconds = static_cast<double>(transfer.data_until - transfer.from) / 1e9;
    }
    read.finished = has_come_to_its_end(transfer);
    reads.push_back(std::move(read));
  }
  if (!reads.empty()) return reads;
  for (const Case::Line* line : c.lines_with("RRQ <NAME>")) {
    Read read;
    read.file = frames::printable(values_in(*line->printed, line->text).front());
    reads.push_back(std::move(read));
  }
  return reads;
}

std::vector<Step> steps_of(const Case& c) {
  std::vector<Step> steps;
  for (const Case::Verdict& verdict : c.verdicts) {
    if (story::is_final(verdict.says)) continue;
    const bool passed = verdict.name.find("PASSED") != std::string::npos;
    steps.push_back({frames::printable(verdict.name), verdict.says == Says::kStepFailed
                                                          ? Step::Result::kFailed
                                                      : passed ? Step::Result::kPassed
                                                               : Step::Result::kReported});
  }
  return steps;
}

std::optional<Exit> exit_of(const Case& c) {
  const auto& end = c.reading.station_end;
  if (!end) return std::nullopt;
  Exit exit;
  exit.status = end->status;
  if (end->signal != 0) exit.signal = end->signal;
  exit.meaning = end_in_words(c);
  return exit;
}

}  // namespace

Explanation explain(const Reading& reading) {
  Case c(reading);
  find_lines(&c);
  find_boot(&c);
  find_reads(&c);
  find_network(&c);
  find_ppt(&c);
  find_commands(&c);
  find_failures(&c);
  find_end(&c);
  Explanation told;
  if (reading.run) told.name = frames::printable(reading.run->name);
  if (reading.first != 0) told.start = reading.first;
  told.duration = reading.last - reading.first;
  told.verdict = c.is_a_run ? outcome_of(c) : Outcome::kNone;
  told.exit = exit_of(c);
  told.units = units_of(c);
  told.reads = reads_of(c);
  told.steps = steps_of(c);
  told.fault = fault_of(c, told.verdict);
  told.also = others(c, told.fault);
  take_over_what_belongs_to(&told.fault, &told.also);
  if (told.verdict == Outcome::kFailed) tell_what_follows(&told);
  tell_cause(c, &told.fault);
  for (Claim& claim : told.also) tell_cause(c, &claim);
  if (told.verdict == Outcome::kFailed) told.fault.advice += advice_for_unit(*told.fault.cause);
  told.incomplete = incomplete(c);
  return told;
}

}  // namespace explanation
