#ifndef EXPLANATION_EXPLANATION_H
#define EXPLANATION_EXPLANATION_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "explanation/causes.h"
#include "story/reading.h"

// What came of a run, whose fault it is, and what shows that. All texts are safe in a terminal (frames/words.h).
namespace explanation {

using frames::Numbers;
using record::Nanoseconds;

struct Evidence {
  Numbers frames;
  Numbers lines;
  bool is_inferred = false;  // it follows from these; else it is in them
};

// A sentence without its final stop, and what shows it.
struct Statement {
  std::string sentence;
  Evidence evidence;
};

struct Claim {
  const Cause* cause = nullptr;
  std::string meaning, advice;        // the cause's, in the words of the run
  std::vector<Statement> statements;  // the first kMostStatements
  std::uint64_t left_out = 0;         // statements beyond these

  static constexpr std::size_t kMostStatements = 4;
};

// What the station starts on its board. A statement about one that is missing names it.
inline constexpr std::string_view kBoardTools[] = {"/mnt/ramdisk/t1-e1", "/etc/init.d/voice", "envtool"};

enum class Outcome { kPassed, kFailed, kNone };

struct Unit {
  std::string address;
  std::string mac;  // empty: no frame shows it
};

// A file that the unit read. What is absent no frame shows.
struct Read {
  std::string file;
  std::optional<std::uint64_t> bytes;
  std::optional<std::uint64_t> block_size;
  std::optional<double> seconds;
  std::optional<std::uint64_t> blocks;
  std::optional<std::uint64_t> repeated;  // blocks that were sent again
  std::optional<bool> finished;
};

// A verdict but the final one.
struct Step {
  enum class Result { kPassed, kFailed, kReported };  // the last: its name says neither
  std::string name;
  Result result = Result::kReported;
};

struct Exit {
  std::optional<int> status;
  std::optional<int> signal;
  std::string meaning;
};

struct Explanation {
  std::string name;  // of the run; empty: the record does not say
  std::optional<Nanoseconds> start;
  Nanoseconds duration = 0;
  Outcome verdict = Outcome::kNone;
  std::optional<Exit> exit;
  std::vector<Unit> units;  // whoever asked for something; the one that gave verdicts first
  std::vector<Read> reads;
  std::vector<Step> steps;
  Claim fault;
  std::vector<Claim> also;
  std::vector<std::string> incomplete;  // what the record lacks
};

// Of a reading that has ended.
//
// The verdict is the final one that the unit was seen to give: in the station's line, in the request that the
// station answered, or both. Where one passed, the fault is none's. Where one failed, the first verdict that says so
// counts: a cause that lies between it and the verdict before explains it, or else it is the unit's, provided that
// nothing is hidden in that time. Without a final verdict, what happened after the unit's last success explains
// it, or else what ended the station, provided the same. All that was found besides is in `also`.
Explanation explain(const story::Reading& reading);

}  // namespace explanation

#endif
