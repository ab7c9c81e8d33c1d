#include "bench/run.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>

#include "record/run_entry.h"
#include "story/reading.h"

namespace {

namespace fs = std::filesystem;
using SteadyClock = std::chrono::steady_clock;

constexpr int kLookMilliseconds = 5;
constexpr double kLastFramesSeconds = 0.1;             // until what the station's end sends is in the capture
constexpr char kTemporaryMac[] = "02:00:00:00:17:2a";  // not the one that a station without envtool assumes
constexpr int kToolStatus = 1;                         // of the T1/E1 tool where no step says otherwise
constexpr record::Nanoseconds kNanoseconds = 1000;     // of a microsecond
constexpr char kNotSet[] = "nothing";                  // a variable of the board
constexpr char kVerdictLine[] = "Cmd received: ";

record::StationEnds recorded(const ProcessEnd& end) {
  return {end.signal == 0 ? std::optional(end.status) : std::nullopt, end.signal};
}

std::size_t units_in(const Scenario& scenario) {
  std::size_t count = 1;
  for (const Step& step : scenario.steps) count = std::max(count, step.unit + 1);
  return count;
}

}  // namespace

Run::Run(const Scenario& scenario, const std::string& station, const std::string& folder)
    : scenario_(scenario),
      station_program_(station),
      folder_(folder),
      live_(wire_record()),
      board_(folder + "/board") {
  board_.sets_variable("tempmac", kTemporaryMac);
  set_tool_status(kToolStatus);
  fs::create_directory(folder_ + "/served");
  for (std::size_t unit = 0; unit < units_in(scenario_); ++unit)
    fs::create_directory(folder_ + '/' + name_of_unit(unit));
}

std::optional<std::string> Run::play() {
  std::optional<std::string> wrong;
  try {
    for (const Step& step : scenario_.steps) play_step(step);
    for (unit_ = 0; unit_ < unit_states_.size(); ++unit_) {
      if (state().reading)
        throw StepFailed(state().reading_name + " is still being read; expected \"" + who() +
                         " ends reading\"");
    }
    if (station_ && !station_end_) throw StepFailed("the station still runs; expected a step that ends it");
  } catch (const NotAllowed&) {
    throw;
  } catch (const std::runtime_error& error) {
    wrong = error.what();
    said_wrong(*wrong);
  }
  wait(kLastFramesSeconds);
  end_ = microseconds_since_epoch();
  for (UnitState& unit : unit_states_) unit.reading.reset();
  station_.reset();
  neighbours_.reset();
  live_.look();
  return wrong;
}

void Run::play_step(const Step& step) {
  look();
  unit_ = step.unit;
  try {
    step.command->play(*this, step);
  } catch (const NotAllowed&) {
    throw;
  } catch (const std::runtime_error& error) {
    throw StepFailed("line " + std::to_string(step.line) + ", " + step.text + ": " + error.what());
  }
}

std::vector<record::Entry> Run::entries(const std::string& name, const std::string& judged) const {
  std::vector<record::Entry> entries;
  const auto add = [&entries](const record::RunEntry& said, std::int64_t at) {
    entries.push_back(record::entry_of(said, at * kNanoseconds));
  };
  add(record::RunBegins{name, scenario_.title, station_command_}, timeline_.start());
  for (const TimedLine& line : station_lines_) add(record::Line{line.text}, line.at);
  for (const Board::Call& call : board_.log()) add(record::BoardCall{call.command, call.status}, call.at);
  if (station_end_) add(recorded(*station_end_), station_ended_);
  const std::string flag = board_.variable("ppt_flag");
  add(record::RunEnds{flag == kNotSet ? "" : flag, judged}, end_);
  return entries;
}

std::string Run::verdict() const {
  std::string verdict = "the unit gave no final verdict";
  for (const TimedLine& line : station_lines_) {
    if (line.text.rfind(kVerdictLine, 0) != 0) continue;
    if (line.text.find("PPT_PASSED") != std::string::npos) verdict = "the unit PASSED";
    if (line.text.find("PPT_FAILED") != std::string::npos) verdict = "the unit FAILED";
  }
  return verdict;
}

void Run::expect_fault(const std::string& owner, const std::string& cause) {
  fault_owner_ = owner;
  fault_cause_ = cause;
}

std::optional<std::string> Run::wrong_in(const explanation::Explanation& told) const {
  const explanation::Cause& cause = *told.fault.cause;
  for (const std::string& expected : also_) {
    const bool is_seen = std::any_of(told.also.begin(), told.also.end(),
                                     [&expected](const auto& claim) { return claim.cause->id == expected; });
    if (!is_seen) return said_wrong("also seen is " + expected + ": it is not");
  }
  const bool is_right = fault_owner_.empty() || (fault_owner_ == name_of(cause.owner) &&
                                                 (fault_cause_.empty() || fault_cause_ == cause.id));
  if (is_right) return std::nullopt;
  return said_wrong("fault is " + fault_owner_ + (fault_cause_.empty() ? "" : " by " + fault_cause_) +
                    ": it is explained by " + std::string(name_of(cause.owner)) + " (" +
                    std::string(cause.id) + ")");
}

std::string Run::said_wrong(const std::string& wrong) const {
  timeline_.log("bench", "WRONG: " + wrong);
  return wrong;
}

void Run::wait(double seconds) {
  until(seconds, [] { return false; });
}

Run::Neighbours::Neighbours(Run& run)
    : network(run.wire_record(), run.wire_seed_, run.station_link_, units_in(run.scenario_)),
      ppt_server(network.ppt_server, run.station_options_.ppt_port, run.station_options_.message_port) {
  for (const NetworkNamespace& place : network.units)
    units.emplace_back(place, [&run](double seconds, const std::function<bool()>& condition) {
      return run.until(seconds, condition);
    });
}

Run::Neighbours& Run::neighbours() {
  if (!neighbours_) neighbours_ = std::make_unique<Neighbours>(*this);
  return *neighbours_;
}

void Run::look() {
  std::vector<pollfd> watched = {{station_ && !station_end_ ? station_->output() : -1, POLLIN, 0}};
  if (neighbours_) neighbours_->ppt_server.add_descriptors(&watched);
  poll(watched.data(), watched.size(), kLookMilliseconds);
  if ((watched[0].revents & POLLHUP) != 0) usleep(kLookMilliseconds * 1000);  // it is always ready
  if (station_ && !station_end_) {
    station_end_ = station_->end();
    while (const auto line = station_->read_line()) take_station_line(*line);
    take_station_errors();
    if (station_end_) take_station_end();
  }
  if (neighbours_) {
    for (const PptServer::Event& event : neighbours_->ppt_server.serve()) take_ppt_event(event);
  }
  const std::vector<std::string> calls = board_.calls();
  for (; board_calls_shown_ < calls.size(); ++board_calls_shown_) {
    timeline_.log("board", "runs " + calls[board_calls_shown_]);
    live_.add(record::BoardCall{calls[board_calls_shown_], std::nullopt}, microseconds_since_epoch());
  }
  live_.look();
}

// What it wrote to its standard error since the last look. A line that is not whole waits until the end.
void Run::take_station_errors() {
  std::ifstream errors(folder_ + kErrors);
  errors.seekg(errors_read_);
  for (std::string line; std::getline(errors, line) && (station_end_ || !errors.eof());) {
    take_station_line(line);
    errors_read_ = errors.tellg();
  }
}

// What follows its last newline is a line too.
void Run::take_station_end() {
  station_ended_ = microseconds_since_epoch();
  const std::string last = station_->read_text();
  if (!last.empty()) take_station_line(last);
  timeline_.log("station", "ends: " + story::in_words(recorded(*station_end_)));
  live_.add(recorded(*station_end_), station_ended_);
}

void Run::take_station_line(const std::string& line) {
  const std::int64_t now = microseconds_since_epoch();
  station_lines_.push_back({now, line});
  timeline_.log("station", "| " + line);
  live_.add(record::Line{line}, now);
}

void Run::take_ppt_event(const PptServer::Event& event) {
  ppt_events_.push_back(event);
  timeline_.log("ppt", event.in_words());
}

bool Run::until(double seconds, const std::function<bool()>& condition) {
  const auto deadline = SteadyClock::now() + std::chrono::duration<double>(seconds);
  do {
    look();
    if (condition()) return true;
  } while (SteadyClock::now() < deadline);
  return false;
}
