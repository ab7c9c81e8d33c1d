#ifndef BENCH_RUN_H
#define BENCH_RUN_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/live_record.h"
#include "bench/network.h"
#include "bench/scenario.h"
#include "bench/station_options.h"
#include "bench/timeline.h"
#include "explanation/explanation.h"
#include "ppt_server/ppt_server.h"
#include "record/item.h"
#include "stage/board.h"
#include "stage/process.h"
#include "unit/unit.h"

// Why what a step says did not happen.
struct StepFailed : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct ReadOptions {
  std::optional<int> block_size;       // bytes
  std::optional<int> timeout_seconds;  // of the option
  std::optional<ReadRequest::Patience> patience;
  int tries = 1;
  double longest_seconds = 150;      // that one try may take
  std::optional<double> dies_after;  // bytes
};

// One run: plays a scenario's steps one after another, and prints meanwhile what station, board and PPT
// server do.
//
// Its folder holds the files that the station serves and that the unit read, the board's state, and what the
// wire records.
class Run {
 public:
  static constexpr double kExitSeconds = 20;  // for the station to end, if nothing else is said

  // station: the daemon's program, unmodified. folder: exists and is empty. The calling process has mounts,
  // network and process numbers of its own.
  Run(const Scenario& scenario, const std::string& station, const std::string& folder);

  // Nothing when all went as the scenario says, else what did not. The run's processes have ended then.
  // Throws NotAllowed where this machine gives no network.
  std::optional<std::string> play();

  // After play: the file with what the wire carried (wire_record.h); there is none where nothing made a link.
  std::string wire_record() const { return folder_ + "/wire.pcapng"; }
  // After play: all that is known of the run besides frames, as entries of its record. judged: whether it went as it
  // was to go.
  std::vector<record::Entry> entries(const std::string& name, const std::string& judged) const;
  // After play: what the explanation of the run says otherwise than the scenario; nothing where it says the same.
  std::optional<std::string> wrong_in(const explanation::Explanation& told) const;
  // After play: "the unit PASSED", "the unit FAILED" or "the unit gave no final verdict".
  std::string verdict() const;

  // What the steps do: each throws StepFailed when what it waits for does not happen.
  void serve_text(const std::string& name, const std::string& text) const;
  // from: a file, seen from the scenario's folder.
  void serve_file(const std::string& name, const std::string& from) const;
  void serve_random_bytes(const std::string& name, double size) const;
  // Follows all the orders; the step is printed.
  void order_wire(const Step& step, std::vector<Order> orders);
  PptServer& ppt_server(const Step& step);
  void expect_of_ppt(const PptServer::Event& event);
  void expect_ppt_not_to_have_heard(const std::string& name);
  void seed_wire(std::uint64_t seed);
  void name_link(const std::string& name);
  void move_station(const std::string& address);
  void take_broadcast_address();
  void take_link_down();
  Network& network_of_ppt(const Step& step);
  void set_variable(const std::string& name, const std::string& value) const;
  void set_tool_status(int status) const;
  void hold_tool() const;
  void release_tool() const;
  void remove_tool(const std::string& name) const;
  // kind: SOCK_DGRAM for UDP, SOCK_STREAM for TCP
  void take_port(int kind, int port);
  // For the station that is started after this.
  void take_right(int capability);
  void limit_descriptors(int most);
  void expect_no_call() const;
  void expect_call(const std::string& command);
  void expect_variable(const std::string& name, const std::string& value);
  void start_station(const std::string& more_arguments);
  void expect_line(const std::string& line);
  void signal_station(const std::string& name, int number) const;
  // status: as a shell counts it, 128 plus the number of a signal.
  void expect_exit(int status, double seconds);
  void hear_script();
  void hear_nothing(double seconds);
  void obey_heard_script(const ReadOptions& options);
  void read(const std::string& name, const ReadOptions& options);
  void read_until_death(const std::string& name, const ReadOptions& options);
  void fail_to_read(const std::string& name, const ReadOptions& options);
  void begin_reading(const std::string& name, const ReadOptions& options);
  void expect_read(double bytes);
  void end_reading();
  void fail_to_end_reading();
  void ask(const std::string& question, const std::string& reply, bool holds = false);
  void ask_in_vain(const std::string& question);
  void ask_and_leave(const std::string& question, Unit::Leaves leaves);
  void ask_on(const std::string& question, const std::string& reply);
  void hang_up();
  void take_habit(const std::string& name);
  void crash();
  void boot_again();
  // blocks: how many it takes before.
  void give_up(const std::string& name, int block_size, int blocks);
  void expect_refusal(const std::string& name, const std::string& mode);
  void repeat(const std::string& name, int times);
  void write(const std::string& name);
  void send(const std::string& text, int port = PptServer::kRelayPort);
  void wait(double seconds);
  // cause: empty: whatever it is.
  void expect_fault(const std::string& owner, const std::string& cause);
  void expect_also(const std::string& cause) { also_.push_back(cause); }

 private:
  struct TimedLine {
    std::int64_t at = 0;  // microseconds since the epoch
    std::string text;
  };
  // Who lives on the network, made when the first step needs it.
  struct Neighbours {
    explicit Neighbours(Run& run);
    Network network;
    PptServer ppt_server;
    std::list<Unit> units;
  };
  // What a unit has in hand.
  struct UnitState {
    const scenario::Habit* habit = std::begin(scenario::kHabits);
    bool has_crashed = false;
    std::string script;                // as it heard it
    std::unique_ptr<Reading> reading;  // that goes on
    std::string reading_name;          // of the last one
    std::int64_t reading_since = 0;    // in microseconds since the epoch
  };
  Neighbours& neighbours();
  // Of the present step.
  std::string who() const { return name_of_unit(unit_); }
  Unit& unit();
  UnitState& state() { return unit_states_[unit_]; }
  const UnitState& state() const { return unit_states_[unit_]; }

  void play_step(const Step& step);
  std::string said_wrong(const std::string& wrong) const;
  std::string served(const std::string& name) const;
  std::string local(const std::string& name) const;
  bool serves() const;
  bool has_said(const std::string& line) const;
  bool has_happened(const PptServer::Event& event) const;
  void expect_started() const;
  void expect_reading() const;
  void expect_no_network_yet() const;
  // depth: 0 for the script that was heard, 1 for the ones that it obeys, and so on.
  void obey_script(const std::string& script, const ReadOptions& options, int depth);
  Unit::Answer answer_to(const std::string& question, double seconds, std::size_t longest, bool holds);
  // Why the file has not arrived; nothing when it has. Throws StepFailed when that takes longer.
  std::optional<std::string> failure_of_reading(double seconds = ReadOptions().longest_seconds);
  void report_progress(std::int64_t* next_report) const;
  void expect_whole() const;

  // The file in the run's folder that the station's standard error goes to.
  static constexpr char kErrors[] = "/errors";

  // Waits a moment for output and prints what is new. until: the same until the condition holds, for at most
  // so many seconds; whether it held.
  void look();
  bool until(double seconds, const std::function<bool()>& condition);
  void take_station_line(const std::string& line);
  void take_station_errors();
  void take_station_end();
  void take_ppt_event(const PptServer::Event& event);

  const Scenario scenario_;
  const std::string station_program_;
  const std::string folder_;
  const Timeline timeline_;
  LiveRecord live_;
  const Board board_;
  std::uint64_t wire_seed_ = 1;
  Network::Link station_link_;
  std::vector<int> rights_taken_;  // capabilities
  int most_descriptors_ = 0;       // 0: as many as this process may have
  std::unique_ptr<Neighbours> neighbours_;
  std::unique_ptr<Process> station_;
  std::string station_command_;
  StationOptions station_options_;
  std::vector<TimedLine> station_lines_;
  std::streamoff errors_read_ = 0;
  std::optional<ProcessEnd> station_end_;
  std::int64_t station_ended_ = 0;  // in microseconds since the epoch
  std::int64_t end_ = 0;            // of the run, in microseconds since the epoch
  std::vector<PptServer::Event> ppt_events_;
  std::size_t board_calls_shown_ = 0;
  std::size_t unit_ = 0;  // that the present step is about
  std::array<UnitState, 1 + kFurtherUnits.size()> unit_states_;
  std::string fault_owner_, fault_cause_;  // that are expected; empty: any
  std::vector<std::string> also_;          // causes that are expected besides
  std::vector<std::unique_ptr<TakenPort>> taken_ports_;
};

#endif
