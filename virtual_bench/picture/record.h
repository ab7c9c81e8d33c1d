#ifndef PICTURE_RECORD_H
#define PICTURE_RECORD_H

#include <cstdint>
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

struct BoardCall {
  Microseconds at = 0;
  std::string text;           // its command line
  std::optional<int> status;  // that it ended with
};

struct Cut {
  Microseconds from = 0;
  Microseconds until = 0;
};

// What became of the capture's frames.
struct Fates {
  std::unordered_map<std::size_t, Fate> of_frame;  // by the frame's number, from 1
  std::vector<Cut> cuts;                           // when the test network's cable was out
};

// The daemon's ports.
struct Ports {
  std::uint16_t tftp = 69;
  std::uint16_t ppt = 69;
  std::uint16_t message = 12345;
};

// How the daemon ended.
struct ExitStatus {
  int status = 0;  // that it exited with
  int signal = 0;  // that killed it; 0: none did
  Microseconds at = 0;
};

// All that is known of a run. What is empty is not known, and missing in the picture.
struct RunRecord {
  std::string title;
  std::string name;
  std::string command;  // the daemon's command line
  Ports ports;
  std::optional<Microseconds> start;
  std::optional<Microseconds> end;
  std::optional<ExitStatus> exit_status;
  std::string ppt_flag;
  std::string judged;   // whether the run went as it was to go
  std::string capture;  // the contents of a file of frames
  Fates fates;
  std::vector<TimedLine> station_lines;  // the daemon's output
  std::vector<BoardCall> board_calls;
};

}  // namespace picture

#endif
