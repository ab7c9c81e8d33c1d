#include "bench/many_runs.h"

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench/exit_status.h"
#include "bench/made_scenario.h"
#include "stage/process.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr unsigned kRunsPerCore = 8;           // at a time: most of a run is waiting
constexpr long kLookNanoseconds = 20'000'000;  // between two looks at the runs
constexpr int kKilled = 128;                   // plus the signal's number, as a shell counts it
constexpr char kThisProgram[] = "/proc/self/exe";
constexpr char kWrong[] = "WRONG: ";
constexpr char kRefusal[] = "bench: ";  // begins what the bench says where it cannot play

sigset_t ending_signals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int number : {SIGHUP, SIGINT, SIGTERM}) sigaddset(&signals, number);
  return signals;
}

// From where it begins to the end of its line; the whole text where it is not there.
std::string line_from(const std::string& beginning, const std::string& text) {
  const std::size_t at = text.find(beginning);
  return at == std::string::npos ? text : text.substr(at, text.find('\n', at) - at);
}

void write_scenario(std::uint32_t seed, const fs::path& file) {
  std::ofstream out(file);
  out << made_scenario(seed);
  out.close();
  if (!out) throw std::runtime_error(file.string() + ": it cannot be written");
}

class Player {
 public:
  explicit Player(const ManyRuns& runs) : runs_(runs), next_(runs.seed) {}
  int play();

 private:
  struct Playing {
    std::string name;
    std::string seed;
    std::string output;
    std::unique_ptr<Process> process;
  };

  std::uint32_t begun() const { return next_ - runs_.seed; }
  std::uint32_t ended() const { return as_expected_ + otherwise_ + not_played_; }
  fs::path file(const Playing& one, const std::string& extension) const {
    return runs_.results / (one.name + extension);
  }
  void begin_next();
  bool has_ended(Playing& one);
  void judge(const Playing& one, const ProcessEnd& end);
  void tell(const Playing& one);
  void show_progress() const;
  void erase_progress() const;
  int end_all(int signal_number);

  const ManyRuns& runs_;
  const Clock::time_point start_ = Clock::now();
  const bool shows_progress_ = isatty(STDOUT_FILENO) == 1;
  std::uint32_t next_;  // seed
  std::uint32_t as_expected_ = 0, otherwise_ = 0, not_played_ = 0;
  std::vector<Playing> playing_;
};

int Player::play() {
  const sigset_t signals = ending_signals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  fs::create_directories(runs_.results);
  if (!runs_.records.empty()) fs::create_directories(runs_.records);
  const std::size_t most_at_once = std::size_t{kRunsPerCore} * std::thread::hardware_concurrency();
  while (ended() < runs_.count) {
    while (playing_.size() < most_at_once && begun() < runs_.count) begin_next();
    const timespec moment = {0, kLookNanoseconds};
    const int signal_number = sigtimedwait(&signals, nullptr, &moment);
    if (signal_number > 0) return end_all(signal_number);
    for (std::size_t i = playing_.size(); i-- > 0;)
      if (has_ended(playing_[i])) playing_.erase(playing_.begin() + static_cast<std::ptrdiff_t>(i));
    show_progress();
  }
  erase_progress();
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - start_).count();
  std::cout << as_expected_ << " of " << runs_.count << " runs went as they must, " << otherwise_
            << " otherwise, " << not_played_ << " not played; seeds " << runs_.seed << " to "
            << runs_.seed + runs_.count - 1 << ", " << seconds << " s" << std::endl;
  if (not_played_ == runs_.count) return kNotAllowed;
  return as_expected_ == runs_.count ? kAsExpected : kOtherwise;
}

void Player::begin_next() {
  Playing one;
  one.seed = std::to_string(next_);
  one.name = name_of_made_run(next_);
  write_scenario(next_++, file(one, ".run"));
  one.process = std::make_unique<Process>(
      Process::Arguments{kThisProgram, runs_.station, file(one, ".run"), runs_.results}, [] {
        const sigset_t signals = ending_signals();
        pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
        dup2(STDOUT_FILENO, STDERR_FILENO);
      });
  playing_.push_back(std::move(one));
}

bool Player::has_ended(Playing& one) {
  const auto end = one.process->end();
  one.output += one.process->read_text();
  if (end) judge(one, *end);
  return end.has_value();
}

void Player::judge(const Playing& one, const ProcessEnd& end) {
  const fs::path record = file(one, ".pcapng");
  if (!runs_.records.empty() && fs::exists(record)) fs::copy_file(record, runs_.records / record.filename());
  switch (end.shell_status()) {
    case kAsExpected:
      ++as_expected_;
      for (const char* extension : {".run", ".svg", ".pcapng"}) fs::remove(file(one, extension));
      break;
    case kNotAllowed:
      if (not_played_++ == 0) tell(one);  // the others have the same reason
      fs::remove(file(one, ".run"));
      break;
    default:
      ++otherwise_;
      std::ofstream(file(one, ".log")) << one.output;
      tell(one);
  }
}

void Player::tell(const Playing& one) {
  erase_progress();
  const bool was_played = one.output.find(kWrong) != std::string::npos;
  std::cout << one.name << ": " << line_from(was_played ? kWrong : kRefusal, one.output)
            << "\n  again: scripts/run --many 1 --seed " << one.seed << std::endl;
}

void Player::show_progress() const {
  if (!shows_progress_) return;
  std::cout << "\r\033[K" << ended() << " of " << runs_.count << " played, " << otherwise_
            << " otherwise than they must" << std::flush;
}

void Player::erase_progress() const {
  if (shows_progress_) std::cout << "\r\033[K" << std::flush;
}

int Player::end_all(int signal_number) {
  erase_progress();
  for (const Playing& one : playing_) one.process->send_signal(SIGTERM);
  for (const Playing& one : playing_) {
    one.process->wait_for_end();
    fs::remove(file(one, ".run"));
  }
  return kKilled + signal_number;
}

}  // namespace

std::string name_of_made_run(std::uint32_t seed) {
  return "chance-" + std::to_string(seed);
}

int play_many(const ManyRuns& runs) {
  return Player(runs).play();
}
