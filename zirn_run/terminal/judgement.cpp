#include "terminal/judgement.h"

#include <algorithm>

#include "explanation/explanation.h"
#include "frames/words.h"
#include "picture/words.h"

namespace terminal {

namespace {

using explanation::Explanation;
using explanation::Owner;
using explanation::Step;
using frames::counted;

std::string verdict_in_words(const Explanation& told, const story::Reading& reading) {
  switch (told.verdict) {
    case explanation::Outcome::kPassed:
      return "the unit PASSED";
    case explanation::Outcome::kFailed:
      return "the unit FAILED";
    case explanation::Outcome::kNone:
      break;
  }
  return reading.has_ended || reading.station_end ? "no final verdict" : "no final verdict yet";
}

std::string how_far_in_words(const Explanation& told, const story::Reading& reading) {
  std::string text = verdict_in_words(told, reading);
  const auto reads = std::count_if(told.reads.begin(), told.reads.end(),
                                   [](const auto& read) { return read.finished.value_or(false); });
  const auto failed = std::count_if(told.steps.begin(), told.steps.end(),
                                    [](const Step& step) { return step.result == Step::Result::kFailed; });
  if (reads > 0) picture::add_words(&text, counted(static_cast<std::uint64_t>(reads), "file") + " read");
  if (!told.steps.empty()) picture::add_words(&text, counted(told.steps.size(), "step") + " reported");
  if (failed > 0) picture::add_words(&text, std::to_string(failed) + " FAILED");
  if (text.find(',') == std::string::npos && reading.boot_script)
    picture::add_words(&text, reading.boot_script->answered ? "the unit boots" : "waiting for a unit");
  return text;
}

// Before the end, what nobody is at fault for is that the end is not there yet.
std::string fault_in_words(const Explanation& told, const story::Reading& reading) {
  const explanation::Cause& cause = *told.fault.cause;
  if (cause.owner == Owner::kNone || (cause.owner == Owner::kUnknown && !reading.has_ended)) return "";
  std::string text = std::string(words_for(cause.owner)) + " (" + std::string(cause.id) + ")";
  if (!told.fault.statements.empty()) text += ": " + told.fault.statements.front().sentence;
  return text;
}

}  // namespace

bool Judgement::look_at(const story::Reading& reading, Clock::time_point now) {
  if (reading.revision == revision_ || now < next_) return false;
  judge(reading);
  const Clock::duration took = Clock::now() - now;
  next_ = now + std::max<Clock::duration>(kPace, took * kShare);
  return true;
}

void Judgement::judge(const story::Reading& reading) {
  revision_ = reading.revision;
  const Explanation told = explanation::explain(reading);
  how_far_ = how_far_in_words(told, reading);
  fault_ = fault_in_words(told, reading);
  style_ = told.verdict == explanation::Outcome::kPassed   ? Style::kPassed
           : told.verdict == explanation::Outcome::kFailed ? Style::kFailed
                                                           : Style::kPlain;
}

}  // namespace terminal
