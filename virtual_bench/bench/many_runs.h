#ifndef BENCH_MANY_RUNS_H
#define BENCH_MANY_RUNS_H

#include <cstdint>
#include <filesystem>
#include <string>

// Runs made by chance, played side by side, each by a bench of its own.
struct ManyRuns {
  std::uint32_t count = 0;
  std::uint32_t seed = 0;  // of the first one; each next one has the next seed
  std::filesystem::path station;
  std::filesystem::path results;
  std::filesystem::path records;  // a folder where the record of each is left; empty: there is none
};

// Plays them, and prints each that went otherwise than it must, with the seed that plays it again, and the
// count at the end. Leaves of those, in the results folder: chance-SEED.run, .log, .svg and .pcapng.
// An ExitStatus, or 128 plus the number of the signal that ended it: SIGHUP, SIGINT or SIGTERM.
int play_many(const ManyRuns& runs);

// What its files are called: "chance-SEED".
std::string name_of_made_run(std::uint32_t seed);

#endif
