#include "recorder/recorder.h"

#include <algorithm>
#include <filesystem>
#include <stdexcept>

#include "recorder/clock.h"
#include "recorder/recording.h"
#include "recorder/runs.h"
#include "recorder/say.h"

namespace recorder {

namespace {

constexpr int kWrongCall = 2;
constexpr int kNotPossible = 3;
constexpr std::size_t kRunsKept = 200;

struct WrongCall : std::runtime_error {
  using std::runtime_error::runtime_error;
};

bool record_by_hand(const Options& options) {
  return Recording(options, [&](record::Nanoseconds) { return options.output; }).run();
}

bool record_into_folder(const Options& options) {
  std::filesystem::create_directories(options.folder);
  const auto name = [&](record::Nanoseconds start) {
    return options.folder + "/" + name_of_run(options.folder, start) + ".pcapng";
  };
  const bool is_whole = Recording(options, name).run();
  complete_runs(options.folder);
  limit_runs(options.folder, kRunsKept, options.limit);
  return is_whole;
}

void check(const Options& options) {
  if (options.links.empty()) throw WrongCall("expected a link (-i)");
  for (const std::string& link : options.links) {
    if (std::count(options.links.begin(), options.links.end(), link) > 1)
      throw WrongCall("expected each link once (-i), found " + link + " twice: its frames would be, too");
    if (link == "any" && options.links.size() > 1)
      throw WrongCall("expected no link beside \"any\" (-i): its frames would be there twice");
  }
  if (!options.unit.empty() && !options.log.empty()) throw WrongCall("expected --unit or --log, not both");
  if (options.pid != 0 && options.log.empty()) throw WrongCall("--pid: expected --log with it");
  if (options.is_service != options.output.empty())
    throw WrongCall("expected either a file (-o) or --service");
}

}  // namespace

bool record(const Options& options, Run* run) {
  return Recording(
             options, [&](record::Nanoseconds) { return options.output; }, run)
      .run();
}

int record(const Options& options) {
  try {
    check(options);
    const bool is_whole = options.is_service ? record_into_folder(options) : record_by_hand(options);
    return is_whole ? 0 : kNotPossible;
  } catch (const WrongCall& error) {
    say(error.what());
    return kWrongCall;
  } catch (const WrongFilter& error) {
    say(std::string("the filter is wrong: ") + error.what());
    return kWrongCall;
  } catch (const std::exception& error) {
    say(error.what());
    return kNotPossible;
  }
}

}  // namespace recorder
