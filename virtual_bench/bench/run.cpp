#include "bench/run.h"

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <random>
#include <sstream>

namespace {

namespace fs = std::filesystem;
using SteadyClock = std::chrono::steady_clock;

constexpr double kPatienceSeconds = 10;     // for what is to happen at once
constexpr double kTransferSeconds = 150;    // the longest that a transfer may take
constexpr double kProgressSeconds = 1;      // between two lines about one long read
constexpr double kVainSeconds = 3;          // for a question that is not to be answered
constexpr double kExitSeconds = 20;         // for the station to end
constexpr double kBulkBytes = 1024 * 1024;  // from here on a read's rate says something
constexpr int kMilliseconds = 5;            // of one look
constexpr int kSeed = 1;                    // of the wire's chances and the files' bytes
constexpr char kTftpPort[] = "69";
constexpr char kMessagePort[] = "12345";
constexpr char kRelayPort[] = "12345";
constexpr char kVerdictPrefix[] = "F_l_m_";
constexpr char kStationServes[] = "Server started , waiting for connections";

std::string content(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// In bytes; 0 for a file that is not there.
double size_of(const fs::path& file) {
  std::error_code error;
  const std::uintmax_t size = fs::file_size(file, error);
  return error ? 0 : static_cast<double>(size);
}

std::string with_digits(double number, int digits) {
  char text[40];
  std::snprintf(text, sizeof text, "%.*f", digits, number);
  return text;
}

std::string in_kib(double bytes) {
  return with_digits(bytes / 1024, 0);
}

std::vector<std::string> split(const std::string& text) {
  std::istringstream in(text);
  std::vector<std::string> words;
  for (std::string word; in >> word;) words.push_back(word);
  return words;
}

bool is_verdict(const std::string& name) {
  return name.compare(0, sizeof kVerdictPrefix - 1, kVerdictPrefix) == 0;
}

void fill(const fs::path& file, std::size_t bytes) {
  std::mt19937 random(kSeed);
  std::ofstream out(file, std::ios::binary);
  for (std::size_t i = 0; i < bytes; ++i) out.put(static_cast<char>(random() & 0xFF));
}

}  // namespace

Run::Run(const Scenario& scenario, const Programs& programs, const std::string& folder,
         const std::string& capture)
    : scenario_(scenario),
      programs_(programs),
      folder_(folder),
      capture_(capture),
      board_(folder + "/board", folder + "/board.log"),
      station_log_(folder + "/station.log") {
  fs::create_directory(folder_ + "/served");
  fs::create_directory(folder_ + "/unit");
}

std::optional<std::string> Run::play() {
  std::optional<std::string> wrong;
  try {
    for (const Step& step : scenario_.steps) {
      try {
        play_step(step);
      } catch (const Wrong& error) {
        throw Wrong("line " + std::to_string(step.line) + ", " + step.text + ": " + error.what());
      }
    }
    if (station_ && !station_end_) throw Wrong("the station still runs; expected a step that ends it");
  } catch (const NotAllowed&) {
    throw;
  } catch (const std::runtime_error& error) {
    wrong = error.what();
    timeline_.says("bench", "WRONG: " + *wrong);
  }
  write_summary(wrong);
  station_.reset();
  ppt_server_.reset();
  network_.reset();
  return wrong;
}

void Run::play_step(const Step& step) {
  static const std::map<std::string, void (Run::*)(const Step&)> kPlayers = {
      {"file", &Run::play_file_step},     {"wire", &Run::play_wire_step},
      {"ppt", &Run::play_ppt_step},       {"board", &Run::play_board_step},
      {"unit", &Run::play_unit_step},     {"station", &Run::play_station_step},
      {"bench", &Run::play_station_step},
  };
  look();
  (this->*kPlayers.at(step.text.substr(0, step.text.find_first_of(" \t"))))(step);
}

void Run::play_file_step(const Step& step) {
  const fs::path file = folder_ + "/served/" + step.text_of("NAME");
  if (step.act == Act::kFileHolds) {
    std::ofstream(file, std::ios::binary) << step.text_of("TEXT");
  } else {
    fill(file, static_cast<std::size_t>(step.bytes()));
  }
}

void Run::play_wire_step(const Step& step) {
  Network& wire = network();
  timeline_.says("wire", step.text.substr(step.text.find(' ') + 1));
  switch (step.act) {
    case Act::kWireLoses:
      return wire.orders("loses " + step.text_of("PERCENT"));
    case Act::kWireDuplicates:
      return wire.orders("duplicates " + step.text_of("PERCENT"));
    case Act::kWireSwaps:
      return wire.orders("swaps " + step.text_of("PERCENT"));
    case Act::kWireDelays:
      return wire.orders("delays " + step.text_of("MILLISECONDS"));
    case Act::kWireIsCut:
      return wire.orders("cuts " + step.text_of("SECONDS"));
    default:
      for (const char* damage : {"loses 0", "duplicates 0", "swaps 0", "delays 0"}) wire.orders(damage);
  }
}

void Run::play_ppt_step(const Step& step) {
  network();
  const auto expect = [&](const std::string& line) {
    if (!until(kPatienceSeconds, [&] { return ppt_server_said(line); }))
      throw Wrong("the PPT server has not " + line);
  };
  switch (step.act) {
    case Act::kPptAnswers:
      return order_ppt_server("answers");
    case Act::kPptIsSilent:
      return order_ppt_server("silent");
    case Act::kPptRefuses:
      return order_ppt_server("refuses");
    case Act::kPptAnswersError:
      return order_ppt_server("error " + step.text_of("CODE") + " " + step.text_of("TEXT"));
    case Act::kPptIsConnected:
      return expect("connected");
    case Act::kPptHears:
      return expect("heard " + step.text_of("NAME"));
    default:
      return expect("received " + step.text_of("TEXT"));
  }
}

void Run::play_board_step(const Step& step) {
  if (step.act == Act::kBoardLinkIsCalled) {
    station_link_ = step.text_of("NAME");
  } else if (step.act == Act::kBoardToolExits) {
    board_.tool_exits(static_cast<int>(step.number_of("STATUS")));
  } else if (step.act == Act::kBoardRanNothing) {
    const std::vector<std::string> calls = board_.calls();
    if (!calls.empty()) throw Wrong("the board ran " + calls.front());
  } else if (step.act == Act::kBoardRan) {
    const auto has_run = [&] {
      const std::vector<std::string> calls = board_.calls();
      return std::count(calls.begin(), calls.end(), step.text_of("TEXT")) != 0;
    };
    if (!until(kPatienceSeconds, has_run)) throw Wrong("the board did not");
  } else {
    const auto value = [&] { return board_.keeps(step.text_of("NAME")); };
    if (!until(kPatienceSeconds, [&] { return value() == step.text_of("TEXT"); }))
      throw Wrong("it keeps " + value());
  }
}

void Run::play_station_step(const Step& step) {
  switch (step.act) {
    case Act::kStationStarts:
      return start_station("");
    case Act::kStationStartsWith:
      return start_station(step.text_of("TEXT"));
    case Act::kStationExits:
      return expect_exit(step);
    case Act::kStationGets:
      timeline_.says("station", "gets " + step.text_of("SIGNAL"));
      return station_->signals(step.signal());
    case Act::kStationSays: {
      const auto has_said = [&] {
        return std::count(station_lines_.begin(), station_lines_.end(), step.text_of("TEXT")) != 0;
      };
      if (!until(kPatienceSeconds, has_said)) throw Wrong("the station did not");
      return;
    }
    default:
      until(step.number_of("SECONDS"), [] { return false; });
  }
}

void Run::start_station(const std::string& more_arguments) {
  network();
  std::vector<std::string> arguments = {programs_.station, "-o", kStationIp};
  for (const std::string& word : split(more_arguments)) arguments.push_back(word);
  station_command_ = "TFTP";
  for (std::size_t i = 1; i < arguments.size(); ++i) station_command_ += " " + arguments[i];
  timeline_.says("station", station_command_);
  station_ = std::make_unique<Process>(
      arguments,
      [this] {
        setenv("PATH", board_.path().c_str(), 1);
        fs::current_path(folder_ + "/served");
      },
      folder_ + "/errors");
  const auto serves_or_ended = [&] {
    return station_end_ || std::count(station_lines_.begin(), station_lines_.end(), kStationServes) != 0;
  };
  if (!until(kPatienceSeconds, serves_or_ended)) throw Wrong("the station does not serve");
}

void Run::expect_exit(const Step& step) {
  if (!station_) throw Wrong("it never started; expected \"station starts\" before");
  const double patience = step.number_of("SECONDS", kExitSeconds);
  if (!until(patience, [&] { return station_end_.has_value(); })) throw Wrong("the station still runs");
  timeline_.says("station", "ends with exit status " + std::to_string(*station_end_));
  if (*station_end_ != static_cast<int>(step.number_of("STATUS"))) {
    throw Wrong("its exit status is " + std::to_string(*station_end_));
  }
}

void Run::play_unit_step(const Step& step) {
  network();
  switch (step.act) {
    case Act::kUnitHears:
      return hear_script();
    case Act::kUnitHearsNothing:
      return hear_nothing(step.number_of("SECONDS"));
    case Act::kUnitObeys:
      return obey_script(script_, step);
    case Act::kUnitReads:
      return step.has("UNIT") ? read_until_death(step) : read(step.text_of("NAME"), step);
    case Act::kUnitBeginsReading:
      return begin_reading(step.text_of("NAME"), step);
    case Act::kUnitEndsReading:
      if (!ends_reading()) throw Wrong(reading_.name + " was not read");
      return;
    case Act::kUnitCannotRead:
      begin_reading(step.text_of("NAME"), step);
      if (ends_reading()) throw Wrong("it could");
      return;
    case Act::kUnitSends: {
      const auto unit = unit_does({"send", kStationIp, kRelayPort, step.text_of("TEXT")});
      timeline_.says("unit", "sends '" + step.text_of("TEXT") + "'");
      if (!finished(*unit)) throw Wrong("it could not");
      return;
    }
    default:
      ask(step);
  }
}

void Run::hear_script() {
  const auto unit = unit_does({"hear", kMessagePort, std::to_string(kPatienceSeconds)});
  if (!finished(*unit)) throw Wrong("the unit heard nothing");
  script_ = unit->rest();
  timeline_.says("unit", "hears a boot script of " + std::to_string(script_.size()) + " bytes:");
  std::istringstream lines(script_);
  for (std::string line; std::getline(lines, line);) {
    line.erase(std::remove_if(line.begin(), line.end(), [](char c) { return c == '\r' || c == '\0'; }),
               line.end());
    if (!line.empty()) timeline_.says("unit", "> " + line);
  }
}

void Run::hear_nothing(double seconds) {
  const auto unit = unit_does({"hear", kMessagePort, std::to_string(seconds)});
  if (finished(*unit)) throw Wrong("it heard " + unit->rest());
  timeline_.says("unit", "hears nothing");
}

// "tftp ADDRESS NAME" loads a file; "inst ADDRESS" obeys the script that was loaded there.
void Run::obey_script(const std::string& script, const Step& options) {
  std::map<std::string, std::string> loaded;
  std::istringstream lines(script);
  for (std::string line; std::getline(lines, line);) {
    const std::vector<std::string> words = split(line);
    if (words.size() == 3 && words[0] == "tftp") {
      read(words[2], options);
      loaded[words[1]] = words[2];
    } else if (words.size() == 2 && words[0] == "inst") {
      if (loaded.count(words[1]) == 0) throw Wrong("nothing was loaded to " + words[1]);
      timeline_.says("unit", "obeys " + loaded[words[1]]);
      obey_script(content(folder_ + "/unit/" + loaded[words[1]]), options);
    }
  }
}

void Run::read(const std::string& name, const Step& options) {
  const int tries = static_cast<int>(options.number_of("TRIES", 1));
  for (int attempt = 1; attempt <= tries; ++attempt) {
    begin_reading(name, options);
    if (ends_reading()) return;
  }
  throw Wrong(name + " was not read");
}

void Run::begin_reading(const std::string& name, const Step& options) {
  const auto option = [&](const char* word, const char* otherwise) {
    return options.has(word) ? options.text_of(word) : otherwise;
  };
  timeline_.says("unit", "reads " + name);
  reading_.name = name;
  reading_.since = epoch_seconds();
  reading_.unit = unit_does({"read", kStationIp, kTftpPort, name, folder_ + "/unit/" + name,
                             option("BLOCK", "512"), option("SECONDS", "5")});
}

// Whether the file has arrived. One that arrives otherwise than it is served is wrong whatever the step
// expects.
bool Run::ends_reading() {
  if (!reading_.unit) throw Wrong("nothing is read; expected \"unit begins reading\" before");
  double next_report = reading_.since + kProgressSeconds;
  const auto has_ended = [&] {
    report_progress(&next_report);
    return reading_.unit->ended().has_value();
  };
  const bool arrived = until(kTransferSeconds, has_ended) && reading_.unit->ended() == 0;
  if (arrived) {
    expect_whole();
  } else {
    timeline_.says("unit", "could not read " + reading_.name);
  }
  return arrived;
}

void Run::report_progress(double* next_report) {
  if (epoch_seconds() < *next_report) return;
  const std::string arrived = in_kib(size_of(folder_ + "/unit/" + reading_.name));
  const std::string served = in_kib(size_of(folder_ + "/served/" + reading_.name));
  timeline_.says("unit", "has " + arrived + " of " + served + " KiB of " + reading_.name);
  *next_report += kProgressSeconds;
}

// A verdict is answered by an empty file.
void Run::expect_whole() const {
  const std::string& name = reading_.name;
  const double seconds = epoch_seconds() - reading_.since;
  const std::string arrived = content(folder_ + "/unit/" + name);
  const std::string served = is_verdict(name) ? "" : content(folder_ + "/served/" + name);
  if (arrived != served) throw Wrong(name + " arrived, but not as it is served");
  const double bytes = static_cast<double>(arrived.size());
  const std::string rate =
      bytes < kBulkBytes ? "" : ", " + with_digits(bytes / seconds / kBulkBytes, 1) + " MiB/s";
  timeline_.says("unit", "has " + name + ", " + std::to_string(arrived.size()) + " bytes as served, in " +
                             with_digits(seconds, 3) + " s" + rate);
}

void Run::read_until_death(const Step& step) {
  begin_reading(step.text_of("NAME"), step);
  const auto has_enough = [&] { return size_of(folder_ + "/unit/" + reading_.name) >= step.bytes(); };
  const auto has_ended = [&] { return reading_.unit->ended().has_value(); };
  if (!until(kTransferSeconds, [&] { return has_enough() || has_ended(); }) || has_ended()) {
    throw Wrong("the transfer ended before");
  }
  reading_.unit->signals(SIGKILL);
  timeline_.says("unit", "dies");
}

void Run::ask(const Step& step) {
  const bool in_vain = step.act == Act::kUnitAsksInVain;
  const std::string question = step.text_of("TEXT");
  const std::string patience = std::to_string(in_vain ? kVainSeconds : kPatienceSeconds);
  timeline_.says("unit", "asks " + question);
  const auto unit = unit_does({"ask", kStationIp, kMessagePort, question, patience});
  const bool answered = finished(*unit);
  const std::string answer = unit->rest();
  timeline_.says("unit", answered ? "is told " + answer : "gets no answer");
  if (answered == in_vain || (answered && answer != step.text_of("REPLY"))) {
    throw Wrong(answered ? "it was told " + answer : "nobody answered");
  }
}

Network& Run::network() {
  if (!network_) {
    network_ = std::make_unique<Network>(programs_.wire, capture_, folder_ + "/fates", folder_ + "/errors",
                                         kSeed, station_link_);
    ppt_server_ = std::make_unique<Process>(
        std::vector<std::string>{programs_.ppt_server, kPptServerIp, kTftpPort, kMessagePort, kRelayPort},
        [this] { network_->ppt_server.enter(); }, folder_ + "/errors");
    if (!until(kPatienceSeconds, [&] { return ppt_server_said("ready"); })) throw Wrong("no PPT server");
  }
  return *network_;
}

void Run::order_ppt_server(const std::string& order) {
  timeline_.says("ppt", order);
  ppt_lines_.erase(std::remove(ppt_lines_.begin(), ppt_lines_.end(), "ok"), ppt_lines_.end());
  ppt_server_->says(order);
  if (!until(kPatienceSeconds, [&] { return ppt_server_said("ok"); }))
    throw Wrong("the PPT server does not obey");
}

std::unique_ptr<Process> Run::unit_does(const std::vector<std::string>& arguments) {
  std::vector<std::string> command = {programs_.unit};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return std::make_unique<Process>(
      command, [this] { network_->unit.enter(); }, folder_ + "/errors");
}

bool Run::finished(Process& process) {
  return until(kTransferSeconds, [&] { return process.ended().has_value(); }) && process.ended() == 0;
}

void Run::look() {
  std::array<pollfd, 2> outputs = {{{station_ ? station_->output() : -1, POLLIN, 0},
                                    {ppt_server_ ? ppt_server_->output() : -1, POLLIN, 0}}};
  if (poll(outputs.data(), outputs.size(), kMilliseconds) > 0 && (outputs[0].revents & POLLHUP) != 0) {
    usleep(kMilliseconds * 1000);  // an output that has ended is always ready
  }
  if (station_ && !station_end_) {
    station_end_ = station_->ended();
    while (const auto line = station_->next_line()) take_station_line(*line);
  }
  while (ppt_server_) {
    const auto line = ppt_server_->next_line();
    if (!line) break;
    ppt_lines_.push_back(*line);
    if (*line != "ok" && *line != "ready") timeline_.says("ppt", *line);
  }
  const std::vector<std::string> calls = board_.calls();
  for (; board_calls_shown_ < calls.size(); ++board_calls_shown_) {
    timeline_.says("board", "runs " + calls[board_calls_shown_]);
  }
}

void Run::take_station_line(const std::string& line) {
  station_log_ << in_log_form(epoch_seconds()) << ' ' << line << std::endl;
  station_lines_.push_back(line);
  timeline_.says("station", "| " + line);
}

template <typename Condition>
bool Run::until(double seconds, const Condition& is_so) {
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
          << "name " << fs::path(folder_).filename().string() << '\n'
          << "start " << in_log_form(timeline_.start()) << '\n'
          << "end " << in_log_form(epoch_seconds()) << '\n'
          << "command " << station_command_ << '\n'
          << "ppt_flag " << board_.keeps("ppt_flag") << '\n'
          << "judged " << wrong.value_or("as the scenario says") << '\n';
  if (station_end_) summary << "status " << *station_end_ << '\n';
}
