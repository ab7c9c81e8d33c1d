#include "terminal/watch.h"

#include <memory>

#include "main/commands.h"
#include "main/exit_status.h"
#include "main/number.h"

namespace {

struct Options {
  std::string file;
  std::vector<std::string> links;
  std::string unit;
  std::string log;
  std::string filter;
  std::optional<double> speed;
};

// The recorder is a process of its own, so that nothing that is shown can hold it up.
terminal::Options watched(const Options& options) {
  terminal::Options watched{options.file, {}, {}, options.speed};
  if (options.links.empty()) return watched;
  for (const std::string& link : options.links) watched.links += (watched.links.empty() ? "" : ",") + link;
  watched.recorder = {"/proc/self/exe", "record", "--output=-", "--interface=" + watched.links};
  if (!options.unit.empty()) watched.recorder.push_back("--unit=" + options.unit);
  if (!options.log.empty()) watched.recorder.push_back("--log=" + options.log);
  if (!options.filter.empty()) watched.recorder.push_back("--filter=" + options.filter);
  return watched;
}

int watch(const Options& options) {
  if (options.file.empty() && options.links.empty()) throw CLI::RequiredError("FILE or -i");
  if (options.speed && (options.file == "-" || options.file.empty()))
    throw CLI::ValidationError("--speed: expected a file, which alone can be played");
  try {
    terminal::watch(watched(options));
  } catch (const terminal::NotWatchable& error) {
    if (*error.what() != '\0') throw NotPossible(error.what());
    return kNotPossible;
  }
  return kDone;
}

}  // namespace

Work watch_command(CLI::App& app) {
  const auto options = std::make_shared<Options>();
  constexpr double kSlowest = 0.001;
  constexpr double kFastest = 1e6;
  CLI::Option* const file =
      app.add_option("FILE", options->file, "A record, or a capture; \"-\": standard input, as it comes")
          ->type_name("");
  CLI::Option* const links =
      app.add_option("-i,--interface", options->links, "Links to watch, or \"any\", instead of a record")
          ->allow_extra_args(false)
          ->delimiter(',')
          ->excludes(file)
          ->type_name("LINK,...");
  CLI::Option* const unit =
      app.add_option("--unit", options->unit, "The lines are those of this systemd unit, until it ends")
          ->needs(links)
          ->type_name("NAME");
  app.add_option("--log", options->log, "The lines are those that are added to a log")
      ->needs(links)
      ->excludes(unit)
      ->type_name("LOG");
  app.add_option("--filter", options->filter, "Watch these frames, as tcpdump(1) takes a filter")
      ->needs(links)
      ->type_name("EXPRESSION");
  app.add_option("--speed", options->speed,
                 "Play a file at its own pace, so many times as fast; without it, at once")
      ->type_name("TIMES")
      ->check(number_in(kSlowest, kFastest));
  return [options] { return watch(*options); };
}
