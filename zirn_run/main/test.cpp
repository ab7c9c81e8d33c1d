#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <optional>

#include "check/check.h"
#include "explanation/text.h"
#include "main/commands.h"
#include "main/exit_status.h"
#include "main/explanation_json.h"
#include "main/number.h"
#include "main/programs.h"
#include "main/voice.h"
#include "recorder/clock.h"
#include "recorder/runs.h"
#include "trial/lock.h"
#include "trial/trial.h"

namespace {

namespace fs = std::filesystem;

constexpr char kUnit[] = "zirn-test-station";
constexpr char kFolder[] = "/var/lib/zirn-runs";
constexpr std::size_t kRunsKept = 200;
constexpr std::uint64_t kMostBytes = std::uint64_t{2} << 30;

struct Options {
  std::string program;
  std::string record;
  std::optional<double> longest;  // seconds
  bool is_json = false;
  bool is_anyway = false;
  bool has_lines = false;
  station::Words station;
};

// False: a point is wrong that no unit comes past.
bool is_ready(const check::Setup& setup, Voice* voice) {
  std::string stopping;
  for (const check::Point& point : check::points()) {
    const check::Finding finding = point.look(setup);
    if (finding.state != check::State::kWrong) continue;
    if (point.stops) stopping += (stopping.empty() ? "" : ", ") + std::string(point.name);
    voice->say(check::text_of(point, finding));
  }
  if (!stopping.empty()) voice->say("the station is not ready: " + stopping);
  return stopping.empty();
}

std::unique_ptr<trial::Station> station_of(const Options& options, const check::Setup& setup) {
  if (setup.is_unit && options.program.empty()) return trial::service(kUnit);
  station::Words words = {options.program.empty() ? found_station_program(setup.path)
                                                  : fs::absolute(options.program).string()};
  words.insert(words.end(), setup.options.begin(), setup.options.end());
  return trial::program(words, setup.folder, setup.path);
}

std::string record_of(const Options& options) {
  if (!options.record.empty()) return options.record;
  std::error_code error;
  fs::create_directories(kFolder, error);
  if (error)
    throw NotPossible(std::string(kFolder) + ": " + error.message() + "; another place: --record FILE");
  return std::string(kFolder) + "/" + recorder::name_of_run(kFolder, recorder::now()) + ".pcapng";
}

// The verdict stands, whatever becomes of the folder.
void keep_folder_in_order() {
  try {
    recorder::complete_runs(kFolder);
    recorder::limit_runs(kFolder, kRunsKept, kMostBytes);
  } catch (const std::exception& error) {
    std::cerr << "zirn-run: " << error.what() << std::endl;
  }
}

int status_of(explanation::Outcome verdict) {
  if (verdict == explanation::Outcome::kNone) return kNoVerdict;
  return verdict == explanation::Outcome::kPassed ? kDone : kNotPassed;
}

// The answer, on standard output; what has happened before it, wherever that goes.
int answer(const explanation::Explanation& told, const Options& options, const std::string& record,
           Voice* voice) {
  std::string text = explanation::text_of(told, "");
  if (options.is_json) text = json_of(told, record, "") + "\n";
  text.pop_back();
  bool is_said = voice->finish();
  Voice result(STDOUT_FILENO);
  result.say(text);
  is_said = result.finish() && is_said;
  if (!is_said) std::cerr << "zirn-run: standard output: not all could be written" << std::endl;
  return status_of(told.verdict);
}

int test_unit(const Options& options, Voice* voice) {
  const trial::Lock lock(trial::Lock::Of::kStation);
  std::optional<trial::Lock> folder;
  if (options.record.empty()) folder.emplace(trial::Lock::Of::kFolder);
  check::Setup setup = check::setup_of(options.station, std::nullopt);
  if (!options.program.empty()) setup.rights.reset();  // it has those of this process
  if (!is_ready(setup, voice) && !options.is_anyway) return kNotPossible;
  const std::string record = record_of(options);
  trial::Options run = {setup.options, setup.is_unit ? kUnit : "", record, std::nullopt};
  if (options.longest) run.longest = std::chrono::duration<double>(*options.longest);
  const auto station = station_of(options, setup);
  trial::Listener listener;
  listener.happens = [voice](const std::string& text) { voice->say(text); };
  listener.prints = [&](const std::string& line) {
    if (options.has_lines) voice->say(line);
  };
  listener.progress = [&](const std::string& text) {
    lock.answer();
    if (folder) folder->answer();
    voice->show(text);
  };
  story::Story story;
  trial::test(run, station.get(), listener, &story);
  voice->say("record: " + record);
  const int status = answer(explanation::explain(story.reading()), options, record, voice);
  if (options.record.empty()) keep_folder_in_order();
  return status;
}

int test(const Options& options) {
  signal(SIGPIPE, SIG_IGN);  // a run goes on whoever reads of it
  Voice voice(options.is_json ? STDERR_FILENO : STDOUT_FILENO);
  try {
    const int status = test_unit(options, &voice);
    voice.finish();
    return status;
  } catch (const std::exception& error) {
    voice.finish();
    throw NotPossible(error.what());
  }
}

}  // namespace

Work test_command(CLI::App& app) {
  const auto options = std::make_shared<Options>();
  constexpr double kShortest = 0.001;  // seconds
  constexpr double kLongest = 1e9;     // the same
  app.add_option("--program", options->program,
                 "The station's program, instead of the service or the one that is found")
      ->type_name("FILE");
  app.add_option("--record", options->record, std::string("The record; without it, one in ") + kFolder)
      ->type_name("FILE");
  app.add_option("--timeout", options->longest, "End the run after so long")
      ->check(number_in(kShortest, kLongest))
      ->type_name("SECONDS");
  app.add_flag("--json", options->is_json,
               "The result as one object of JSON, in a line; all else goes to standard error");
  app.add_flag("--lines", options->has_lines, "Say what the station prints, too");
  app.add_flag("--anyway", options->is_anyway, "Run although the station is not ready");
  app.add_option("OPTION", options->station,
                 "The station's own options, behind \"--\"; without them, those of the service")
      ->type_name("");
  app.footer(
      "Exit status: 0 the unit passed; 1 it failed; 2 the call was wrong; 3 the station is not ready, or no "
      "run could "
      "be begun; 4 there is no verdict");
  return [options] { return test(*options); };
}
