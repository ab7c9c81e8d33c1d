#ifndef RECORDER_RUNS_H
#define RECORDER_RUNS_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "record/item.h"

// The folder of recorded runs: START-STATION.pcapng each, START as 20261122T031240Z, and with .part behind it while it
// is written.
namespace recorder {

// A name that no run in the folder has, of one that starts then at this machine: without ".pcapng.part".
std::string name_of_run(const std::string& folder, record::Nanoseconds start);

// Records that a recorder left unfinished, as when it was killed, are ended with their last whole block and an entry
// that says so, and get their names. Those that are being written are left alone. What cannot be completed is said, and
// stays. Throws std::system_error where the folder cannot be read.
void complete_runs(const std::string& folder);

// Removes runs, the oldest first: those that passed, but the newest `kept`; then what goes beyond so many bytes. What
// cannot be removed is said, and stays. Throws std::system_error where the folder cannot be read.
void limit_runs(const std::string& folder, std::size_t kept, std::uint64_t bytes);

// Whether the record's last verdict, in its last MiB, is that the unit passed.
bool has_passed(const std::string& file);

}  // namespace recorder

#endif
