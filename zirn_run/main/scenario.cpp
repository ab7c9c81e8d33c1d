#include "scenario/scenario.h"

#include <cerrno>
#include <cstring>
#include <iostream>

#include "frames/words.h"
#include "main/commands.h"
#include "main/exit_status.h"
#include "main/run_options.h"

namespace {

int write_scenario(const run_files::Files& files) {
  story::Story story;
  tell_run(files, &story);
  const scenario::Scenario written = scenario::scenario_of(story.reading());
  if (!(std::cout << written.text << std::flush))
    throw NotPossible(std::string("standard output: ") + std::strerror(errno));
  if (written.left_out == 0) return kDone;
  std::cerr << "zirn-run: the scenario lacks " << frames::counted(written.left_out, "thing")
            << " of the run; its comments say which" << std::endl;
  return kNotPossible;
}

}  // namespace

Work scenario_command(CLI::App& app) {
  const auto files = add_run_options(app);
  app.footer(
      "Exit status: 0 the whole run is said; 2 the call was wrong; 3 a file could not be read, or the "
      "scenario "
      "lacks something of the run, which standard error tells apart");
  return [files] { return write_scenario(*files); };
}
