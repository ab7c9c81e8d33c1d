#ifndef RECORD_RUN_ENTRY_H
#define RECORD_RUN_ENTRY_H

#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "record/item.h"

// What the journal entries of a record say about a run. The bench writes all but the gaps and the timeout;
// from a station come the lines and the end, as its journal has them.
namespace record {

// The run begins. What is empty is not known.
struct RunBegins {
  std::string name;     // "loss-20"
  std::string title;    // what it is to show
  std::string command;  // the station's command line
};

// The station printed a line.
struct Line {
  std::string text;
};

// The station called a command of the board.
struct BoardCall {
  std::string command;
  std::optional<int> status;  // that it ended with, as a shell counts it
};

// The cable of a network was out, from the entry's time on.
struct Cut {
  Nanoseconds lasts = 0;
};

// The run took longer than it was given, and the station was asked to end.
struct Timeout {
  Nanoseconds after = 0;
};

// The station has ended.
struct StationEnds {
  std::optional<int> status;  // that it exited with; absent: not known, or a signal killed it
  int signal = 0;             // that killed it; 0: none did
};

// Judged so, a run went as it was to go; judged in any other words, it did not.
inline constexpr char kAsTheScenarioSays[] = "as the scenario says";

// The run has ended.
struct RunEnds {
  std::string ppt_flag;  // the board's variable; empty: not set, or not known
  std::string judged;    // whether the run went as it was to go; empty: nobody judged
};

// What the recorder says that the record lacks from the entry's time on, or no longer lacks.
struct Gap {
  std::string text;  // "frames are missing from here on: lan0 is gone or down"
};

// How it begins; behind it stands why, which begins with the link, where it is about one.
inline constexpr std::string_view kFramesNeverCame = "frames are missing: ";
inline constexpr std::string_view kFramesMissing = "frames are missing from here on: ";
inline constexpr std::string_view kFramesBack = "frames are no longer missing: ";
inline constexpr std::string_view kLinesMayMiss = "lines may be missing: ";
inline constexpr std::string_view kAllMissing = "all is missing from here on: ";

inline Gap gap(std::string_view what, const std::string& why) {
  return {std::string(what) + why};
}

using RunEntry = std::variant<RunBegins, Line, BoardCall, Cut, StationEnds, RunEnds, Gap, Timeout>;

// The entry that says so, without a number.
Entry entry_of(const RunEntry& said, Nanoseconds at);

// What the entry says: one that entry_of made, a line that the journal keeps of the station's program
// (SYSLOG_IDENTIFIER TFTP) or of what it started (standard output of zirn-test-station.service), or what systemd
// says of the service's end. Nothing for any other. Of a service that ended well (status 2 or 15) systemd says so
// and keeps the status to itself: it is not known then.
std::optional<RunEntry> said_by(const Entry& entry);

// What the wire did to a frame stands in a comment of it.
inline constexpr char kLostByChance[] = "lost: by chance";
inline constexpr char kLostByCut[] = "lost: the cable was out";
inline constexpr char kLostAsOrdered[] = "lost: as ordered";
inline constexpr char kLostAtTheEnd[] = "lost: the far end took none";
inline constexpr char kDuplicated[] = "duplicated";
inline constexpr char kSwapped[] = "swapped with the next one";

}  // namespace record

#endif
