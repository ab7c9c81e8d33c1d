// zirn-run: records, draws and explains the runs of a test station.
#include <exception>
#include <iostream>

#include "frames/words.h"
#include "main/commands.h"
#include "main/exit_status.h"

namespace {

// As CLI11 says it, but for what it quotes of the call.
std::string in_words(const CLI::App*, const CLI::Error& error) {
  return frames::printable_sentence(error.what()) + "\nRun with --help for more information.\n";
}

// CLI11 prints help and version on standard output and what is wrong on standard error.
int status_after(const CLI::App& app, const CLI::ParseError& end) {
  return app.exit(end) == 0 ? kDone : kWrongCall;
}

int run(int argc, char** argv) {
  CLI::App app("Records and reads the runs of a ZIRN test station.", "zirn-run");
  app.set_version_flag("--version", "zirn-run " ZIRN_RUN_VERSION);
  app.require_subcommand(0, 1);
  app.failure_message(in_words);
  app.footer(
      "Exit status: 0 done; 1 a run that was asked about did not pass; 2 the call was wrong; 3 a file, a "
      "link or a right is missing. More: man "
      "zirn-run");
  int status = kDone;
  for (const Command& command : kCommands) {
    CLI::App* const part = app.add_subcommand(command.name, command.summary);
    part->final_callback([work = command.made_in(*part), &status] { status = work(); });
  }
  try {
    app.parse(argc, argv);
    if (app.get_subcommands().empty()) throw CLI::RequiredError("A command");
  } catch (const CLI::ParseError& end) {
    return status_after(app, end);
  }
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& error) {  // NotPossible, and what nobody foresaw
    std::cerr << "zirn-run: " << frames::printable_sentence(error.what()) << std::endl;
    return kNotPossible;
  }
}
