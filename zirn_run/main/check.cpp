#include "check/check.h"

#include <memory>

#include "main/commands.h"
#include "main/exit_status.h"
#include "main/print.h"

namespace {

struct Options {
  std::optional<std::string> folder;
  station::Words station;
};

int check_station(const Options& options) {
  const check::Setup setup = check::setup_of(options.station, options.folder);
  int wrong = 0;
  for (const check::Point& point : check::points()) {
    const check::Finding finding = point.look(setup);
    if (finding.state == check::State::kWrong) ++wrong;
    print(check::text_of(point, finding) + "\n");
  }
  print(wrong == 0 ? "the station is ready\n"
                   : "the station is not ready: " + std::to_string(wrong) + " wrong\n");
  return wrong == 0 ? kDone : kNotPossible;
}

}  // namespace

Work check_command(CLI::App& app) {
  const auto options = std::make_shared<Options>();
  app.add_option("--folder", options->folder, "Where the files to serve are, instead of the station's folder")
      ->type_name("FOLDER");
  app.add_option("OPTION", options->station,
                 "The station's own options, behind \"--\"; without them, those of the service")
      ->type_name("");
  return [options] { return check_station(*options); };
}
