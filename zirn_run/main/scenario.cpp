#include "scenario/scenario.h"

#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <system_error>

#include "comparison/comparison.h"
#include "frames/words.h"
#include "main/commands.h"
#include "main/exit_status.h"
#include "main/print.h"
#include "main/replay.h"
#include "main/run_options.h"
#include "scenario/contents.h"

namespace {

namespace fs = std::filesystem;
using frames::printable;

struct Options {
  std::shared_ptr<run_files::Files> files;
  std::string folder;  // for the record's files; empty: they are random ones
  bool checks = false;
  std::string scenario;  // that is checked; empty: the one that is written
  std::string bench;
  std::string program;
  std::string record;  // of the replay
};

// What it lacks is said, and is the exit status.
int status_of(const scenario::Scenario& written) {
  if (written.left_out == 0) return kDone;
  std::cerr << "zirn-run: the scenario lacks " << frames::counted(written.left_out, "thing")
            << " of the run; its comments say which" << std::endl;
  return kNotPossible;
}

std::string name_of_run(const Options& options) {
  const std::string name = options.files->record == "-" ? "" : name_in(options.files->record);
  return name.empty() ? "run" : name;
}

// Throws NotPossible where the replay would take the place of what it is held against.
std::string record_of(const Options& options) {
  std::string record = options.record.empty() ? name_of_run(options) + ".again.pcapng" : options.record;
  std::error_code none;
  for (const std::string& input : {options.files->record, options.scenario}) {
    if (fs::equivalent(input, record, none))
      throw NotPossible(printable(record) + ": expected a file for the replay's record, found " +
                        printable(input));
  }
  return record;
}

void keep(const std::string& played, const std::string& record) {
  std::error_code error;
  fs::copy_file(played, record, fs::copy_options::overwrite_existing, error);
  if (error) throw NotPossible(printable(record) + ": " + error.message());
}

// What the bench says of it; empty: it went as it was to go.
std::string wrong_in(const story::Reading& replay) {
  const std::string judged = replay.run_end ? replay.run_end->judged : "";
  return judged == record::kAsTheScenarioSays ? "" : printable(judged);
}

// The first difference, in both records, or that there is none; false: there is one.
bool tell_comparison(const story::Reading& first, const story::Reading& again, const std::string& name,
                     const std::string& record) {
  const auto difference = comparison::first_difference(first, again);
  const std::string wrong = wrong_in(again);
  std::string text;
  if (difference) {
    text = "the first difference:\n  " + printable(name) + ": " + in_words(difference->first) + "\n  " +
           printable(record) + ": " + in_words(difference->other) + '\n';
  } else if (wrong.empty()) {
    text = "the same happens in " + printable(name) + " and in " + printable(record) + '\n';
  } else {
    text = "the records show no difference\n";
  }
  if (!wrong.empty()) text += "the bench: " + wrong + '\n';
  if (name != "-")
    text += "both as a picture: zirn-run draw " + printable(name) + " --beside " + printable(record) +
            " -o " + printable(name_in(record)) + ".svg\n";
  print(text);
  return !difference && wrong.empty();
}

int check(const Options& options, const story::Reading& reading, const scenario::Contents* contents) {
  const std::string record = record_of(options);
  Replay replay(options.bench, options.program);
  std::string played = options.scenario;
  int status = kDone;
  if (played.empty()) {
    const scenario::Scenario written = scenario::scenario_of(reading, contents);
    status = status_of(written);
    played = replay.folder() / (name_of_run(options) + ".run");
    std::ofstream(played) << written.text;
  }
  keep(replay.play(played), record);
  story::Story again;
  tell_run({record, std::nullopt, std::nullopt}, &again);
  return tell_comparison(reading, again.reading(), options.files->record, record) ? status : kNotPassed;
}

// The record's files, while its frames are told. The bench looks for them from the scenario's folder.
std::unique_ptr<scenario::Contents> contents_of(const Options& options) {
  if (options.folder.empty()) return nullptr;
  try {
    return std::make_unique<scenario::Contents>(options.checks ? fs::absolute(options.folder).string()
                                                               : options.folder);
  } catch (const std::system_error& error) {
    throw NotPossible(std::string("--files: expected a new folder, or an empty one: ") + error.what());
  }
}

int write_scenario(const Options& options) {
  const auto contents = contents_of(options);
  story::Story story;
  tell_run(*options.files, &story, [&](const record::Item& item) {
    if (contents) contents->take(item);
  });
  if (contents) contents->finish();
  if (options.checks) return check(options, story.reading(), contents.get());
  const scenario::Scenario written = scenario::scenario_of(story.reading(), contents.get());
  print(written.text);
  return status_of(written);
}

}  // namespace

Work scenario_command(CLI::App& app) {
  const auto options = std::make_shared<Options>();
  options->files = add_run_options(app);
  CLI::Option* const folder =
      app.add_option("--files", options->folder,
                     "Write the files that a record has whole into this folder, a new or empty one; the "
                     "scenario serves them")
          ->type_name("FOLDER");
  CLI::Option* const check =
      app.add_flag("--check", options->checks,
                   "Play it on the virtual bench, and say whether the same happens as in the record");
  const auto add = [&](const char* name, std::string* value, const char* meaning) {
    return app.add_option(name, *value, meaning)->needs(check);
  };
  add("SCENARIO", &options->scenario, "With --check: play this one instead of the one that would be written")
      ->type_name("")
      ->check(CLI::ExistingFile.description(""))
      ->excludes(folder);
  add("--bench", &options->bench, "The bench's program; without it, virtual_bench/bench beside this program")
      ->type_name("FILE");
  add("--program", &options->program, "The station's program; without it, the one that is found")
      ->type_name("FILE");
  add("--record", &options->record, "What was played is recorded here; without it, in NAME.again.pcapng")
      ->type_name("FILE");
  app.footer(
      "Exit status: 0 the whole run is said, and the same happens; 1 something else happens; 2 the call was "
      "wrong; 3 a file could not be read, the bench could not play, or the scenario lacks something of the "
      "run, which standard error tells apart");
  return [options] { return write_scenario(*options); };
}
