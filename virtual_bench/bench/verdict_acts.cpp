// What a made scenario has of verdicts, the PPT server, commands and datagrams, and how it ends.
#include <cstdio>

#include "bench/maker.h"

namespace {

constexpr int kForwardingSeconds = 5;  // that a verdict costs where the PPT server is silent
constexpr char kFirstVerdict[] = "F_l_m_t_Bootstrap_loading";
constexpr char kEmptyMac[] = "00:00:00:00:00:02";  // without a tempmac
constexpr char kTag[] = "CPU_2_";
constexpr std::size_t kTagAt = 8;
constexpr const char* kTestNames[] = {"MEMORY", "FLASH", "LINE 1", "E1", "a", "Temperature_at_70"};

std::string tagged(std::string verdict) {
  return verdict.insert(kTagAt, kTag);
}

bool holds(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

}  // namespace

// A verdict stands in the boot script, between the two files.
void Maker::boot() {
  say("unit hears the boot script");
  calm_wire_for_verdict();
  // The second file is asked for while the station may still wait for the PPT server.
  say("unit obeys the boot script" + (forwarding_takes_time() ? " tries 3" : tries()));
  say_of_station("RRQ bootscript.txt");
  expect_of_verdict(kFirstVerdict);
  if (script_reads_more_) succeed_in_reading(files_[1]);
}

void Maker::change_ppt() {
  static constexpr ErrorText kErrors[] = {{0, "the disk is full", "the disk is full"},
                                          {0, "", ""},
                                          {1, "no", "File not found"},
                                          {2, "", "Access violation"},
                                          {3, "no room", "Disk full or allocation exceeded"},
                                          {4, "", "Illegal TFTP operation"},
                                          {5, "who", "Unknown transfer ID"},
                                          {6, "", "File already exists"},
                                          {7, "you", "No such user"},
                                          {8, "", "Not defined"},
                                          {65535, "what", "Not defined"}};
  switch (chance_.between(1, 9)) {
    case 1:
      ppt_ = Ppt::kSilent;
      return say(chance_.one_in(2) ? "ppt is silent" : "ppt answers after 6 s");
    case 2:
      ppt_ = Ppt::kRefuses;
      return say("ppt refuses");
    case 3:
    case 4:
      ppt_ = Ppt::kAnswers;
      return say("ppt answers");
    case 5:
      ppt_ = Ppt::kRefusesVerdicts;
      return say("ppt refuses verdicts");
    case 6:
      ppt_ = Ppt::kAnswersNothing;
      return say("ppt answers nothing");
    default:
      ppt_ = Ppt::kAnswersError;
      error_ = &chance_.one_of(kErrors);
      return say("ppt answers ERROR " + number(error_->code) + " " + quoted(error_->sent));
  }
}

// One that was not given before.
std::string Maker::verdict_name(const std::string& outcome) {
  constexpr std::size_t kLongest = 200;  // characters, of a name that is also a file's
  std::string name;
  do {
    char step[3];
    std::snprintf(step, sizeof step, "%02d", chance_.between(0, 99));
    std::string test = chance_.one_of(kTestNames);
    if (chance_.one_in(20)) test.resize(kLongest, 'x');
    name = std::string("F_l_m_") + step + test + outcome;
  } while (!names_.insert(name).second);
  return name;
}

// A verdict that comes twice, or whose answer is lost, holds the station up twice as long: the unit, which
// asks again after five seconds, would then be answered too late each time.
void Maker::calm_wire_for_verdict() {
  if (forwarding_takes_time() && loss_ + duplication_ > 0) mend_wire();
}

void Maker::give_verdict(const std::string& name) {
  calm_wire_for_verdict();
  say("unit reads " + quoted(name) + tries());
  expect_of_verdict(name);
}

// The station waits for it as it does for one that is silent.
void Maker::lose_on_the_way_to_ppt() {
  const std::string name = verdict_name("_PASSED");
  say("ppt wire loses the answer to " + quoted(tagged(name)));
  give_verdict(name);
  say("bench waits " + number(kForwardingSeconds + 1) + " s");
  seconds_ += kForwardingSeconds;
}

void Maker::expect_of_verdict(const std::string& name) {
  say_of_station("Cmd received: " + name);
  if (holds(name, "TEST_FAILED")) {
    mark();
  }
  note_verdict(holds(name, "TEST_FAILED"));
  if (forwarding_takes_time()) meet(Problem::kPpt);
  const bool is_deaf = ppt_ == Ppt::kRefuses || ppt_ == Ppt::kRefusesVerdicts;
  say((is_deaf ? "ppt has not heard " : "ppt hears ") + quoted(tagged(name)));
  if (ppt_ == Ppt::kAnswersNothing) say_of_station("Connection was closed by server");
  if (ppt_ == Ppt::kAnswersError) {
    say_of_station("Error! Error code: " + number(error_->code));
    say_of_station(std::string("Error message: ") + error_->printed);
  }
  const bool is_first = verdicts_++ == 0;
  if (is_first) expect_of_first_verdict();
  if (!is_first && !commands_are_served_) say_of_station("ERROR on binding. Address already in use");
  if (!forwarding_takes_time()) return;
  seconds_ += kForwardingSeconds;
  // The unit waits five seconds for an answer, too: it goes on when three of the station's have passed.
  if (!is_first) say("bench waits 3 s");
}

void Maker::expect_of_first_verdict() {
  const std::string there = ppt_ip_ + ":" + number(message_port_);
  commands_are_served_ = ppt_ != Ppt::kRefuses;
  if (commands_are_served_) {
    say("ppt is connected");
    say_of_station("Message receiver initialized. IP: " + ppt_ip_ + " Port=" + number(message_port_));
  } else {
    say_of_station("ERROR on connect() to " + there + ". Connection refused");
    say_of_station("Error: Failed to initialize receiver");
  }
  if (link_is_right_) say_of_station("Sender proc stopped!!!");
}

void Maker::hear_no_more() {
  say("unit hears nothing for 2 s");
  seconds_ += 2;
}

void Maker::ask_mac() {
  const std::string around = chance_.one_in(5) ? "please " : "";
  say("unit asks " + quoted(around + "ZIRN_ASKS_FOR_HIS_MAC") + " expects " + mac_);
  say_of_station("Assigned MAC is " + mac_);
  succeed();
  if (!has_envtool_ || mac_ == kEmptyMac) meet(Problem::kMac);
  if (!has_envtool_) return;
  say("board ran \"envtool show tempmac\"");
  board_was_called_ = true;
}

void Maker::change_tool() {
  constexpr int kStatuses[] = {0, 0, 1, 2, 255};
  tool_status_ = chance_.one_of(kStatuses);
  say("board tool exits " + number(tool_status_));
}

void Maker::ask_pmc() {
  std::string question = "DO_PMC_INIT";
  int mode = 0;
  if (!chance_.one_in(6)) {
    const int asked = chance_.between(-300, 600);
    mode = asked & 0xFF;
    question += ":" + number(asked) + (chance_.one_in(4) ? ":5" : "");
  }
  say("unit asks " + question + " expects " + (tool_status_ == 0 ? "FAIL" : "READY"));
  succeed();
  if (tool_status_ == 0) meet(Problem::kTool);
  if (holds(question, ":")) say_of_station("Mode detected: " + number(mode));
  if (!voice_has_started_) {
    say("board ran \"/etc/init.d/voice stop\"");
    say("board ran \"/etc/init.d/voice start_ppt\"");
  }
  say("board ran \"/mnt/ramdisk/t1-e1 " + number(mode) + " -1\"");
  voice_has_started_ = board_was_called_ = true;
}

void Maker::ask_echo() {
  constexpr const char* kTexts[] = {"hello", "DO_PMC", "ZIRN_ASKS_FOR_HIS_", "one two  three", ":"};
  const std::string text = chance_.one_of(kTexts);
  say("unit asks " + quoted(text) + " expects " + quoted(text));
  succeed();
}

void Maker::ask_in_vain() {
  say("unit asks ZIRN_ASKS_FOR_HIS_MAC in vain");
  meet(verdicts_ == 0 ? Problem::kTooEarly : Problem::kPpt);
  seconds_ += 3;
}

// A first one starts the voice service.
void Maker::run_tool() {
  say_of_station("Mode detected: 1");
  voice_has_started_ = board_was_called_ = true;
}

void Maker::break_off() {
  mend_wire();
  say("board tool hangs");
  say("unit asks DO_PMC_INIT:1 and breaks off");
  run_tool();
  say("board tool goes on");
  say_of_station("ERROR on send. ");
}

void Maker::hold_on() {
  say("unit asks hello expects hello and holds on");
  if (chance_.one_in(2)) say("unit asks on \"hello again\" expects \"hello again\"");
  succeed();
  say("unit hangs up");
}

void Maker::relay() {
  // The relay does not say when it has begun.
  if (datagrams_ == 0 && verdicts_ == 0) say("bench waits 0.5 s");
  const std::string text = "line " + number(++datagrams_) + " is up";
  say("unit sends " + quoted(text));
  succeed();
  if (ppt_ != Ppt::kRefuses) say("ppt receives " + quoted(text));
}

// A final verdict whose answer is lost cannot be asked again: the station has ended.
void Maker::give_final_verdict(const std::string& name) {
  if (loss_ > 0) mend_wire();
  say("unit reads " + quoted(name));
  say("station exits 2");
  say_of_station("Cmd received: " + name);
  expect_shut_down();
  say("ppt has not heard " + quoted(name));
  say("ppt has not heard " + quoted(tagged(name)));
  if (holds(name, "PPT_FAILED")) {
    mark();
  }
  const bool has_failed = holds(name, "PPT_FAILED");
  note_verdict(has_failed || holds(name, "TEST_FAILED"));
  fault_ = has_failed ? first_failure_ : "none";
}

void Maker::mark() {
  if (!has_envtool_) return;
  is_marked_failed_ = board_was_called_ = true;
  say("board ran \"envtool ppt_flag=failed\"");
}

void Maker::end_by(const std::string& signal, int status) {
  fault_ = owner_of_end();
  wait_for_ppt();
  say("station gets " + signal);
  say("station exits " + number(status));
  expect_shut_down();
}

// That it was silent shows when the station has given it up.
void Maker::wait_for_ppt() {
  if (since_success_ == Problem::kPpt) say("bench waits 3 s");
}

void Maker::end_by_kill() {
  if (fault_.empty()) fault_ = owner_of_end();
  wait_for_ppt();
  say("station gets SIGKILL");
  say("station exits 137");
}

void Maker::end_by_short_verdict() {
  if (loss_ > 0) mend_wire();
  fault_ = "unit";
  say("unit reads F_l_m_1");
  say("station exits 134");
  say_of_station("Cmd received: F_l_m_1");
}

void Maker::end_by_hanging_tool() {
  if (!commands_are_served_) return end_by_kill();
  mend_wire();
  say("board tool hangs");
  say("unit asks DO_PMC_INIT:1 in vain");
  run_tool();
  say("bench waits 8 s");
  fault_ = "board";
  end_by_kill();
}

void Maker::end_by_leaving() {
  if (!commands_are_served_) return end_by_kill();
  mend_wire();
  fault_ = "unit";
  say("board tool hangs");
  say("unit asks DO_PMC_INIT:1 and leaves");
  run_tool();
  say("board tool goes on");
  say("station exits 141");
}

void Maker::end_by_abort() {
  fault_ = owner_of_end();
  if (fault_ == "operator") fault_ = "unknown";
  wait_for_ppt();
  const bool has_aborted = chance_.one_in(2);
  say(has_aborted ? "station gets SIGABRT" : "station gets SIGSEGV");
  say(has_aborted ? "station exits 134" : "station exits 139");
}

void Maker::expect_shut_down() {
  say_of_station("Message Server was shut down");
  say_of_station("Stopping server. Active 0 connections");
  say_of_station("TFTP Server was shut down");
}
