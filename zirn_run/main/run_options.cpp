#include "main/run_options.h"

#include <algorithm>
#include <chrono>
#include <iostream>

#include "main/exit_status.h"
#include "main/progress.h"

void add_line_options(CLI::App& app, std::optional<std::string>* journal, std::optional<std::string>* log) {
  CLI::Option* const first =
      app.add_option("--journal", *journal, "The station's lines, as `journalctl -o export` wrote them")
          ->type_name("FILE");
  app.add_option("--log", *log, "The station's lines, without times")->type_name("FILE")->excludes(first);
}

std::shared_ptr<run_files::Files> add_run_options(CLI::App& app) {
  auto files = std::make_shared<run_files::Files>();
  app.add_option("FILE", files->record,
                 "The run's record, or a capture of its networks; \"-\": standard input")
      ->required()
      ->type_name("");
  add_line_options(app, &files->journal, &files->log);
  return files;
}

void tell_run(const run_files::Files& files, story::Story* story, const run_files::Watch& watch) {
  if (files.log && files.record == "-")
    throw CLI::ValidationError("--log",
                               "expected a FILE beside it, found standard input, which cannot be read twice");
  if (files.journal.value_or("") == "-" && files.record == "-")
    throw CLI::ValidationError("--journal", "expected a FILE beside it, found standard input, which is both");
  ProgressLine line;
  try {
    const auto show = [&](std::uint64_t count) {
      line.show("reading " + files.record + ": " + std::to_string(count) + " frames and entries");
    };
    const auto remarks = run_files::tell(files, story, show, watch);
    line.erase();
    for (const std::string& remark : remarks) std::cerr << "zirn-run: " << remark << std::endl;
  } catch (const run_files::NotReadable& error) {
    throw NotPossible(error.what());
  } catch (const run_files::NotTogether& error) {
    throw CLI::ValidationError(files.journal ? "--journal" : "--log", error.what());
  }
}

std::string name_in(const std::string& file) {
  if (file == "-" || file.empty()) return "standard input";
  std::string name = file.substr(file.rfind('/') + 1);
  for (const std::string ending : {".gz", ".pcapng", ".pcap"}) {
    const std::size_t rest = name.size() - std::min(name.size(), ending.size());
    if (rest > 0 && name.compare(rest, ending.size(), ending) == 0) name.resize(rest);
  }
  return name;
}
