#include "picture/outcome.h"

#include <algorithm>
#include <set>

#include "frames/words.h"
#include "picture/telling.h"

namespace picture {

namespace {

using story::Reading;
using story::Step;
using story::Transfer;
using story::Verdict;

constexpr std::string_view kVerdictLine = "Cmd received: ";
constexpr int kEndedByVerdictOrHand = 2;
constexpr int kEndedByHand = 15;

// The verdict that the station was told with this step; kNone: none. A request after the station's end is
// answered by a closed port, and by nothing else.
std::size_t verdict_told_by(const Reading& reading, const Step& step) {
  if (step.kind != Step::Kind::kRequest || step.thread == kNone) return kNone;
  const Transfer& transfer = reading.transfers[step.thread];
  if (transfer.verdict == kNone || transfer.client == story::kStation) return kNone;
  const bool arrived = transfer.answered || (step.lost < step.count && transfer.closed_ports == 0);
  return arrived ? transfer.verdict : kNone;
}

bool begins_a_turn(const Reading& reading, const Step& step) {
  if (step.kind == Step::Kind::kConnect || step.kind == Step::Kind::kDatagram) return true;
  if (step.kind != Step::Kind::kRequest || step.source == story::kStation) return false;
  const std::size_t verdict = reading.transfers[step.thread].verdict;
  return verdict == kNone || !story::is_final(reading.verdicts[verdict].says);
}

// Reads a run step by step.
class Judge {
 public:
  Judge(const Reading& reading, std::optional<std::uint32_t> unit) : reading_(reading), unit_(unit) {
    outcome_.turn_of_step.assign(reading.steps.size(), kNone);
    for (const Verdict& verdict : reading.verdicts) {
      if (verdict.transfer != kNone) seen_.insert(verdict.name);
    }
  }

  Outcome judged() {
    for (const std::size_t place : reading_.order) take(place);
    for (std::size_t i = 0; i < outcome_.turns.size(); ++i) {
      if (outcome_.turns[i].verdict == kNone && is_served_[i]) ++outcome_.without;
    }
    if (outcome_.passed + outcome_.failed == 0) {
      for (const story::UntimedLine& line : reading_.untimed_lines) take_line(kNone, line.text);
    }
    if (outcome_.passed + outcome_.failed == 0) {
      outcome_.without = 0;
      mark_what_ended_it();
    }
    const auto& end = reading_.run_end;
    outcome_.went_wrong = end && !end->judged.empty() && end->judged != record::kAsTheScenarioSays;
    if (outcome_.went_wrong && last_of_[Step::Kind::kRunEnds] != kNone) {
      mark(last_of_[Step::Kind::kRunEnds], Mark::kWrong,
           "the run went WRONG: " + frames::printable(end->judged));
    }
    return std::move(outcome_);
  }

 private:
  void mark(std::size_t place, Mark mark, const std::string& words) {
    outcome_.marks.emplace(place, std::make_pair(mark, words));
  }

  void take(std::size_t place) {
    const Step& step = reading_.steps[place];
    last_of_.insert_or_assign(step.kind, place);
    const std::size_t unit = unit_of(reading_, step);
    if (unit != kNone && is_chosen(unit)) {
      take_of_unit(place, unit);
    } else if (unit == kNone) {
      outcome_.turn_of_step[place] = outcome_.turns.size() - 1;
      if (step.kind == Step::Kind::kLine) take_line(place, step.said.text);
    }
  }

  bool is_chosen(std::size_t unit) const {
    const std::vector<std::uint32_t>& addresses = reading_.parties[unit].addresses;
    return !unit_ || std::count(addresses.begin(), addresses.end(), *unit_) > 0;
  }

  void take_of_unit(std::size_t place, std::size_t unit) {
    const Step& step = reading_.steps[place];
    const auto [found, is_first] = present_.emplace(unit, 0);
    if (is_first || (outcome_.turns[found->second].is_closed && begins_a_turn(reading_, step))) {
      found->second = outcome_.turns.size();
      Turn turn;
      turn.unit = unit;
      turn.from = turn.until = step.from;
      outcome_.turns.push_back(turn);
      is_served_.push_back(false);
    }
    Turn& turn = outcome_.turns[found->second];
    outcome_.turn_of_step[place] = found->second;
    turn.until = std::max(turn.until, step.until);
    turn.last_step = place;
    if (step.kind == Step::Kind::kBlocks) is_served_[found->second] = true;
    if (is_bad_end(step)) last_bad_ = place;
    const std::size_t verdict = verdict_told_by(reading_, step);
    if (verdict != kNone) take_verdict(place, verdict, &turn);
  }

  bool is_bad_end(const Step& step) const {
    if (!is_of_transfer(step.kind) || step.thread == kNone) return false;
    const Transfer::End end = reading_.transfers[step.thread].end;
    return end == Transfer::End::kError || end == Transfer::End::kUnanswered ||
           end == Transfer::End::kAbandoned || end == Transfer::End::kStationEnds;
  }

  void take_verdict(std::size_t place, std::size_t number, Turn* turn) {
    const Verdict& verdict = reading_.verdicts[number];
    outcome_.last_verdict = verdict.name;
    if (verdict.says == Verdict::Says::kStepFailed) mark(place, Mark::kFailed, "a step FAILED");
    if (!story::is_final(verdict.says) || turn->is_closed) return;
    turn->verdict = number;
    turn->is_closed = true;
    take_final(place, turn->unit, verdict.says);
  }

  void take_final(std::size_t place, std::size_t unit, Verdict::Says says) {
    const bool passed = says == Verdict::Says::kPassed;
    ++(passed ? outcome_.passed : outcome_.failed);
    if (place == kNone) return;
    const std::string who = unit == kNone ? "the unit" : name_of(reading_, unit);
    mark(place, passed ? Mark::kPassed : Mark::kFailed, who + (passed ? " PASSED" : " FAILED"));
  }

  // A verdict that the frames do not have.
  void take_line(std::size_t place, std::string_view line) {
    if (line.substr(0, kVerdictLine.size()) != kVerdictLine) return;
    const std::string name(line.substr(kVerdictLine.size()));
    if (seen_.count(name) > 0) return;
    const auto says = story::verdict_in(name);
    outcome_.last_verdict = name;
    if (!says) return;
    if (*says == Verdict::Says::kStepFailed && place != kNone) mark(place, Mark::kFailed, "a step FAILED");
    if (story::is_final(*says)) take_final(place, kNone, *says);
  }

  // Where there is no final verdict: the station that failed, else what went wrong last, else that nobody came, else
  // who ended it.
  void mark_what_ended_it() {
    const auto& end = reading_.station_end;
    const auto ends = last_of_.find(Step::Kind::kStationEnds);
    const bool failed = end && (end->signal != 0 || (end->status && *end->status != kEndedByVerdictOrHand &&
                                                     *end->status != kEndedByHand));
    const auto script = last_of_.find(Step::Kind::kBootScript);
    if (failed && ends != last_of_.end()) {
      mark(ends->second, Mark::kWrong, "this ended the run");
    } else if (last_bad_ != kNone) {
      mark(last_bad_, Mark::kWrong, "this went wrong last");
    } else if (script != last_of_.end() && !reading_.boot_script->answered) {
      mark(script->second, Mark::kWrong, "nobody answered");
    } else if (ends != last_of_.end()) {
      mark(ends->second, Mark::kWrong, "ended without a final verdict");
    }
  }

  const Reading& reading_;
  const std::optional<std::uint32_t> unit_;
  Outcome outcome_;
  std::map<std::size_t, std::size_t> present_;  // the turn of a unit
  std::set<std::string> seen_;                  // verdicts, in frames
  std::vector<bool> is_served_;                 // turns
  std::map<Step::Kind, std::size_t> last_of_;   // steps
  std::size_t last_bad_ = kNone;                // step
};

std::string units(std::uint64_t count, const char* what) {
  return frames::counted(count, "unit") + " " + what;
}

}  // namespace

Outcome outcome_of(const Reading& reading, std::optional<std::uint32_t> unit) {
  return Judge(reading, unit).judged();
}

std::size_t unit_of(const Reading& reading, const Step& step) {
  for (const std::size_t party : {step.source, step.target}) {
    if (party != kNone && reading.parties[party].role == story::Role::kUnit) return party;
  }
  if (step.thread == kNone) return kNone;
  if (step.kind == Step::Kind::kRelayed) return reading.relayed[step.thread].unit;
  if (!is_of_transfer(step.kind)) return kNone;
  const std::size_t verdict = reading.transfers[step.thread].verdict;
  return verdict == kNone ? kNone : reading.verdicts[verdict].unit;
}

std::vector<std::pair<Mark, std::string>> in_words(const Outcome& outcome) {
  const std::uint64_t count = outcome.passed + outcome.failed;
  std::vector<std::pair<Mark, std::string>> words;
  if (outcome.went_wrong) words.emplace_back(Mark::kWrong, "the run went WRONG");
  if (count == 0) {
    words.emplace_back(Mark::kUnmarked, "no final verdict");
  } else if (count == 1 && outcome.without == 0) {
    words.emplace_back(outcome.passed == 1 ? Mark::kPassed : Mark::kFailed,
                       outcome.passed == 1 ? "the unit PASSED" : "the unit FAILED");
  } else {
    if (outcome.failed > 0) words.emplace_back(Mark::kFailed, units(outcome.failed, "FAILED"));
    if (outcome.passed > 0) words.emplace_back(Mark::kPassed, units(outcome.passed, "PASSED"));
    if (outcome.without > 0)
      words.emplace_back(Mark::kUnmarked, units(outcome.without, "without a final verdict"));
  }
  return words;
}

}  // namespace picture
