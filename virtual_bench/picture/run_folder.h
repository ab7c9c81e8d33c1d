#ifndef PICTURE_RUN_FOLDER_H
#define PICTURE_RUN_FOLDER_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "picture/event.h"

namespace picture {

struct TimedLine {
  Microseconds at = 0;
  std::string text;
};

struct Cut {
  Microseconds from = 0;
  Microseconds until = 0;
};

struct Fates {
  std::unordered_map<std::size_t, Fate> of_frame;  // by the frame's number
  std::vector<Cut> cuts;
};

// The daemon's ports as its command line gives them.
struct Ports {
  std::uint16_t tftp = 69;
  std::uint16_t ppt = 69;
  std::uint16_t message = 12345;
};

// What is known of a run beside its capture. Times are seconds since the epoch with decimals.
//
//   run          "KEY TEXT": title, name, start, end, status, ppt_flag, judged, command
//   station.log  "SECONDS TEXT", a line of the daemon's output each
//   board.log    "SECONDS COMMAND LINE", a call of a board's command each
//   fates        "N lost", "N doubled", "N swapped": what became of the capture's frame N, from 1;
//                "cut FROM UNTIL": when the test network's cable was out
//
// Whatever is missing or unreadable is left out.
struct RunFolder {
  std::map<std::string, std::string> facts;  // the file `run`
  std::vector<TimedLine> station_lines;
  std::vector<TimedLine> board_calls;
  Fates fates;
};

RunFolder read_run_folder(const std::string& folder);

// A file's contents; empty when it cannot be read.
std::string contents_of(const std::string& path);

// The parts of read_run_folder, each from a file's contents. Lines of any other form are passed over.
std::map<std::string, std::string> facts_in(const std::string& contents);
std::vector<TimedLine> timed_lines_in(const std::string& contents);
Fates fates_in(const std::string& contents);

// "1700000000.123456": seconds with any number of decimals, at most eleven digits before them. Nothing for
// any other text.
std::optional<Microseconds> time_in(const std::string& text);

Ports ports_in(const std::string& command_line);

// The fact as it stands; empty when it is not known.
std::string fact(const RunFolder& run, const std::string& key);

}  // namespace picture

#endif
