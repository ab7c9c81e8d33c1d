#include <iostream>
#include <memory>

#include "main/commands.h"
#include "main/exit_status.h"
#include "recorder/recorder.h"
#include "trial/lock.h"

namespace {

// A run has one record.
int record_run(const recorder::Options& options) {
  if (!options.is_service || !trial::Lock::is_held(trial::Lock::Of::kFolder))
    return recorder::record(options);
  recorder::notify_ready();
  std::cerr << "zirn-run: zirn-run test records this run itself" << std::endl;
  return kDone;
}

// To CLI11 -1 is the largest size that there is.
std::string wrong_in_size(const std::string& text) {
  return text.find('-') == std::string::npos ? "" : "expected a size as 2G, found " + text;
}

}  // namespace

Work record_command(CLI::App& app) {
  const auto options = std::make_shared<recorder::Options>();
  app.add_option("-i,--interface", options->links, "The links to record, or \"any\"")
      ->required()
      ->allow_extra_args(false)
      ->delimiter(',')
      ->type_name("LINK,...");
  CLI::Option* const output =
      app.add_option("-o,--output", options->output, "The record; \"-\": standard output")->type_name("FILE");
  CLI::Option* const unit =
      app.add_option("--unit", options->unit, "Record the journal of this systemd unit, until it ends")
          ->type_name("NAME");
  CLI::Option* const log =
      app.add_option("--log", options->log, "Record the lines that are added to a log")->type_name("FILE");
  app.add_option("--pid", options->pid, "Until this process ends")->needs(log)->type_name("NUMBER");
  app.add_option("--filter", options->filter, "Record these frames, as tcpdump(1) takes a filter")
      ->type_name("EXPRESSION");
  app.add_flag("--whole", options->is_whole, "Keep the contents of files, too");
  CLI::Option* const service = app.add_flag("--service", options->is_service,
                                            "Record one run into the folder, and keep that in order");
  app.add_option("--folder", options->folder, "The folder of runs")->needs(service)->capture_default_str();
  app.add_option("--limit", options->limit, "Bytes that the folder may have, as 2G")
      ->needs(service)
      ->transform(CLI::AsSizeValue(false).description(""))
      ->transform(CLI::Validator(wrong_in_size, ""))  // comes first
      ->type_name("SIZE");
  app.add_option("OPTION", options->station,
                 "The station's own options, behind \"--\"; without them, those of the unit")
      ->type_name("");
  unit->excludes(log);
  output->excludes(service);
  return [options] { return record_run(*options); };
}
