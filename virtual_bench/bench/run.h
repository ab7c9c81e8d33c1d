#ifndef BENCH_RUN_H
#define BENCH_RUN_H

#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/network.h"
#include "bench/scenario.h"
#include "bench/timeline.h"
#include "stage/board.h"
#include "stage/process.h"

// The programs that take part.
struct Programs {
  std::string station;  // the daemon, unmodified
  std::string unit;
  std::string ppt_server;
  std::string wire;
};

// One run: plays a scenario's steps one after another, and prints meanwhile what station, board and PPT
// server do.
//
// What it leaves in its folder; times in seconds since the epoch:
//   - run: the run as a whole, "KEY VALUE"
//   - station.log: "SECONDS LINE" of the station's output
//   - board.log: "SECONDS COMMAND", each call of a board command
//   - fates: what the wire did to which frame
//   - errors: what the programs said on standard error
//   - served/, unit/: the files that the station serves, those that the unit read
//   - board/: the board's state
class Run {
 public:
  // name: the run's. folder: exists and is empty. capture: the file that the wire records into. The calling
  // process has become the station.
  Run(const Scenario& scenario, const Programs& programs, const std::string& name, const std::string& folder,
      const std::string& capture);

  // Nothing when all went as the scenario says, else what did not. The run's processes have ended then.
  // Throws NotAllowed where this machine gives no network.
  std::optional<std::string> play();

 private:
  static constexpr double kPatienceSeconds = 10;  // for what is to happen at once
  static constexpr char kTftpPort[] = "69";
  static constexpr char kMessagePort[] = "12345";
  static constexpr char kRelayPort[] = "12345";

  struct Wrong : std::runtime_error {
    using std::runtime_error::runtime_error;
  };

  // A file on its way to the unit.
  struct Reading {
    std::string name;
    double since;
    std::unique_ptr<Process> unit;  // until it has ended
  };

  void play_step(const Step& step);
  std::string served(const std::string& name) const;
  std::string local(const std::string& name) const;
  void play_file_step(const Step& step);
  void play_wire_step(const Step& step);
  void play_ppt_step(const Step& step);
  void play_board_step(const Step& step);
  void play_station_step(const Step& step);
  void play_unit_step(const Step& step);

  void wait(const Step& step);
  void expect_started() const;
  void expect_line(const std::string& line);
  void start_station(const std::string& more_arguments);
  void expect_exit(const Step& step);
  void hear_script();
  void hear_nothing(double seconds);
  // depth: 0 for the script that was heard, 1 for the ones that it obeys, and so on.
  void obey_script(const std::string& script, const Step& options, int depth);
  void read(const std::string& name, const Step& options);
  void begin_reading(const std::string& name, const Step& options);
  bool ends_reading();
  void read_until_death(const Step& step);
  void expect_whole() const;
  void ask(const Step& step);

  // The network and what lives on it, made when the first step needs it.
  Network& network();
  void order_ppt_server(const std::string& order);
  std::unique_ptr<Process> unit_does(const std::vector<std::string>& arguments);
  // Waits for the unit's program to end. Whether it ended well.
  bool finished(Process& process);
  void report_progress(double* next_report);

  // Waits a moment for output and prints what is new. until: the same until is_so() holds, for at most so
  // many seconds; whether it held.
  void look();
  void take_station_line(const std::string& line);
  void end_station_output();
  bool until(double seconds, const std::function<bool()>& is_so);
  bool ppt_server_said(const std::string& line) const;
  void write_summary(const std::optional<std::string>& wrong) const;

  const Scenario scenario_;
  const Programs programs_;
  const std::string name_;
  const std::string folder_;
  const std::string capture_;
  const Timeline timeline_;
  const Board board_;
  std::ofstream station_log_;
  std::string station_link_ = "lan0";
  std::unique_ptr<Network> network_;
  std::unique_ptr<Process> ppt_server_;
  std::unique_ptr<Process> station_;
  std::string station_command_;
  std::vector<std::string> station_lines_;
  std::optional<int> station_end_;
  std::vector<std::string> ppt_lines_;
  std::size_t board_calls_shown_ = 0;
  std::string script_;  // as the unit heard it
  Reading reading_;     // the last one
};

#endif
