#include "story/reading.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>

namespace story {

namespace {

constexpr std::string_view kPrefix = "F_l_m_";
constexpr std::string_view kTag = "CPU_2_";
constexpr std::size_t kTagPosition = 8;

bool contains(std::string_view text, std::string_view word) {
  return text.find(word) != std::string_view::npos;
}

// As often as it was sent.
bool is_answer_lost(const Transfer& query) {
  return std::any_of(query.losses.begin(), query.losses.end(), [&query](const Loss& loss) {
    return loss.what == Loss::What::kAnswer && loss.times >= query.data.sent;
  });
}

PassedOn outcome_of(const Transfer& query) {
  if (is_answer_lost(query)) return PassedOn::kSilent;
  if (query.end == Transfer::End::kError && query.ended_by == query.server) return PassedOn::kRefused;
  if (query.answered || query.is_end_inferred) return PassedOn::kAnswered;
  if (query.closed_ports > 0) return PassedOn::kClosedPort;
  switch (query.end) {
    case Transfer::End::kUnanswered:
      return PassedOn::kSilent;
    case Transfer::End::kOpen:
    case Transfer::End::kStationEnds:
      return PassedOn::kWaiting;
    default:
      return PassedOn::kNotSeen;
  }
}

constexpr std::string_view kWaitFailed = "Error in select():";
constexpr std::string_view kArmed = "Message Sender initialized.";
constexpr Nanoseconds kAlarm = 10000000000;      // after that line
constexpr Nanoseconds kAlarmMargin = 500000000;  // by which a line may be read late on a busy machine

bool is_line(const Step& step, std::string_view beginning) {
  return step.kind == Step::Kind::kLine && step.said.text.compare(0, beginning.size(), beginning) == 0;
}

constexpr int kKilled = 128;  // plus the signal's number, as a shell says it

}  // namespace

std::string in_words(const record::StationEnds& end) {
  struct Meaning {
    int status;
    int signal;
    const char* words;
  };
  static constexpr Meaning kMeanings[] = {
      {2, 0, "a final verdict or SIGINT ended the run"},
      {1, 0, "the TFTP port could not be bound, or -s was empty"},
      {15, 0, "SIGTERM"},
      {0, SIGPIPE, "SIGPIPE: the unit closed its command connection before its answer was sent"},
      {0, SIGABRT, "abort: no socket could be made, or a verdict name of fewer than eight characters came"},
      {0, SIGKILL, "SIGKILL"}};
  if (end.signal == 0 && !end.status) return "not known";
  const int status = end.signal == 0 ? *end.status : 0;
  std::string number = std::to_string(end.signal == 0 ? status : kKilled + end.signal);
  for (const Meaning& meaning : kMeanings) {
    if (meaning.status == status && meaning.signal == end.signal) return number + " (" + meaning.words + ")";
  }
  return number;
}

std::optional<Nanoseconds> alarm_in(const Reading& reading) {
  const auto armed = std::find_if(reading.steps.begin(), reading.steps.end(),
                                  [](const Step& step) { return is_line(step, kArmed); });
  if (armed == reading.steps.end()) return std::nullopt;
  return armed->from + kAlarm;
}

bool is_by_alarm(const Reading& reading, const Step& line) {
  if (!is_line(line, kWaitFailed)) return false;
  const auto alarm = alarm_in(reading);
  return alarm && std::abs(line.from - *alarm) < kAlarmMargin;
}

std::optional<Verdict::Says> verdict_in(std::string_view name) {
  if (name.substr(0, kPrefix.size()) != kPrefix) return std::nullopt;
  if (contains(name, "PPT_FAILED")) return Verdict::Says::kFailed;
  if (contains(name, "PPT_PASSED")) return Verdict::Says::kPassed;
  return contains(name, "TEST_FAILED") ? Verdict::Says::kStepFailed : Verdict::Says::kStep;
}

std::string_view passed_on_part(std::string_view text) {
  constexpr std::size_t kMost = 255;  // bytes, and none after a NUL
  return text.substr(0, std::min(text.find('\0'), kMost));
}

bool is_final(Verdict::Says says) {
  return says == Verdict::Says::kPassed || says == Verdict::Says::kFailed;
}

std::string query_for(const std::string& verdict) {
  if (verdict.size() < kTagPosition) return "";
  return std::string(verdict).insert(kTagPosition, kTag);
}

bool is_query(std::string_view name) {
  return verdict_in(name) && name.size() >= kTagPosition && name.substr(kTagPosition, kTag.size()) == kTag;
}

std::string verdict_of(const std::string& query) {
  return std::string(query).erase(kTagPosition, kTag.size());
}

PassedOn passed_on(const Reading& reading, const Verdict& verdict) {
  if (is_final(verdict.says)) return PassedOn::kNotDue;
  if (verdict.queries.empty()) return PassedOn::kNotSeen;
  return outcome_of(reading.transfers[verdict.queries.back()]);
}

}  // namespace story
