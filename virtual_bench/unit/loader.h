#ifndef UNIT_LOADER_H
#define UNIT_LOADER_H

#include <optional>
#include <string>

#include "scenario/habits.h"

struct ReadRequest {
  // So often it repeats what it sent last, each time after so long; then it gives up.
  struct Patience {
    int times;
    double seconds;
  };

  std::string server;  // an IPv4 address
  int port;
  std::string name;
  std::string local_file;              // takes what arrives; a read that fails removes it
  std::optional<int> block_size;       // bytes; nothing: as is its habit
  std::optional<int> timeout_seconds;  // the same
  std::optional<Patience> patience;    // the same
  const scenario::Habit* habit;
  std::optional<double> dies_after;  // bytes: it is gone as soon as it has acknowledged so many
};

struct ReadOutcome {
  bool arrived;  // the file, or as much as it was to take before its death
  bool was_answered;
  int error_code;  // of an ERROR packet; -1: none came
  char error_text[256];
};

// Reads a file block by block, as is the request's habit, from where the caller is (RFC 1350, RFC 2347 to 2349).
ReadOutcome load(const ReadRequest& request);

#endif
