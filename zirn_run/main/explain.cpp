#include <iostream>
#include <vector>

#include "explanation/text.h"
#include "main/commands.h"
#include "main/exit_status.h"
#include "main/explanation_json.h"
#include "main/print.h"
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

explanation::Explanation explanation_of(const run_files::Files& files) {
  story::Story story;
  tell_run(files, &story);
  return explanation::explain(story.reading());
}

std::string answer(const explanation::Explanation& told, const std::string& file, const Options& options) {
  if (options.is_result) return std::string(explanation::name_of(told.verdict)) + '\n';
  if (options.is_json) return json_of(told, file, name_in(file)) + '\n';
  return explanation::text_of(told, name_in(file));
}

int explain(const Options& options) {
  if (options.is_causes) {
    print(options.is_json ? json_of_causes() + "\n" : explanation::text_of_causes());
    return kDone;
  }
  int status = kDone;
  const std::vector<std::string> lines_alone = {""};
  for (const std::string& file : options.files.empty() ? lines_alone : options.files) {
    explanation::Explanation told;
    try {
      told = explanation_of({file, options.journal, options.log});
    } catch (const NotPossible& error) {
      std::cerr << "zirn-run: " << error.what() << std::endl;
      status = kNotPossible;
      continue;
    }
    print(answer(told, !file.empty() ? file : options.journal.value_or(options.log.value_or("")), options));
    if (told.verdict != explanation::Outcome::kPassed && status == kDone) status = kNotPassed;
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
