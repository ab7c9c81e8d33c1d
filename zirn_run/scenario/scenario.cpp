#include "scenario/scenario.h"

#include <algorithm>

#include "frames/words.h"
#include "scenario/writing.h"

namespace scenario {

namespace {

using story::Reading;
using story::Role;

// The one that gave verdicts, or else the first that asked for something.
std::size_t unit_of(const Reading& reading) {
  if (!reading.verdicts.empty()) return reading.verdicts[0].unit;
  const auto unit = std::find_if(reading.parties.begin(), reading.parties.end(),
                                 [](const story::Party& party) { return party.role == Role::kUnit; });
  return unit == reading.parties.end() ? story::kNone
                                       : static_cast<std::size_t>(unit - reading.parties.begin());
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
    if (step.kind == Kind::kCut || step.kind == Kind::kStationEnds || is_interruption(step))
      steps.push_back(&step);
  }
  return steps;
}

}  // namespace

bool Writing::has_cause(std::string_view id) const {
  return told.fault.cause->id == id || std::any_of(told.also.begin(), told.also.end(),
                                                   [id](const auto& claim) { return claim.cause->id == id; });
}

Scenario scenario_of(const Reading& reading) {
  const explanation::Explanation told = explanation::explain(reading);
  Writing writing = {reading, told, unit_of(reading), disturbances_in(reading), {}};
  write_ppt_server(&writing);
  write_board(&writing);
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
