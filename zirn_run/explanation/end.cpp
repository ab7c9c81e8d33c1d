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
    c->find(cause, c->reading.last, sentence, evidence_of_end(*c));
  };
  if (signal == SIGABRT) {
    if (!c->verdicts.empty() && c->verdicts.back().name.size() < kShortestVerdict) return;
    find("end.abort", "the station's program was aborted");
  } else if (signal == SIGPIPE) {
    find("command.left-early", "the station's program was ended by SIGPIPE");
  } else if (signal == SIGKILL) {
    find("end.sigkill", "the station's program was killed");
  } else if (signal == SIGTERM || signal == SIGINT) {
    find(signal == SIGTERM ? "end.sigterm" : "end.sigint", "the station's program was ended by a signal");
  } else {
    find("end.signal", "the station's program was ended by signal " + std::to_string(signal));
  }
}

void find_status(int status, Case* c) {
  const auto find = [&](std::string_view cause, const std::string& why) {
    c->find(cause, c->reading.last, "the station's program ended with status " + std::to_string(status) + why,
            evidence_of_end(*c));
  };
  const bool has_begun = c->has_line("Starting TFTP server on <ADDRESS>:<PORT> PPT Server: <ADDRESS>");
  if (status == kInterrupted) find("end.sigint", " without a final verdict");
  if (status == kTerminated) find("end.sigterm", "");
  if (status == kFailure && !has_begun && c->has_line("Usage: TFTP [-h] [-p port] [-s server]"))
    find("start.no-server", ", after its usage");
}

bool has_found(const Case& c, Weight weight) {
  return std::any_of(c.findings.begin(), c.findings.end(),
                     [weight](const Finding& finding) { return finding.cause->weight == weight; });
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

void find_end(Case* c) {
  find_short_verdict(c);
  if (!c->verdicts.empty() && story::is_final(c->verdicts.back().says)) return;
  const auto& end = c->reading.station_end;
  if (!end || (end->signal == 0 && !end->status)) return find_unknown_end(c);
  const int signal = end->signal != 0 ? end->signal : end->status > kKilled ? *end->status - kKilled : 0;
  if (signal != 0) return find_signal(signal, c);
  find_status(*end->status, c);
}

}  // namespace explanation
