#ifndef BENCH_MAKER_H
#define BENCH_MAKER_H

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "bench/chance.h"

// Writes a scenario down, step by step, and keeps in mind what is true by then. What can happen is in
// reading_acts.cpp, whatever has to do with files and the wire, and in verdict_acts.cpp.
class Maker {
 public:
  explicit Maker(std::uint64_t seed) : seed_(seed), chance_(seed) {}
  std::string scenario();

 private:
  // Something that can be in a run: words for the title, and how often it is drawn where it is possible.
  struct Act {
    int weight;
    const char* words;
    bool (Maker::*is_possible)() const;
    void (Maker::*happen)();
  };
  struct Ending {
    int weight;
    void (Maker::*happen)();
  };
  static const std::vector<Act> kActs;
  static const std::vector<Ending> kEndings;
  // What can be to blame for a failure or for a run without an end; of several, the first.
  enum class Problem {
    kTool,
    kTooEarly,
    kMissingFile,
    kWrongRead,
    kGivenUp,
    kDeath,
    kFailure,
    kPpt,
    kMac,
    kEmptyFile,
    kNone
  };
  enum class Ppt { kAnswers, kAnswersError, kAnswersNothing, kSilent, kRefusesVerdicts, kRefuses };

  struct File {
    std::string name;
    int bytes;
  };
  struct ErrorText {
    int code;
    const char* sent;     // by the PPT server
    const char* printed;  // by the station
  };

  static std::string number(long value) { return std::to_string(value); }
  static std::string quoted(const std::string& text) { return '"' + text + '"'; }
  void say(const std::string& step) { steps_ += step + "\n"; }
  void say_of_station(const std::string& line) { say("station says " + quoted(line)); }

  void prepare_files();
  void prepare_board();
  void start();
  void start_in_vain();
  void act();

  // When it can.
  bool always() const { return true; }
  bool script_is_sent() const { return link_is_right_ && verdicts_ == 0; }
  bool loses_nothing() const { return loss_ == 0; }
  // A request that comes twice is served twice. Where then an ACK is lost, each of the two transfers sends its
  // block before the unit's time is up, the unit never repeats its ACK, and all three give up after minutes.
  bool neither_loses_nor_duplicates() const { return loss_ + duplication_ == 0; }
  bool is_passed_on_at_once() const { return ppt_ == Ppt::kAnswers && neither_loses_nor_duplicates(); }
  bool swaps_nothing() const { return swapping_ == 0; }
  bool delays_nothing() const { return delay_ == 0; }
  bool serves_commands() const { return commands_are_served_; }
  bool unit_is_known() const { return unit_was_heard_ && loss_ == 0; }
  bool serves_no_commands() const { return !commands_are_served_; }

  // What can happen (kActs), and the parts that these have in common.
  void boot();
  void hear_again();
  void read_file();
  void read_file(const File& file);
  void read_missing_file();
  void give_up_reading();
  void read_wrongly();
  void write_file();
  void send_stray();
  void be_like_a_loader();
  void begin_reading(const File& file);
  void begin_long_reading();
  void read_beside_commands();
  void die_and_come_back();
  void pull_the_cable();
  void lose();
  void lose_block();
  void lose_answer();
  void duplicate();
  void swap();
  void delay();
  void delay_by(int milliseconds);
  void mend_wire();
  void change_ppt();
  void pass_step() { give_verdict(verdict_name("_PASSED")); }
  void fail_step() { give_verdict(verdict_name("_TEST_FAILED")); }
  void lose_on_the_way_to_ppt();
  void hear_no_more();
  void ask_mac();
  void change_tool();
  void ask_pmc();
  void ask_echo();
  void ask_in_vain();
  void break_off();
  void hold_on();
  void run_tool();
  void relay();

  // How a run can end (kEndings).
  void end_passed() { give_final_verdict(verdict_name("_PPT_PASSED")); }
  void end_failed() { give_final_verdict(verdict_name("_PPT_FAILED")); }
  void end_with_both() { give_final_verdict(verdict_name("_PPT_PASSED_PPT_FAILED")); }
  void end_passed_after_all() { give_final_verdict(verdict_name("_TEST_FAILED_PPT_PASSED")); }
  void end_by_interrupt() { end_by("SIGINT", 2); }
  void end_by_termination() { end_by("SIGTERM", 15); }
  void end_by_kill();
  void end_by_short_verdict();
  void end_by_hanging_tool();
  void end_by_leaving();
  void end_by_abort();

  // For a step that passes, fails, or is the last: the name; what the unit does; what follows.
  std::string verdict_name(const std::string& outcome);
  void give_verdict(const std::string& name);
  void expect_of_verdict(const std::string& name);
  void expect_of_first_verdict();
  void give_final_verdict(const std::string& name);
  void end_by(const std::string& signal, int status);
  void wait_for_ppt();
  void expect_shut_down();

  // Whose fault it will be.
  void meet(Problem problem);
  void succeed();
  void succeed_in_reading(const File& file);
  void note_verdict(bool has_failed);
  static std::string owner_of(Problem problem);
  std::string owner_in_step() const {
    return owner_of(in_step_.empty() ? Problem::kNone : *in_step_.begin());
  }
  std::string owner_of_end() const;
  void expect_of_board();
  void mark();
  void calm_wire_for_verdict();
  bool forwarding_takes_time() const {
    return ppt_ == Ppt::kSilent || ppt_ == Ppt::kRefusesVerdicts || ppt_ == Ppt::kRefuses;
  }

  // Which file the unit can read in a short time, and how, as the wire is now.
  bool is_readable(const File& file) const { return file.bytes <= most_blocks() * largest_block(); }
  const File& readable_file();
  int most_blocks() const;
  int largest_block() const;
  int block_for(const File& file);
  int drawn_block(const File& file);
  std::string options_for(const File& file);
  // A request that is lost is asked again; a read that has begun comes to its end in the time of a few losses.
  std::string tries() const { return loss_ > 0 ? " tries 9 within 40 s" : ""; }

  const std::uint64_t seed_;
  Chance chance_;
  std::string steps_;
  std::string title_;
  int seconds_ = 0;  // that the run has waited

  // What is true by now.
  std::vector<File> files_;
  bool link_is_right_ = true;
  Ppt ppt_ = Ppt::kAnswers;
  const ErrorText* error_ = nullptr;               // of the PPT server
  int loss_ = 0, duplication_ = 0, swapping_ = 0;  // percent
  int delay_ = 0;                                  // milliseconds
  int tftp_port_ = 69;
  int message_port_ = 12345;
  std::string ppt_ip_ = "172.30.0.254";
  std::string mac_;  // that the unit is told
  int tool_status_ = 1;
  int verdicts_ = 0;
  std::set<std::string> names_;  // of these
  bool commands_are_served_ = false;
  bool voice_has_started_ = false;
  bool board_was_called_ = false;
  bool is_marked_failed_ = false;
  int datagrams_ = 0;
  int written_files_ = 0;
  bool has_envtool_ = true;
  bool script_reads_more_ = false;
  bool unit_was_heard_ = false;
  std::set<Problem> in_step_;                 // since the verdict before
  Problem since_success_ = Problem::kNone;    // of the unit
  std::string fault_;                         // whose it is
  std::string first_failure_, last_failure_;  // whose fault these were
};

#endif
