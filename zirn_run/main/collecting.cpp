#include "main/collecting.h"

#include <csignal>
#include <cstdlib>
#include <iostream>

#include "frames/words.h"
#include "main/exit_status.h"
#include "main/explanation_json.h"
#include "main/progress.h"
#include "main/run_options.h"

namespace {

database::Told tell(const std::string& path) {
  story::Story story;
  run_files::tell({path, {}, {}}, &story);
  const story::Reading& reading = story.reading();
  database::Told told;
  told.explanation = explanation::explain(reading);
  told.name = told.explanation.name.empty() ? frames::printable(name_in(path)) : told.explanation.name;
  told.json = json_of(told.explanation, path, told.name);
  told.frames_lost = database::frames_lost(reading);
  told.is_cut_short = reading.is_cut_short;
  return told;
}

void complain(const std::string& sentence) {
  std::cerr << "zirn-run: " << sentence << std::endl;
}

std::string progress_of(const database::Collected& collected, std::size_t files) {
  return "collecting: " + std::to_string(collected.done()) + " of " + frames::counted(files, "file");
}

}  // namespace

bool collect_files(const std::vector<std::string>& names, database::Unfinished unfinished,
                   database::Database* database, database::Collected* collected) {
  std::signal(SIGIO, SIG_IGN);  // sent where somebody begins to write to a file while it is tried for that
  std::vector<std::string> missing;
  const std::vector<std::string> files = database::files_in(names, &missing);
  ProgressLine line;
  database::Listener listener;
  listener.tell = tell;
  listener.on_unreadable = [&line](const std::string& sentence) {
    line.erase();
    complain(sentence);
  };
  listener.on_progress = [&](const database::Collected& so_far) {
    line.show(progress_of(so_far, files.size()));
  };
  const auto not_delivered = [&](const std::string& why) {
    line.erase();
    return NotPossible(database->name() + ": " + why + "; " +
                       std::to_string(files.size() - collected->done()) + " of " +
                       frames::counted(files.size(), "file") + " not delivered");
  };
  try {
    database::collect(files, unfinished, listener, database, collected);
  } catch (const database::NotReached& error) {
    throw not_delivered(error.what());
  } catch (const database::NotUsable& error) {
    throw not_delivered(error.what());
  }
  line.erase();
  for (const std::string& name : missing) complain(name);
  return missing.empty();
}

database::Database::Manners manners_of(const std::string& name, double patience_seconds) {
  const auto patience = std::chrono::duration<double>(patience_seconds);
  return {std::chrono::duration_cast<std::chrono::milliseconds>(patience),
          [name, patience_seconds](const std::string& why) {
            std::cerr << "zirn-run: " << name << ": " << why << "; trying on for " << patience_seconds << " s"
                      << std::endl;
          }};
}

std::string default_database() {
  const char* const named = std::getenv("ZIRN_RUN_DATABASE");
  return named == nullptr || *named == '\0' ? "runs.db" : named;
}
