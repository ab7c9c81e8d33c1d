// What a scenario's steps do with the files, the wire, the PPT server, the board and the station.
#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <sstream>

#include "bench/run.h"

namespace {

namespace fs = std::filesystem;

constexpr double kExitSeconds = 20;  // for the station to end
constexpr int kSeed = 1;             // of the files' bytes
constexpr char kStationServes[] = "Server started , waiting for connections";

void fill(std::ostream& out, std::size_t bytes) {
  std::mt19937 random(kSeed);
  for (std::size_t i = 0; i < bytes; ++i) out.put(static_cast<char>(random() & 0xFF));
}

}  // namespace

void Run::play_file_step(const Step& step) {
  const std::string& name = step.text_of("NAME");
  if (name.find('/') != std::string::npos) throw Wrong("it would be elsewhere; expected a plain name");
  std::ofstream out(served(name), std::ios::binary);
  if (step.act == Act::kFileHolds) {
    out << step.text_of("TEXT");
  } else {
    fill(out, static_cast<std::size_t>(step.bytes()));
  }
  if (!out.flush()) throw Wrong("it cannot be written; expected a plain name");
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
    if (network_) throw Wrong("the link is there already; expected this step before anything starts");
    station_link_ = step.text_of("NAME");
  } else if (step.act == Act::kBoardToolExits) {
    board_.ends_with(Board::kT1E1, static_cast<int>(step.number_of("STATUS")));
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
    const auto value = [&] { return board_.variable(step.text_of("NAME")); };
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
      expect_started();
      timeline_.says("station", "gets " + step.text_of("SIGNAL"));
      return station_->send_signal(step.signal());
    default:
      return expect_line(step.text_of("TEXT"));
  }
}

void Run::expect_line(const std::string& line) {
  const auto has_said = [&] { return std::count(station_lines_.begin(), station_lines_.end(), line) != 0; };
  if (!until(kPatienceSeconds, has_said)) throw Wrong("the station did not");
}

void Run::start_station(const std::string& more_arguments) {
  network();
  if (station_) throw Wrong("it has started already");
  std::vector<std::string> arguments = {programs_.station, "-o", kStationIp};
  std::istringstream words(more_arguments);
  for (std::string word; words >> word;) arguments.push_back(word);
  station_command_ = "TFTP";
  for (std::size_t i = 1; i < arguments.size(); ++i) station_command_ += " " + arguments[i];
  timeline_.says("station", station_command_);
  station_ = std::make_unique<Process>(arguments, [this] {
    setenv("PATH", board_.path().c_str(), 1);
    fs::current_path(folder_ + "/served");
    append_errors_to(folder_ + "/errors");
  });
  const auto serves_or_ended = [&] {
    return station_end_ || std::count(station_lines_.begin(), station_lines_.end(), kStationServes) != 0;
  };
  if (!until(kPatienceSeconds, serves_or_ended)) throw Wrong("the station does not serve");
}

void Run::expect_started() const {
  if (!station_) throw Wrong("it never started; expected \"station starts\" before");
}

void Run::expect_exit(const Step& step) {
  expect_started();
  const double patience = step.number_of("SECONDS", kExitSeconds);
  if (!until(patience, [&] { return station_end_.has_value(); })) throw Wrong("the station still runs");
  if (*station_end_ != static_cast<int>(step.number_of("STATUS"))) {
    throw Wrong("its exit status is " + std::to_string(*station_end_));
  }
}

void Run::order_ppt_server(const std::string& order) {
  if (order.find('\n') != std::string::npos)
    throw Wrong("it is told by the line; expected a text of one line");
  timeline_.says("ppt", order);
  ppt_lines_.erase(std::remove(ppt_lines_.begin(), ppt_lines_.end(), "ok"), ppt_lines_.end());
  ppt_server_->write_line(order);
  if (!until(kPatienceSeconds, [&] { return ppt_server_said("ok"); }))
    throw Wrong("the PPT server does not obey");
}
