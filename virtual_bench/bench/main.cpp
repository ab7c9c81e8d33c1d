// bench STATION_PROGRAM SCENARIO RESULTS_FOLDER
// bench --many COUNT SEED STATION_PROGRAM RESULTS_FOLDER [RECORDS_FOLDER]
// bench --make SEED
// bench --steps
//
// Plays one scenario with the unmodified daemon on a private network of this machine, records and draws it.
// Leaves NAME.pcapng and NAME.svg in the results folder. --many plays so many made by chance, of the seeds from
// SEED on, and leaves only those that went otherwise, and in RECORDS_FOLDER the records of all (many_runs.h). --make prints the scenario of one seed,
// --steps what a scenario can say. Exit status: 0 the run went as the scenario says, 1 it did not, 2 the call or
// the scenario cannot be understood, 77 this machine does not allow it.
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "bench/exit_status.h"
#include "bench/made_scenario.h"
#include "bench/many_runs.h"
#include "bench/record_file.h"
#include "bench/run.h"
#include "bench/scenario.h"
#include "explanation/text.h"
#include "picture/picture.h"
#include "record/run_entry.h"
#include "stage/network_namespace.h"

namespace {

namespace fs = std::filesystem;

constexpr char kTunDevice[] = "/dev/net/tun";

// Whether the text is a number of 32 bits; its value.
bool is_number(const std::string& text, std::uint32_t* number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), *number);
  return error == std::errc() && end == text.data() + text.size();
}

struct Call {
  fs::path scenario;  // where none is made
  ManyRuns runs;      // count 0: none is made

  bool is_made() const { return runs.count == 1; }
};

bool understood(const std::vector<std::string>& arguments, Call* call) {
  ManyRuns& runs = call->runs;
  const bool many = (arguments.size() == 5 || arguments.size() == 6) && arguments[0] == "--many";
  if (!many && arguments.size() != 3) return false;
  runs.results = fs::absolute(arguments[many ? 4 : 2]);
  runs.station = fs::absolute(arguments[many ? 3 : 0]);
  if (arguments.size() == 6) runs.records = fs::absolute(arguments[5]);
  if (!many) {
    call->scenario = arguments[1];
    return true;
  }
  return is_number(arguments[1], &runs.count) && is_number(arguments[2], &runs.seed) && runs.count > 0;
}

// As somebody would write the path who stands where the bench, or the script around it, was called.
std::string as_caller_writes(const fs::path& path) {
  const char* const place = std::getenv("PWD_OF_CALLER");
  return fs::proximate(path, place == nullptr || *place == '\0' ? fs::current_path() : fs::path(place));
}

// The folder of one run, under a name of its own until the run has ended: other runs of the same scenario may
// be played at the same time.
class RunFolder {
 public:
  RunFolder(const fs::path& results, const std::string& name)
      : results_(results), name_(name), path_((results / (name + ".XXXXXX")).string()) {
    fs::create_directories(results);
    if (mkdtemp(path_.data()) == nullptr)
      throw std::runtime_error("cannot make " + path_ + ": " + std::strerror(errno));
    fs::permissions(path_, kEverybodyReads);
  }
  ~RunFolder() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
  }
  RunFolder(const RunFolder&) = delete;
  RunFolder& operator=(const RunFolder&) = delete;

  std::string file(const std::string& name) const { return path_ + "/" + name; }
  const std::string& path() const { return path_; }
  const std::string& name() const { return name_; }
  // Puts NAME.pcapng or NAME.svg in the place of what an earlier run left there. Where it is then, for the caller.
  std::string hand_over(const std::string& extension) const {
    const fs::path result = results_ / (name_ + extension);
    fs::rename(file(name_ + extension), result);
    return as_caller_writes(result);
  }

 private:
  static constexpr fs::perms kEverybodyReads = fs::perms::owner_all | fs::perms::group_read |
                                               fs::perms::group_exec | fs::perms::others_read |
                                               fs::perms::others_exec;
  const fs::path results_;
  const std::string name_;
  std::string path_;
};

explanation::Explanation explained(const std::string& record) {
  story::Story story;
  tell_record(record, &story);
  return explanation::explain(story.reading());
}

std::string first_lines(const std::string& text, int count) {
  std::size_t end = 0;
  for (; count > 0 && end < text.size(); --count) end = text.find('\n', end) + 1;
  return text.substr(0, end);
}

int play(const Call& call, const Scenario& scenario, const RunFolder& folder) {
  Run run(scenario, call.runs.station, folder.path());
  std::optional<std::string> wrong = run.play();
  const std::string file = folder.file(folder.name() + ".pcapng");
  const auto write = [&] {
    write_record(file, run.wire_record(),
                 run.entries(folder.name(), wrong.value_or(record::kAsTheScenarioSays)));
  };
  write();
  const explanation::Explanation told = explained(file);
  if (!wrong) {
    wrong = run.wrong_in(told);
    if (wrong) write();
  }
  story::Story story;
  tell_record(file, &story);
  std::ofstream(folder.file(folder.name() + ".svg")) << picture::picture_of(story.reading());
  if (call.is_made()) folder.hand_over(".run");
  std::cout << run.verdict() << '\n'
            << first_lines(explanation::text_of(told, folder.name()), 2) << folder.name()
            << (wrong ? " did not go" : " went") << " as the scenario says: " << folder.hand_over(".svg")
            << ", " << folder.hand_over(".pcapng") << std::endl;
  return wrong ? kOtherwise : kAsExpected;
}

// What work returns; what it throws is said, and is a status too.
int reported(const std::function<int()>& work) {
  try {
    return work();
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

int play_one(const Call& call) {
  const std::string made = call.is_made() ? made_scenario(call.runs.seed) : "";
  const std::string name = call.is_made() ? name_of_made_run(call.runs.seed) : call.scenario.stem().string();
  const Scenario scenario =
      call.is_made() ? parse_scenario(made, name + ".run") : read_scenario(call.scenario);
  if (access(kTunDevice, R_OK | W_OK) != 0)
    throw NotAllowed(std::string(kTunDevice) + ": " + std::strerror(errno));
  end_work_on_signals();
  const RunFolder folder(call.runs.results, name);
  if (call.is_made()) std::ofstream(folder.file(name + ".run")) << made;
  return run_in_private_namespaces([&] {
    return reported([&] {
      mount_own_proc();
      return play(call, scenario, folder);
    });
  });
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  if (arguments == std::vector<std::string>{"--steps"}) {
    for (const Command& command : commands()) std::cout << command.form << '\n';
    return kAsExpected;
  }
  std::uint32_t seed = 0;
  if (arguments.size() == 2 && arguments[0] == "--make" && is_number(arguments[1], &seed)) {
    std::cout << made_scenario(seed);
    return kAsExpected;
  }
  Call call;
  if (!understood(arguments, &call)) {
    std::cerr << "bench: expected: STATION_PROGRAM SCENARIO RESULTS_FOLDER, or --many COUNT SEED "
                 "STATION_PROGRAM RESULTS_FOLDER [RECORDS_FOLDER], or --make SEED, or --steps\n";
    return kNotUnderstood;
  }
  const int status = reported([&] { return call.runs.count > 1 ? play_many(call.runs) : play_one(call); });
  // Without the work that others hang on to a process's end, such as a leak check's: it would need a thread,
  // and a process that has given its children process numbers of their own cannot start one.
  std::_Exit(status);
}
