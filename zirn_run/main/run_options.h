#ifndef MAIN_RUN_OPTIONS_H
#define MAIN_RUN_OPTIONS_H

#include <CLI/CLI.hpp>
#include <memory>
#include <optional>
#include <string>

#include "run_files/run_files.h"
#include "story/story.h"

// The options that say which run a command is about: FILE, --journal and --log.
std::shared_ptr<run_files::Files> add_run_options(CLI::App& app);

// The last two of these alone.
void add_line_options(CLI::App& app, std::optional<std::string>* journal, std::optional<std::string>* log);

// Tells the run's story, with a line of progress on a terminal, and says on standard error what is to be known of its
// files. Throws NotPossible, and CLI::ValidationError where the files do not go together.
void tell_run(const run_files::Files& files, story::Story* story, const run_files::Watch& watch = {});

// The name of a run whose record has none: that of "runs/lan0-17.pcapng" is "lan0-17".
std::string name_in(const std::string& file);

#endif
