// How the station ended.
#include <signal.h>

#include <algorithm>

#include "scenario/writing.h"

namespace scenario {

namespace {

constexpr int kBySignal = 128;                // more than its number, as a shell counts it
constexpr Nanoseconds kUsual = 10 * kSecond;  // after the last verdict, at the most

// What somebody sent the station that ended so. Of several that fit, the first.
struct End {
  int status;         // as a shell counts it
  const char* cause;  // that ends it by itself; empty: a final verdict does
  const char* signal;
};
constexpr End kEnds[] = {
    {2, "", "SIGINT"},
    {128 + SIGABRT, "verdict.too-short", "SIGABRT"},
    {128 + SIGPIPE, "command.left-early", nullptr},
    {15, "", "SIGTERM"},
    {128 + SIGKILL, "", "SIGKILL"},
    {128 + SIGSEGV, "", "SIGSEGV"},
};

bool ends_by_itself(const End& end, const Writing& writing) {
  if (end.status == 2) return writing.told.verdict != explanation::Outcome::kNone;
  return *end.cause != '\0' && writing.has_cause(end.cause);
}

void write_signal(int status, const story::Step& step, Writing* writing) {
  const auto* const end = std::find_if(std::begin(kEnds), std::end(kEnds),
                                       [status](const End& one) { return one.status == status; });
  const bool is_known = end != std::end(kEnds);
  if (is_known ? ends_by_itself(*end, *writing) : status == 1) return;
  if (!is_known || end->signal == nullptr)
    return writing->script.cannot_say(step.from, "what ended the station with " + std::to_string(status),
                                      step.lines);
  writing->script.acts(step.from, step.from, std::string("station gets ") + end->signal, {}, step.lines);
}

// A station that took long may take twice as long.
std::string patience(Nanoseconds end, const story::Reading& reading) {
  const Nanoseconds last = reading.verdicts.empty() ? end : reading.verdicts.back().at;
  return end - last <= kUsual ? ""
                              : " within " + in_tenths(2 * static_cast<double>(end - last) / kSecond) + " s";
}

}  // namespace

void write_end(Writing* writing) {
  const story::Reading& reading = writing->reading;
  Script& script = writing->script;
  const auto step = std::find_if(reading.steps.begin(), reading.steps.end(), [](const story::Step& one) {
    return one.kind == story::Step::Kind::kStationEnds;
  });
  if (step == reading.steps.end() || !reading.station_end) {
    if (writing->told.verdict != explanation::Outcome::kNone)  // which ends it
      return script.waits(reading.last, "station exits 2", {}, {});
    script.cannot_say(reading.last, "the record does not say how the station ended", {});
    script.acts(reading.last, reading.last, "station gets SIGTERM", {}, {});
    return script.waits(reading.last, "station exits 15", {}, {});
  }
  const auto& end = *reading.station_end;
  const bool is_known = end.signal != 0 || end.status.has_value();
  const int status = end.signal != 0 ? kBySignal + end.signal : end.status.value_or(2);
  if (!is_known) script.cannot_say(step->from, "the station's exit status is not in the record", step->lines);
  write_signal(status, *step, writing);
  script.waits(step->from, "station exits " + std::to_string(status) + patience(step->from, reading), {},
               step->lines);
  if (reading.run_end && !reading.run_end->ppt_flag.empty())
    script.waits(step->from, "board keeps ppt_flag TEXT", {reading.run_end->ppt_flag}, step->lines);
}

}  // namespace scenario
