// tested_station [OPTION ...]
//
// Stands in the place of the station's program: `zirn-run test` begins the program, and what that prints, the signals
// that it gets and the status that it ends with pass through here. Where the environment has TESTED_STATION_RESULT, the
// run leaves that name with .pcapng, its record, and .log, what zirn-run said, with its exit status in the last line.
// A verdict that is not what the station's lines say ends it with kOtherwise.
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "record/reader.h"
#include "record/run_entry.h"
#include "stage/process.h"
#include "story/reading.h"

namespace {

namespace fs = std::filesystem;

constexpr int kOtherwise = 99;
constexpr int kPassed = 0, kFailed = 1, kNone = 4;  // of zirn-run test
constexpr int kKilled = 128;                        // plus the signal's number, as a shell counts it
constexpr char kResult[] = "TESTED_STATION_RESULT";
constexpr char kStationPrints[] = " s  | ";
constexpr char kVerdict[] = "Cmd received: ";
constexpr int kLookMilliseconds = 20;

// SIGINT and SIGTERM, to be passed on.
int signals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  sigprocmask(SIG_BLOCK, &set, nullptr);
  return signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
}

class TestedStation {
 public:
  TestedStation(const std::vector<std::string>& words, const std::string& log)
      : log_(log), signals_(signals()), zirn_run_(words, [] {
          sigset_t none;
          sigemptyset(&none);
          sigprocmask(SIG_SETMASK, &none, nullptr);
        }) {}

  // The exit status of zirn-run.
  int run() {
    std::optional<ProcessEnd> end;
    while (!end) {
      pollfd events[] = {{signals_, POLLIN, 0}, {zirn_run_.output(), POLLIN, 0}};
      poll(events, 2, kLookMilliseconds);
      signalfd_siginfo signal = {};
      if (read(signals_, &signal, sizeof signal) > 0)
        zirn_run_.send_signal(static_cast<int>(signal.ssi_signo));
      end = zirn_run_.end();
      while (const auto line = zirn_run_.read_line()) take(*line);
    }
    log_ << "zirn-run test ended with " << end->shell_status() << std::endl;
    return end->shell_status();
  }
  int expected_status() const { return expected_; }

 private:
  void take(const std::string& line) {
    log_ << line << std::endl;
    const std::size_t at = line.find(kStationPrints);
    if (at == std::string::npos || line.find_first_not_of(" .0123456789") != at + 1) return;
    const std::string printed = line.substr(at + sizeof kStationPrints - 1);
    std::cout << printed << std::endl;
    if (printed.compare(0, sizeof kVerdict - 1, kVerdict) != 0) return;
    const auto says = story::verdict_in(printed.substr(sizeof kVerdict - 1));
    if (says == story::Verdict::Says::kPassed) expected_ = kPassed;
    if (says == story::Verdict::Says::kFailed) expected_ = kFailed;
  }

  std::ofstream log_;
  const int signals_;
  Process zirn_run_;
  int expected_ = kNone;
};

// How the station ended by the record, as a shell counts it.
int end_in(const std::string& name) {
  std::ifstream file(name, std::ios::binary);
  record::Reader reader(file);
  int status = kOtherwise;
  while (const auto item = reader.next()) {
    const auto* const entry = std::get_if<record::Entry>(&*item);
    const auto said = entry == nullptr ? std::nullopt : record::said_by(*entry);
    const auto* const end = said ? std::get_if<record::StationEnds>(&*said) : nullptr;
    if (end != nullptr) status = end->status.value_or(kKilled + end->signal);
  }
  return status;
}

int test(int argc, char** argv) {
  const char* const name = std::getenv(kResult);
  const std::string result = name == nullptr || *name == '\0' ? fs::absolute("../tested").string() : name;
  const fs::path build = fs::read_symlink("/proc/self/exe").parent_path().parent_path();
  std::vector<std::string> words = {build / "zirn-run", "test", "--anyway", "--lines", "--record",
                                    result + ".pcapng", "--"};
  words.insert(words.end(), argv + 1, argv + argc);
  TestedStation station(words, result + ".log");
  const int status = station.run();
  if (status != station.expected_status()) {
    std::cerr << "zirn-run test ended with " << status << ", expected " << station.expected_status()
              << std::endl;
    return kOtherwise;
  }
  return end_in(result + ".pcapng");
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return test(argc, argv);
  } catch (const std::exception& error) {
    std::cerr << "tested_station: " << error.what() << std::endl;
    return kOtherwise;
  }
}
