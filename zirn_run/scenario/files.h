#ifndef SCENARIO_FILES_H
#define SCENARIO_FILES_H

#include <cstdint>
#include <string>
#include <vector>

#include "scenario/writing.h"

namespace scenario {

// "2 MiB", "1428 bytes"
std::string size_in_words(std::uint64_t bytes);
// The files that these reads need: with their bytes where the record has them, else as many random ones.
void write_files(const std::vector<const story::Transfer*>& reads, Writing* writing);

}  // namespace scenario

#endif
