#include "frames/words.h"
#include "main/collecting.h"
#include "main/commands.h"
#include "main/exit_status.h"
#include "main/number.h"
#include "main/print.h"

namespace {

struct Options {
  std::vector<std::string> names;
  std::string database;
  double patience = 30;  // seconds
};

std::string text_of(const database::Collected& collected, const std::string& database) {
  std::string text = frames::counted(collected.runs, "new run") + " in " + database;
  const auto add = [&text](std::size_t count, const std::string& what) {
    if (count > 0) text += "; " + frames::counted(count, "file") + " " + what;
  };
  add(collected.known + collected.seen, "there already");
  add(collected.unreadable, "noted as unreadable");
  add(collected.later, "left for later");
  return text;
}

int collect(const Options& options) {
  const std::string name = options.database.empty() ? default_database() : options.database;
  database::Database database(name, database::Database::Use::kWrite,
                              manners_of(database::Database::shown(name), options.patience));
  database::Collected collected;
  const bool is_all_there = collect_files(options.names, database::Unfinished::kLater, &database, &collected);
  print(text_of(collected, database.name()) + "\n");
  return is_all_there ? kDone : kNotPossible;
}

}  // namespace

Work collect_command(CLI::App& app) {
  const auto options = std::make_shared<Options>();
  constexpr double kLongest = 86400;  // seconds
  app.add_option("FILE", options->names, "Records of runs, or folders with them")->required()->type_name("");
  app.add_option("--into", options->database,
                 "A file of SQLite, or postgresql://...; without it, $ZIRN_RUN_DATABASE, or runs.db")
      ->type_name("DATABASE");
  app.add_option("--patience", options->patience, "For how long in a row the database may not be reached")
      ->type_name("SECONDS")
      ->capture_default_str()
      ->check(number_in(0, kLongest));
  app.footer(
      "Exit status: 0 what was found is in the database; 2 the call was wrong; 3 a file is not there, or the "
      "database was not reached: what was not delivered goes with the next call");
  return [options] { return collect(*options); };
}
