#ifndef MAIN_PROGRAMS_H
#define MAIN_PROGRAMS_H

#include <filesystem>
#include <string>

// Programs that a command begins.

bool can_be_executed(const std::filesystem::path& file);

// Where this program is, with another name in the place of its own.
std::filesystem::path beside_this_program(const std::string& name);

// The station's: beside this program, in `path` (as PATH), or where the package has it. Throws NotPossible.
std::string found_station_program(const std::string& path);

#endif
