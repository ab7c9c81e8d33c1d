#include "bench/run.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <filesystem>
#include <map>

namespace {

namespace fs = std::filesystem;
using SteadyClock = std::chrono::steady_clock;

constexpr int kLookMilliseconds = 5;
constexpr double kLastFramesSeconds = 0.1;             // until what the station's end sends is in the capture
constexpr int kWireSeed = 1;                           // the same chances at every run
constexpr char kTemporaryMac[] = "02:00:00:00:17:2a";  // not the one that a station without envtool assumes
constexpr int kToolStatus = 1;                         // of the T1/E1 tool where no step says otherwise

}  // namespace

Run::Run(const Scenario& scenario, const Programs& programs, const std::string& name,
         const std::string& folder, const std::string& capture)
    : scenario_(scenario),
      programs_(programs),
      name_(name),
      folder_(folder),
      capture_(capture),
      board_(folder + "/board", folder + "/board.log"),
      station_log_(folder + "/station.log") {
  board_.sets_variable("tempmac", kTemporaryMac);
  board_.ends_with(Board::kT1E1, kToolStatus);
  fs::create_directory(folder_ + "/served");
  fs::create_directory(folder_ + "/unit");
}

std::optional<std::string> Run::play() {
  std::optional<std::string> wrong;
  try {
    for (const Step& step : scenario_.steps) {
      try {
        play_step(step);
      } catch (const NotAllowed&) {
        throw;
      } catch (const std::runtime_error& error) {
        throw Wrong("line " + std::to_string(step.line) + ", " + step.text + ": " + error.what());
      }
    }
    if (reading_.unit) throw Wrong(reading_.name + " is still being read; expected \"unit ends reading\"");
    if (station_ && !station_end_) throw Wrong("the station still runs; expected a step that ends it");
  } catch (const NotAllowed&) {
    throw;
  } catch (const std::runtime_error& error) {
    wrong = error.what();
    timeline_.says("bench", "WRONG: " + *wrong);
  }
  until(kLastFramesSeconds, [] { return false; });
  write_summary(wrong);
  reading_.unit.reset();
  station_.reset();
  ppt_server_.reset();
  network_.reset();
  return wrong;
}

void Run::play_step(const Step& step) {
  static const std::map<std::string, void (Run::*)(const Step&)> kPlayers = {
      {"file", &Run::play_file_step}, {"wire", &Run::play_wire_step},
      {"ppt", &Run::play_ppt_step},   {"board", &Run::play_board_step},
      {"unit", &Run::play_unit_step}, {"station", &Run::play_station_step},
      {"bench", &Run::wait},
  };
  look();
  (this->*kPlayers.at(step.role))(step);
}

void Run::wait(const Step& step) {
  until(step.number_of("SECONDS"), [] { return false; });
}

Network& Run::network() {
  if (!network_) {
    network_ = std::make_unique<Network>(programs_.wire, capture_, folder_ + "/fates", folder_ + "/errors",
                                         kWireSeed, station_link_);
    ppt_server_ = std::make_unique<Process>(
        std::vector<std::string>{programs_.ppt_server, kPptServerIp, kTftpPort, kMessagePort, kRelayPort},
        [this] {
          network_->ppt_server.enter();
          append_errors_to(folder_ + "/errors");
        });
    if (!until(kPatienceSeconds, [&] { return ppt_server_said("ready"); })) throw Wrong("no PPT server");
  }
  return *network_;
}

void Run::look() {
  std::array<pollfd, 2> outputs = {{{station_ ? station_->output() : -1, POLLIN, 0},
                                    {ppt_server_ ? ppt_server_->output() : -1, POLLIN, 0}}};
  if (poll(outputs.data(), outputs.size(), kLookMilliseconds) > 0 &&
      ((outputs[0].revents | outputs[1].revents) & POLLHUP) != 0) {
    usleep(kLookMilliseconds * 1000);  // an output that has ended is always ready
  }
  if (station_ && !station_end_) {
    if (const auto end = station_->end()) station_end_ = end->shell_status();
    while (const auto line = station_->read_line()) take_station_line(*line);
    if (station_end_) end_station_output();
  }
  while (ppt_server_) {
    const auto line = ppt_server_->read_line();
    if (!line) break;
    ppt_lines_.push_back(*line);
    if (*line != "ok" && *line != "ready") timeline_.says("ppt", *line);
  }
  const std::vector<std::string> calls = board_.calls();
  for (; board_calls_shown_ < calls.size(); ++board_calls_shown_) {
    timeline_.says("board", "runs " + calls[board_calls_shown_]);
  }
}

// What stands behind its last newline is a line too.
void Run::end_station_output() {
  const std::string last = station_->read_text();
  if (!last.empty()) take_station_line(last);
  timeline_.says("station", "ends with exit status " + std::to_string(*station_end_));
}

void Run::take_station_line(const std::string& line) {
  station_log_ << in_log_form(epoch_seconds()) << ' ' << line << std::endl;
  station_lines_.push_back(line);
  timeline_.says("station", "| " + line);
}

bool Run::until(double seconds, const std::function<bool()>& is_so) {
  const auto deadline = SteadyClock::now() + std::chrono::duration<double>(seconds);
  do {
    look();
    if (is_so()) return true;
  } while (SteadyClock::now() < deadline);
  return false;
}

bool Run::ppt_server_said(const std::string& line) const {
  return std::count(ppt_lines_.begin(), ppt_lines_.end(), line) != 0;
}

void Run::write_summary(const std::optional<std::string>& wrong) const {
  std::ofstream summary(folder_ + "/run");
  summary << "title " << scenario_.title << '\n'
          << "name " << name_ << '\n'
          << "start " << in_log_form(timeline_.start()) << '\n'
          << "end " << in_log_form(epoch_seconds()) << '\n'
          << "command " << station_command_ << '\n'
          << "ppt_flag " << board_.variable("ppt_flag") << '\n'
          << "judged " << wrong.value_or("as the scenario says") << '\n';
  if (station_end_) summary << "status " << *station_end_ << '\n';
}
