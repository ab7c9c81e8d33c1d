#ifndef BENCH_MADE_SCENARIO_H
#define BENCH_MADE_SCENARIO_H

#include <cstdint>
#include <string>

// A scenario made by chance, as the text of a file: what happens in the run, and what must be true after each
// of its steps and at its end. It takes few seconds, and is the same one wherever it is made of that seed.
std::string made_scenario(std::uint64_t seed);

#endif
