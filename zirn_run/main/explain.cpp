#include <iostream>
#include <vector>

#include "explanation/text.h"
#include "main/commands.h"
#include "main/exit_status.h"
#include "main/explanation_json.h"
#include "main/run_options.h"

namespace {

struct Options {
  std::vector<std::string> files;
  std::optional<std::string> journal;
  std::optional<std::string> log;
  bool is_json = false;
  bool is_result = false;
  bool is_causes = false;
};

// Whether the run passed. Throws NotPossible.
bool answer(const run_files::Files& files, const Options& options) {
  story::Story story;
  tell_run(files, &story);
  const explanation::Explanation told = explanation::explain(story.reading());
  const std::string file =
      !files.record.empty() ? files.record : files.journal.value_or(files.log.value_or(""));
  if (options.is_result) {
    std::cout << explanation::name_of(told.verdict) << '\n';
  } else if (options.is_json) {
    std::cout << json_of(told, file, name_in(file)) << '\n';
  } else {
    std::cout << explanation::text_of(told, name_in(file));
  }
  return told.verdict == explanation::Outcome::kPassed;
}

int explain(const Options& options) {
  if (options.is_causes) {
    std::cout << (options.is_json ? json_of_causes() + "\n" : explanation::text_of_causes());
    return kDone;
  }
  int status = kDone;
  const std::vector<std::string> lines_alone = {""};
  for (const std::string& file : options.files.empty() ? lines_alone : options.files) {
    try {
      if (!answer({file, options.journal, options.log}, options) && status == kDone) status = kNotPassed;
    } catch (const NotPossible& error) {
      std::cerr << "zirn-run: " << error.what() << std::endl;
      status = kNotPossible;
    }
  }
  return status;
}

// What CLI11 cannot say: which options go together.
void check(const Options& options) {
  const bool has_lines = options.journal || options.log;
  if (!options.is_causes && options.files.empty() && !has_lines) throw CLI::RequiredError("FILE");
  if (has_lines && options.files.size() > 1)
    throw CLI::ValidationError("--journal and --log: expected one FILE beside them, found " +
                               std::to_string(options.files.size()));
}

}  // namespace

Work explain_command(CLI::App& app) {
  const auto options = std::make_shared<Options>();
  app.add_option("FILE", options->files,
                 "Records of runs, or captures of their networks; \"-\": standard input")
      ->type_name("");
  add_line_options(app, &options->journal, &options->log);
  app.add_flag("--json", options->is_json, "One object of JSON per run, in a line");
  CLI::Option* const result =
      app.add_flag("--result", options->is_result, "Only the verdict: passed, failed or none")
          ->excludes("--json");
  app.add_flag("--causes", options->is_causes, "The causes that can be found, instead of any run")
      ->excludes(result);
  app.footer(
      "Exit status: 0 every run passed; 1 at least one did not; 2 the call was wrong; 3 a file could not be "
      "read, and "
      "the others were answered");
  return [options] {
    check(*options);
    return explain(*options);
  };
}
