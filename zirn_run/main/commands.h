#ifndef MAIN_COMMANDS_H
#define MAIN_COMMANDS_H

#include <CLI/CLI.hpp>
#include <functional>

// The program's commands. Each adds its options to what CLI11 gives it and returns what it does once they are read:
// that returns the exit status. What it cannot do it throws (exit_status.h).
using Work = std::function<int()>;

struct Command {
  const char* name;
  const char* summary;
  Work (*made_in)(CLI::App&);
};

Work check_command(CLI::App& app);
Work test_command(CLI::App& app);
Work draw_command(CLI::App& app);
Work record_command(CLI::App& app);
Work explain_command(CLI::App& app);
Work watch_command(CLI::App& app);
Work collect_command(CLI::App& app);
Work report_command(CLI::App& app);
Work scenario_command(CLI::App& app);

inline constexpr Command kCommands[] = {
    {"check", "Say whether the station is ready for a run", check_command},
    {"test", "Test one unit, and say whether it passed and whose fault it is if not", test_command},
    {"record", "Record a run as it happens", record_command},
    {"draw", "Draw a run as a picture (SVG)", draw_command},
    {"explain", "Say whether a run passed, whose fault it is if not, and what shows that", explain_command},
    {"watch", "Show a run in the terminal as it happens, or as it was", watch_command},
    {"collect", "Put runs into a database", collect_command},
    {"report", "Write pages or tables about the runs of a database", report_command},
    {"scenario", "Write a run as a scenario that the virtual bench plays again", scenario_command},
};

#endif
