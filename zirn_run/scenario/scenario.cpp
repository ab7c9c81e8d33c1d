#include "scenario/scenario.h"

#include <algorithm>

#include "frames/words.h"
#include "scenario/writing.h"

namespace scenario {

namespace {

using story::Reading;
using story::Role;

constexpr std::size_t kMostUnits = 4;  // that a scenario can name

// The one that gave verdicts first, and then all that asked for something.
std::vector<std::size_t> units_of(const Reading& reading) {
  std::vector<std::size_t> units;
  if (!reading.verdicts.empty()) units.push_back(reading.verdicts[0].unit);
  for (std::size_t party = 0; party < reading.parties.size() && units.size() < kMostUnits; ++party) {
    const bool is_first = !units.empty() && units[0] == party;
    if (reading.parties[party].role == Role::kUnit && !is_first) units.push_back(party);
  }
  return units;
}

std::string title_of(const Reading& reading) {
  const std::string title = !reading.run                 ? ""
                            : reading.run->title.empty() ? reading.run->name
                                                         : reading.run->title;
  return title.empty() ? "A recorded run" : frames::printable(title);
}

Nanoseconds start_of(const Reading& reading) {
  const auto line = std::find_if(reading.steps.begin(), reading.steps.end(), [](const story::Step& step) {
    return step.kind == story::Step::Kind::kLine;
  });
  return line == reading.steps.end() ? reading.first : line->from;
}

std::vector<const story::Step*> disturbances_in(const Reading& reading) {
  using Kind = story::Step::Kind;
  std::vector<const story::Step*> steps;
  for (const story::Step& step : reading.steps) {
    if (step.kind == Kind::kCut || step.kind == Kind::kStationEnds || is_interruption(reading, step))
      steps.push_back(&step);
  }
  return steps;
}

}  // namespace

const explanation::Claim* Writing::claim_of(std::string_view cause) const {
  if (told.fault.cause->id == cause) return &told.fault;
  const auto also = std::find_if(told.also.begin(), told.also.end(),
                                 [cause](const auto& claim) { return claim.cause->id == cause; });
  return also == told.also.end() ? nullptr : &*also;
}

bool Writing::has_unit(std::size_t party) const {
  return std::find(units.begin(), units.end(), party) != units.end();
}

std::string Writing::of_unit(std::size_t party, const std::string& form) const {
  constexpr std::size_t kWord = std::char_traits<char>::length("unit");
  const auto place = std::find(units.begin(), units.end(), party) - units.begin();
  return place == 0 ? form
                    : form.substr(0, kWord) + ' ' + static_cast<char>('a' + place) + form.substr(kWord);
}

Scenario scenario_of(const Reading& reading, const Contents* contents) {
  const explanation::Explanation told = explanation::explain(reading);
  Writing writing = {reading, told, units_of(reading), disturbances_in(reading), contents, {}};
  write_board(&writing);  // first: nobody may be on the network before it is set up
  write_ppt_server(&writing);
  write_commands(&writing);
  write_end(&writing);
  write_reads(&writing);
  if (reading.left_out > 0)
    writing.script.cannot_say(reading.last,
                              "more than can be told: " + frames::counted(reading.left_out, "thing"), {});
  Scenario scenario = writing.script.written(title_of(reading), start_of(reading));
  const explanation::Cause& cause = *told.fault.cause;
  scenario.text += "fault is " + std::string(name_of(cause.owner)) + " by " + std::string(cause.id) + '\n';
  return scenario;
}

}  // namespace scenario
