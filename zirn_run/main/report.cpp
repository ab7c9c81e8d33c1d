#include "report/report.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>

#include "frames/words.h"
#include "main/collecting.h"
#include "main/commands.h"
#include "main/exit_status.h"
#include "main/progress.h"
#include "report/pages.h"

namespace {

namespace fs = std::filesystem;
using database::Database;

struct Options {
  std::vector<std::string> sources;
  bool is_csv = false;
  bool is_junit = false;
  std::string prometheus;
  report::Pages pages;
  double patience = 30;  // seconds
};

bool is_folder(const std::string& name) {
  std::error_code none;
  return !Database::is_url(name) && fs::is_directory(name, none);
}

// Of the database that is named, or of one that is made of the folders for as long as this takes.
std::unique_ptr<Database> database_of(const Options& options) {
  const std::vector<std::string>& sources = options.sources;
  const auto folders = std::count_if(sources.begin(), sources.end(), is_folder);
  if (folders > 0 && folders == static_cast<std::ptrdiff_t>(sources.size())) {
    auto scratch = std::make_unique<Database>("", Database::Use::kWrite, Database::Manners());
    database::Collected collected;
    collect_files(sources, database::Unfinished::kAsItIs, scratch.get(), &collected);
    return scratch;
  }
  if (sources.size() > 1)
    throw NotPossible("expected one database, or folders, found " + std::to_string(sources.size()) +
                      " names");
  const std::string name = sources.empty() ? default_database() : sources.front();
  return std::make_unique<Database>(name, Database::Use::kRead,
                                    manners_of(Database::shown(name), options.patience));
}

// A reader of the file finds all of it at any time.
void write_beside(const std::string& name, const std::function<void(std::ostream&)>& write) {
  if (fs::exists(name) && !fs::is_regular_file(name))
    throw NotPossible(frames::printable(name) + ": expected a file, or none, found something else");
  const std::string beside = name + ".part";
  std::ofstream file(beside, std::ios::binary | std::ios::trunc);
  write(file);
  file.close();
  if (!file || std::rename(beside.c_str(), name.c_str()) != 0)
    throw NotPossible(frames::printable(name) + ": " + std::strerror(errno));
}

void make_pages(soci::session& session, report::Pages pages) {
  ProgressLine line;
  pages.on_progress = [&line](const std::string& text) { line.show(text); };
  try {
    report::write_pages(session, pages);
  } catch (const report::NotWritten& error) {
    throw NotPossible(error.what());
  }
}

int write(const Options& options) {
  const std::unique_ptr<Database> database = database_of(options);
  try {
    database->read([&options](soci::session& session) {
      if (options.is_csv) report::write_csv(session, std::cout);
      if (options.is_junit) report::write_junit(session, std::cout);
      if (!options.pages.folder.empty()) make_pages(session, options.pages);
      if (!options.prometheus.empty())
        write_beside(options.prometheus, [&](std::ostream& out) { report::write_prometheus(session, out); });
    });
  } catch (const database::NotReached& error) {
    throw NotPossible(database->name() + ": " + error.what());
  } catch (const database::NotUsable& error) {
    throw NotPossible(database->name() + ": " + error.what());
  }
  if (!std::cout.flush()) throw NotPossible(std::string("standard output: ") + std::strerror(errno));
  return kDone;
}

}  // namespace

Work report_command(CLI::App& app) {
  const auto options = std::make_shared<Options>();
  app.add_option("DATABASE", options->sources,
                 "A database, or folders with records; without it, $ZIRN_RUN_DATABASE, or runs.db")
      ->type_name("");
  CLI::Option* const csv = app.add_flag("--csv", options->is_csv, "A line per run, below a header");
  CLI::Option* const junit =
      app.add_flag("--junit", options->is_junit, "A test case of JUnit's XML per run")->excludes(csv);
  CLI::Option* const prometheus =
      app.add_option("--prometheus", options->prometheus, "Write sums as a text file for node_exporter")
          ->type_name("FILE");
  CLI::Option* const pages =
      app.add_option("-o,--output", options->pages.folder, "Write pages for a browser; begin with index.html")
          ->type_name("FOLDER");
  app.add_flag("--all-pages", options->pages.is_of_all,
               "A page of every run, else of those that did not pass")
      ->needs(pages);
  return [=] {
    if (!*csv && !*junit && !*prometheus && !*pages)
      throw CLI::RequiredError("--output, --csv, --junit or --prometheus");
    return write(*options);
  };
}
