// bench [--keep] STATION_PROGRAM SCENARIO RESULTS_FOLDER
// bench --steps
//
// Plays one scenario with the unmodified daemon on a private network of this machine, and draws it. Leaves
// NAME.pcap and NAME.svg in the results folder, and with --keep the run's own folder NAME. --steps lists what
// a scenario can say. Exit status: 0 the run went as the scenario says, 1 it did not, 2 the call or the
// scenario cannot be understood, 77 this machine does not allow it.
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

#include "bench/network.h"
#include "bench/run.h"
#include "bench/scenario.h"

namespace {

namespace fs = std::filesystem;

enum ExitStatus { kAsExpected = 0, kOtherwise = 1, kNotUnderstood = 2, kNotAllowed = 77 };

struct Call {
  bool keep = false;
  fs::path station;
  fs::path scenario;
  fs::path results;
};

bool understood(std::vector<std::string> arguments, Call* call) {
  if (!arguments.empty() && arguments[0] == "--keep") {
    call->keep = true;
    arguments.erase(arguments.begin());
  }
  if (arguments.size() != 3) return false;
  call->station = fs::absolute(arguments[0]);
  call->scenario = arguments[1];
  call->results = fs::absolute(arguments[2]);
  return true;
}

// Every program of the bench is built beside the others.
fs::path beside_this(const char* program) {
  return fs::read_symlink("/proc/self/exe").parent_path() / program;
}

bool draw(const fs::path& folder, const fs::path& capture, const fs::path& picture) {
  Process process({beside_this("picture"), folder, capture, picture}, [] {});
  while (!process.ended()) process.rest();
  return process.ended() == 0;
}

ExitStatus play(const Call& call, const Scenario& scenario) {
  const fs::path folder = call.results / call.scenario.stem();
  const fs::path capture = folder.string() + ".pcap";
  const fs::path picture = folder.string() + ".svg";
  fs::remove_all(folder);
  fs::create_directories(folder);
  const Programs programs = {call.station, beside_this("unit"), beside_this("ppt_server"),
                             beside_this("wire")};
  const std::optional<std::string> wrong = Run(scenario, programs, folder, capture).play();
  if (!draw(folder, capture, picture)) std::cout << "The picture could not be drawn." << std::endl;
  if (!call.keep) fs::remove_all(folder);
  std::cout << call.scenario.stem().string() << (wrong ? " did not go" : " went")
            << " as the scenario says: " << fs::proximate(picture).string() << ", "
            << fs::proximate(capture).string() << std::endl;
  return wrong ? kOtherwise : kAsExpected;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && argv[1] == std::string("--steps")) {
    for (const std::string& form : step_forms()) std::cout << form << '\n';
    return kAsExpected;
  }
  Call call;
  if (!understood({argv + 1, argv + argc}, &call)) {
    std::cerr << "bench: expected: [--keep] STATION_PROGRAM SCENARIO RESULTS_FOLDER, or --steps\n";
    return kNotUnderstood;
  }
  try {
    const Scenario scenario = read_scenario(call.scenario);
    enter_namespaces();
    return play(call, scenario);
  } catch (const ScenarioError& error) {
    std::cerr << "bench: " << error.what() << std::endl;
    return kNotUnderstood;
  } catch (const NotAllowed& error) {
    std::cerr << "bench: not possible on this machine: " << error.what() << std::endl;
    return kNotAllowed;
  } catch (const std::exception& error) {
    std::cerr << "bench: " << error.what() << std::endl;
    return kOtherwise;
  }
}
