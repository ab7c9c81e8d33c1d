// What ended the station.
#include <algorithm>
#include <csignal>

#include "explanation/case.h"
#include "frames/words.h"

namespace explanation {

namespace {

constexpr std::size_t kShortestVerdict = 8;  // characters
constexpr int kKilled = 128;                 // plus the signal's number, as a shell says it
constexpr int kFailure = 1, kInterrupted = 2, kTerminated = 15;

constexpr char kStopped[] = "the run was stopped from outside (SIGTERM)";
constexpr char kInterruptedRun[] = "the run was stopped from outside (SIGINT)";

// Why the station ended so, where the cause shows it.
struct Reason {
  std::string_view cause;
  std::string_view status;
  std::string_view words;
};
constexpr Reason kReasons[] = {
    {"verdict.too-short", "134", "abort: a verdict name of fewer than eight characters came"},
    {"start.no-socket", "134", "abort: no socket could be made"},
    {"end.abort", "134", "abort"},
    {"start.no-server", "1", "-s was empty"},
    {"start.port-in-use", "1", "the TFTP port could not be bound"},
    {"start.no-address", "1", "the TFTP port could not be bound"},
    {"start.no-right", "1", "the TFTP port could not be bound"},
    {"start.no-port", "1", "the TFTP port could not be bound"}};

Evidence evidence_of_end(const Case& c) {
  for (const story::Step& step : c.reading.steps) {
    if (step.kind == story::Step::Kind::kStationEnds) return seen({}, step.lines);
  }
  return c.lines.empty() ? Evidence() : inferred({}, c.lines.back().numbers);
}

void find_short_verdict(Case* c) {
  if (c->verdicts.empty() || c->verdicts.back().name.size() >= kShortestVerdict) return;
  const Case::Verdict& verdict = c->verdicts.back();
  Evidence evidence = verdict.evidence;
  evidence.is_inferred = !c->reading.station_end;
  c->find("verdict.too-short", verdict.at,
          "the unit gave " + frames::quoted(verdict.name) + at(*c, verdict.at), evidence);
}

void find_signal(int signal, Case* c) {
  const auto find = [c](std::string_view cause, const std::string& sentence) {
    c->find(cause, c->reading.last, sentence + at(*c, c->reading.last), evidence_of_end(*c));
  };
  if (signal == SIGABRT) {
    if (!c->verdicts.empty() && c->verdicts.back().name.size() < kShortestVerdict) return;
    find("end.abort", "the station's program was aborted");
  } else if (signal == SIGPIPE) {
    find("command.left-early", "the station's program was ended by SIGPIPE");
  } else if (signal == SIGKILL) {
    find("end.sigkill", "the run was killed from outside (SIGKILL)");
  } else if (signal == SIGTERM || signal == SIGINT) {
    find(signal == SIGTERM ? "end.sigterm" : "end.sigint", signal == SIGTERM ? kStopped : kInterruptedRun);
  } else {
    find("end.signal", "the station's program was ended by signal " + std::to_string(signal));
  }
}

void find_status(int status, Case* c) {
  const auto find = [&](std::string_view cause, const std::string& sentence) {
    c->find(cause, c->reading.last, sentence + at(*c, c->reading.last), evidence_of_end(*c));
  };
  const bool has_begun = c->has_line("Starting TFTP server on <ADDRESS>:<PORT> PPT Server: <ADDRESS>");
  if (status == kInterrupted) find("end.sigint", kInterruptedRun);
  if (status == kTerminated) find("end.sigterm", kStopped);
  if (status == kFailure && !has_begun && c->has_line("Usage: TFTP [-h] [-p port] [-s server]"))
    find("start.no-server", "the station's program ended with status 1, after its usage");
}

bool has_found(const Case& c, Weight weight) {
  return std::any_of(c.findings.begin(), c.findings.end(),
                     [weight](const Finding& finding) { return finding.cause->weight == weight; });
}

bool find_timeout(Case* c) {
  for (const story::Step& step : c->reading.steps) {
    if (step.kind != story::Step::Kind::kTimeout) continue;
    c->find("end.timeout", step.from,
            "the run took longer than " + seconds(c->reading.timeout->after) +
                ", and the station was asked to end" + at(*c, step.from),
            seen({}, step.lines));
    return true;
  }
  return false;
}

// The station says that it ended, and nothing says how.
void find_unknown_end(Case* c) {
  const auto ends = c->lines_with("TFTP Server was shut down");
  if (ends.empty() || has_found(*c, Weight::kDecides)) return;
  c->find("end.sigterm", ends.back()->at,
          "the station's program says that it was shut down, without a final verdict: by SIGTERM or SIGINT",
          inferred({}, ends.back()->numbers));
}

}  // namespace

std::string end_in_words(const Case& c) {
  std::string general = story::in_words(*c.reading.station_end);
  const std::string status = general.substr(0, general.find(' '));
  const auto because = [&status](std::string_view words) { return status + " (" + std::string(words) + ")"; };
  if (status == std::to_string(kInterrupted)) {
    if (!c.verdicts.empty() && story::is_final(c.verdicts.back().says))
      return because("the final verdict ended the run");
    return c.sees_unit(c.last_success, c.reading.last) ? because("SIGINT ended the run") : general;
  }
  for (const Finding& finding : c.findings) {
    for (const Reason& reason : kReasons) {
      if (finding.cause->id == reason.cause && status == reason.status) return because(reason.words);
    }
  }
  return general;
}

void find_end(Case* c) {
  find_short_verdict(c);
  if (!c->verdicts.empty() && story::is_final(c->verdicts.back().says)) return;
  const bool has_timed_out = find_timeout(c);
  const auto& end = c->reading.station_end;
  const bool is_known = end && (end->signal != 0 || end->status);
  if (!is_known && has_timed_out) return;
  if (!is_known) return find_unknown_end(c);
  const int signal = end->signal != 0 ? end->signal : end->status > kKilled ? *end->status - kKilled : 0;
  const bool is_as_asked =
      signal == SIGTERM || signal == SIGKILL || (signal == 0 && end->status == kTerminated);
  if (has_timed_out && is_as_asked) return;
  if (signal != 0) return find_signal(signal, c);
  find_status(*end->status, c);
}

}  // namespace explanation
