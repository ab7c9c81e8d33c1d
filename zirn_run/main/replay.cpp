#include "main/replay.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "frames/words.h"
#include "main/exit_status.h"
#include "main/programs.h"
#include "main/progress.h"
#include "recorder/waits.h"
#include "station/child.h"

namespace fs = std::filesystem;

namespace {

constexpr int kProgressMilliseconds = 200;

std::string found_bench(const std::string& named) {
  const fs::path file = named.empty() ? beside_this_program("virtual_bench") / "bench" : fs::absolute(named);
  if (can_be_executed(file)) return file;
  throw NotPossible(
      frames::printable(file.string()) +
      ": expected the virtual bench's program, which is built with the project's sources: " + "--bench FILE");
}

std::string found_program(const std::string& named) {
  const char* const path = std::getenv("PATH");
  if (named.empty()) return found_station_program(path == nullptr ? "" : path);
  if (can_be_executed(named)) return fs::absolute(named);
  throw NotPossible(frames::printable(named) + ": expected the station's program");
}

fs::path made_folder() {
  std::string path = (fs::temp_directory_path() / "zirn-run.XXXXXX").string();
  if (mkdtemp(path.data()) == nullptr) throw NotPossible(path + ": " + std::strerror(errno));
  return path;
}

// Until the program has ended; what it prints is for nobody.
void wait_for(const station::Child& bench, const std::string& name) {
  const auto begin = std::chrono::steady_clock::now();
  const recorder::Signals signals(true);
  ProgressLine progress;
  for (;;) {
    std::array<pollfd, 2> events = {{{bench.descriptor(), POLLIN, 0}, {signals.descriptor(), POLLIN, 0}}};
    poll(events.data(), events.size(), kProgressMilliseconds);
    if (signals.came() != 0) throw NotPossible("interrupted: the run was not played to its end");
    std::array<char, 4096> output = {};
    if (events[0].revents != 0 && read(bench.descriptor(), output.data(), output.size()) == 0) return;
    const auto seconds =
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - begin);
    progress.show("playing " + frames::printable(name) + " on the bench: " + std::to_string(seconds.count()) +
                  " s");
  }
}

}  // namespace

Replay::Replay(const std::string& bench, const std::string& program)
    : bench_(found_bench(bench)), program_(found_program(program)), folder_(made_folder()) {}

Replay::~Replay() {
  std::error_code ignored;
  fs::remove_all(folder_, ignored);
}

std::string Replay::play(const std::string& scenario) {
  const std::string name = fs::path(scenario).stem();
  const std::string errors = folder_ / "errors";
  {
    const int descriptor = open(errors.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const station::Child bench({bench_, program_, scenario, folder_ / "results"}, descriptor);
    close(descriptor);
    wait_for(bench, name);
  }
  std::string record = folder_ / "results" / (name + ".pcapng");
  if (fs::exists(record)) return record;
  std::string why;
  std::ifstream file(errors);
  std::getline(file, why);
  throw NotPossible(why.empty() ? "the bench left no record" : frames::printable_sentence(why));
}
