#include "bench/made_scenario.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <set>
#include <vector>

#include "bench/chance.h"

namespace {

constexpr int kMostActs = 10;
constexpr int kLongestSeconds = 12;    // after so many of waiting the run comes to its end
constexpr int kForwardingSeconds = 5;  // that a verdict costs where the PPT server is silent
constexpr int kLostBlockSeconds = 5;   // the shortest time-out of the station
constexpr int kSmallestBlock = 32;     // bytes, from where on the answer to the options has room
constexpr int kLargestBlock = 32764;   // bytes, that the unit's client has room for
constexpr int kUnfragmented = 1428;    // bytes of a block that fits a frame
constexpr int kBlocksUnderLoss = 8;    // few frames, so that few are lost
constexpr int kBlocksAtMost = 300;
constexpr int kDelayedMilliseconds = 1500;  // that a read may wait in all for frames under way
constexpr int kLargeFile = 60000;           // bytes, at least; at 20 ms a frame its read takes seconds
constexpr int kLongestDelay = 20;           // milliseconds
constexpr char kFirstVerdict[] = "F_l_m_t_Bootstrap_loading";
constexpr char kTag[] = "CPU_2_";
constexpr std::size_t kTagAt = 8;

struct File {
  std::string name;
  int bytes;
};

struct ErrorText {
  int code;
  const char* sent;
  const char* printed;
};
constexpr ErrorText kErrors[] = {{0, "the disk is full", "the disk is full"},
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
constexpr const char* kTestNames[] = {"MEMORY", "FLASH", "LINE 1", "E1", "a", "Temperature_at_70"};

std::string number(long value) {
  return std::to_string(value);
}

std::string quoted(const std::string& text) {
  return '"' + text + '"';
}

std::string tagged(std::string verdict) {
  return verdict.insert(kTagAt, kTag);
}

bool holds(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

std::string mac_text(std::uint64_t address) {
  char text[18];
  std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x",
                static_cast<unsigned>(address >> 40 & 0xFF), static_cast<unsigned>(address >> 32 & 0xFF),
                static_cast<unsigned>(address >> 24 & 0xFF), static_cast<unsigned>(address >> 16 & 0xFF),
                static_cast<unsigned>(address >> 8 & 0xFF), static_cast<unsigned>(address & 0xFF));
  return text;
}

// Writes a scenario down, step by step, and keeps in mind what is true by then.
class Maker {
 public:
  explicit Maker(std::uint64_t seed) : seed_(seed), chance_(seed) {}
  std::string scenario();

 private:
  // Something that can be in a run: words for the title, and how often it is drawn where it is possible.
  struct Act {
    int weight;
    const char* words;
    bool (*is_possible)(const Maker& now);
    void (Maker::*happen)();
  };
  struct Ending {
    int weight;
    void (Maker::*happen)();
  };
  static const std::vector<Act> kActs;
  static const std::vector<Ending> kEndings;
  enum class Ppt { kAnswers, kAnswersError, kSilent, kRefuses };

  void say(const std::string& step) { steps_ += step + "\n"; }
  void say_of_station(const std::string& line) { say("station says " + quoted(line)); }

  void prepare_files();
  void prepare_board();
  void start();
  void start_at_a_wrong_address();
  void act();

  void boot();
  void hear_again();
  void read_file();
  void read_missing_file();
  void begin_reading(const File& file);
  void read_beside_commands();
  void die_and_come_back();
  void pull_the_cable();
  void lose();
  void duplicate();
  void swap();
  void delay();
  void delay_by(int milliseconds);
  void mend_wire();
  void change_ppt();
  void pass_step() { give_verdict(verdict_name("_PASSED")); }
  void fail_step() { give_verdict(verdict_name("_TEST_FAILED")); }
  void hear_no_more();
  void ask_mac();
  void change_tool();
  void ask_pmc();
  void ask_echo();
  void ask_in_vain();
  void relay();

  void end_passed() { give_final_verdict(verdict_name("_PPT_PASSED")); }
  void end_failed() { give_final_verdict(verdict_name("_PPT_FAILED")); }
  void end_with_both() { give_final_verdict(verdict_name("_PPT_PASSED_PPT_FAILED")); }
  void end_passed_after_all() { give_final_verdict(verdict_name("_TEST_FAILED_PPT_PASSED")); }
  void end_by_interrupt() { end_by("SIGINT", 2); }
  void end_by_termination() { end_by("SIGTERM", 15); }
  void end_by_kill();
  void end_by_short_verdict();

  std::string verdict_name(const std::string& outcome);
  void give_verdict(const std::string& name);
  void expect_of_verdict(const std::string& name);
  void expect_of_first_verdict();
  void give_final_verdict(const std::string& name);
  void end_by(const std::string& signal, int status);
  void expect_shut_down();
  void expect_of_board();
  void calm_wire_for_verdict();
  bool forwarding_takes_time() const { return ppt_ == Ppt::kSilent || ppt_ == Ppt::kRefuses; }

  bool is_readable(const File& file) const { return file.bytes <= most_blocks() * largest_block(); }
  const File& readable_file();
  int most_blocks() const;
  int largest_block() const { return loss_ > 0 ? kUnfragmented : kLargestBlock; }
  int block_for(const File& file);
  int drawn_block(const File& file);
  std::string options_for(const File& file);
  std::string tries() const { return loss_ > 0 ? " tries 9" : ""; }

  const std::uint64_t seed_;
  Chance chance_;
  std::string steps_;
  std::string title_;
  int seconds_ = 0;  // that the run has waited

  std::vector<File> files_;
  bool link_is_right_ = true;
  Ppt ppt_ = Ppt::kAnswers;
  const ErrorText* error_ = nullptr;               // of the PPT server
  int loss_ = 0, duplication_ = 0, swapping_ = 0;  // percent
  int delay_ = 0;                                  // milliseconds
  int message_port_ = 12345;
  std::string ppt_ip_ = "172.30.0.254";
  std::string mac_;  // that the unit is told
  int tool_status_ = 1;
  int verdicts_ = 0;
  bool commands_are_served_ = false;
  bool voice_has_started_ = false;
  bool board_was_called_ = false;
  bool is_marked_failed_ = false;
  int datagrams_ = 0;
};

const std::vector<Maker::Act> Maker::kActs = {
    {30, "the unit boots", [](const Maker& now) { return now.link_is_right_ && now.verdicts_ == 0; },
     &Maker::boot},
    {3, "the unit hears the boot script",
     [](const Maker& now) { return now.link_is_right_ && now.verdicts_ == 0; }, &Maker::hear_again},
    {20, "the unit reads", [](const Maker&) { return true; }, &Maker::read_file},
    {4, "a file is missing", [](const Maker&) { return true; }, &Maker::read_missing_file},
    {6, "a read beside commands", [](const Maker& now) { return now.loss_ == 0; },
     &Maker::read_beside_commands},
    {5, "the unit dies and comes back", [](const Maker& now) { return now.loss_ == 0; },
     &Maker::die_and_come_back},
    {3, "the cable is pulled", [](const Maker&) { return true; }, &Maker::pull_the_cable},
    {8, "frames are lost", [](const Maker& now) { return now.loss_ == 0; }, &Maker::lose},
    {6, "frames are duplicated", [](const Maker& now) { return now.duplication_ == 0; }, &Maker::duplicate},
    {6, "frames are swapped", [](const Maker& now) { return now.swapping_ == 0; }, &Maker::swap},
    {5, "frames are delayed", [](const Maker& now) { return now.delay_ == 0; }, &Maker::delay},
    {3, "the wire is mended", [](const Maker&) { return true; }, &Maker::mend_wire},
    {8, "the PPT server changes", [](const Maker&) { return true; }, &Maker::change_ppt},
    {15, "a step passes", [](const Maker&) { return true; }, &Maker::pass_step},
    {6, "a step fails", [](const Maker&) { return true; }, &Maker::fail_step},
    {3, "no more boot script", [](const Maker& now) { return now.commands_are_served_; },
     &Maker::hear_no_more},
    {10, "MAC", [](const Maker& now) { return now.commands_are_served_; }, &Maker::ask_mac},
    {3, "the tool changes", [](const Maker&) { return true; }, &Maker::change_tool},
    {12, "PMC", [](const Maker& now) { return now.commands_are_served_; }, &Maker::ask_pmc},
    {4, "echo", [](const Maker& now) { return now.commands_are_served_; }, &Maker::ask_echo},
    {2, "a command in vain", [](const Maker& now) { return !now.commands_are_served_; }, &Maker::ask_in_vain},
    {8, "a datagram", [](const Maker& now) { return now.loss_ == 0; }, &Maker::relay},
};

const std::vector<Maker::Ending> Maker::kEndings = {
    {40, &Maker::end_passed},          {20, &Maker::end_failed},          {3, &Maker::end_with_both},
    {3, &Maker::end_passed_after_all}, {8, &Maker::end_by_interrupt},     {8, &Maker::end_by_termination},
    {4, &Maker::end_by_kill},          {4, &Maker::end_by_short_verdict},
};

std::string Maker::scenario() {
  say("wire damages by seed " + number(static_cast<long>(seed_)));
  prepare_files();
  prepare_board();
  if (chance_.one_in(50)) {
    start_at_a_wrong_address();
  } else {
    start();
    for (int left = chance_.between(2, kMostActs); left > 0 && seconds_ < kLongestSeconds; --left) act();
    (this->*chance_.by_weight(kEndings).happen)();
  }
  expect_of_board();
  return "# By chance: " + (title_.empty() ? "nothing happens" : title_) + "\n" + steps_;
}

// Of every kind of size; the first is the one that the boot script names.
void Maker::prepare_files() {
  constexpr int kEdges[] = {0, 1, 511, 512, 513, 1024, 1428, 2856};
  files_.push_back({"bootscript.txt", 0});
  files_.push_back({"small.cfg", chance_.one_of(kEdges)});
  files_.push_back({"medium.bin", chance_.between(2, 11000)});
  files_.push_back({"kernel.img", chance_.between(kLargeFile, 300000)});
  std::string script = "setenv bootdelay 1\\r\\n";
  if (chance_.one_in(2)) script += "tftp 47000000 small.cfg\\r\\n";
  say("file bootscript.txt holds " + quoted(script));
  for (auto file = files_.begin() + 1; file != files_.end(); ++file)
    say("file " + file->name + " is " + number(file->bytes) + " bytes");
  files_[0].bytes = static_cast<int>(script.size());  // some less: the escapes are one byte each
}

void Maker::prepare_board() {
  if (chance_.one_in(20)) {
    link_is_right_ = false;
    say("board link is called lan1");
  }
  const std::uint64_t address = chance_.one_in(5)
                                    ? 0xfffffffffffe + static_cast<unsigned>(chance_.between(0, 1))
                                    : 0x020000000000 + static_cast<unsigned>(chance_.between(0, 1 << 30));
  mac_ = mac_text(address + 2);
  if (chance_.one_in(15)) {
    mac_ = mac_text(2);
    say("board has tempmac \"\"");
  } else {
    say("board has tempmac " + mac_text(address));
  }
  if (chance_.one_in(3)) change_tool();
  if (chance_.one_in(4)) change_ppt();
}

void Maker::start() {
  std::string options;
  if (chance_.one_in(5)) options += " -n " + number(chance_.between(70, 32000));
  if (chance_.one_in(5)) options += " -p " + number(chance_.between(70, 12000));
  if (chance_.one_in(5)) {
    message_port_ = chance_.between(1024, 32000);
    options += " --msgport=" + number(message_port_);
  }
  if (chance_.one_in(5)) {
    ppt_ip_ = "172.30.0." + number(chance_.between(2, 253));
    options += " -s " + ppt_ip_;
  }
  say(options.empty() ? "station starts" : "station starts with " + quoted(options.substr(1)));
  if (link_is_right_) return;
  say_of_station("Error: Failed to initialize sender");
  if (chance_.one_in(2)) say("unit hears nothing for 2 s");
}

void Maker::start_at_a_wrong_address() {
  title_ = "a wrong address";
  say("station starts with \"-o 172.40.0.9\"");
  say_of_station("Socket Bind exception: Cannot assign requested address");
  say("station exits 1");
}

void Maker::act() {
  std::vector<Act> possible;
  std::copy_if(kActs.begin(), kActs.end(), std::back_inserter(possible),
               [this](const Act& act) { return act.is_possible(*this); });
  const Act& drawn = chance_.by_weight(possible);
  title_ += (title_.empty() ? "" : ", ") + std::string(drawn.words);
  (this->*drawn.happen)();
}

// A verdict stands in the boot script, between the two files.
void Maker::boot() {
  say("unit hears the boot script");
  calm_wire_for_verdict();
  // The second file is asked for while the station may still wait for the PPT server.
  say("unit obeys the boot script" + (forwarding_takes_time() ? " tries 3" : tries()));
  say_of_station("RRQ bootscript.txt");
  expect_of_verdict(kFirstVerdict);
}

void Maker::hear_again() {
  say("unit hears the boot script");
}

const File& Maker::readable_file() {
  std::vector<const File*> readable;
  for (const File& file : files_)
    if (is_readable(file)) readable.push_back(&file);
  return *chance_.one_of(readable);
}

int Maker::most_blocks() const {
  const int by_delay = delay_ > 0 ? kDelayedMilliseconds / (2 * delay_) : kBlocksAtMost;
  return loss_ > 0 ? std::min(by_delay, kBlocksUnderLoss) : by_delay;
}

// Often one that the file's size is a multiple of, or nearly.
int Maker::drawn_block(const File& file) {
  switch (chance_.between(1, 8)) {
    case 1:
      return file.bytes;
    case 2:
      return file.bytes + chance_.between(-1, 1);
    case 3:
      return file.bytes / chance_.between(2, 8);
    case 4:
      return chance_.between(kSmallestBlock, 64);
    case 5:
      return kUnfragmented;
    case 6:
      return chance_.between(65, kUnfragmented);
    case 7:
      return chance_.between(kUnfragmented, kLargestBlock);
    default:
      return chance_.between(kLargestBlock + 1, 65464);
  }
}

int Maker::block_for(const File& file) {
  constexpr int kAttempts = 10;
  for (int left = kAttempts; left > 0; --left) {
    const int block = drawn_block(file);
    const bool has_room = block <= kLargestBlock || file.bytes < kLargestBlock;
    const bool is_asked = block >= kSmallestBlock && has_room && (loss_ == 0 || block <= kUnfragmented);
    if (is_asked && file.bytes / block <= most_blocks()) return block;
  }
  return largest_block();
}

std::string Maker::options_for(const File& file) {
  constexpr int kTimeouts[] = {1, 2, 5, 6};
  std::string options;
  if (file.bytes / 512 > most_blocks() || !chance_.one_in(3))
    options += " blksize " + number(block_for(file));
  if (chance_.one_in(4)) options += " timeout " + number(chance_.one_of(kTimeouts));
  return options;
}

void Maker::read_file() {
  const File& file = readable_file();
  say("unit reads " + file.name + options_for(file) + tries());
  say_of_station("RRQ " + file.name);
  if (loss_ > 0) seconds_ += kLostBlockSeconds / 2;
}

void Maker::read_missing_file() {
  say("unit cannot read missing.img");
  if (loss_ == 0) say_of_station("RRQ missing.img");
}

void Maker::begin_reading(const File& file) {
  say("unit begins reading " + file.name + options_for(file));
  say_of_station("RRQ " + file.name);
}

void Maker::read_beside_commands() {
  if (delay_ == 0) delay();
  begin_reading(readable_file());
  if (commands_are_served_) ask_mac();
  relay();
  if (commands_are_served_ && chance_.one_in(2)) ask_pmc();
  say("unit ends reading");
}

void Maker::die_and_come_back() {
  if (delay_ < kLongestDelay) delay_by(kLongestDelay);
  say("unit reads kernel.img blksize 1428 dies after " + number(chance_.between(1, 16000)) + " bytes");
  say_of_station("RRQ kernel.img");
  if (chance_.one_in(2)) say("bench waits 1 s");
  if (chance_.one_in(2)) mend_wire();
  if (link_is_right_ && verdicts_ == 0) say("unit hears the boot script");
  read_file();
  seconds_ += 2;
}

void Maker::pull_the_cable() {
  const std::string time = number(chance_.between(1, 2)) + " s";
  const bool in_between = loss_ == 0 && chance_.one_in(2);
  if (in_between && delay_ < kLongestDelay) delay_by(kLongestDelay);
  const File& file = readable_file();
  if (in_between) {
    begin_reading(file);
    say("bench waits 0.3 s");
    say("wire is cut for " + time);
    say("unit ends reading");
    say("bench waits " + time);  // a short file has come before the cut
  } else {
    say("wire is cut for " + time);
    say("unit reads " + file.name + options_for(file) + " tries 9");
    say_of_station("RRQ " + file.name);
  }
  seconds_ += kLostBlockSeconds;
}

void Maker::lose() {
  loss_ = chance_.between(1, 3);
  say("wire loses " + number(loss_) + " %");
}

void Maker::duplicate() {
  duplication_ = chance_.between(1, 60);
  say("wire duplicates " + number(duplication_) + " %");
}

void Maker::swap() {
  swapping_ = chance_.between(1, 60);
  say("wire swaps " + number(swapping_) + " %");
}

void Maker::delay() {
  delay_by(chance_.between(1, kLongestDelay));
}

void Maker::delay_by(int milliseconds) {
  delay_ = milliseconds;
  say("wire delays " + number(delay_) + " ms");
}

void Maker::mend_wire() {
  loss_ = duplication_ = swapping_ = delay_ = 0;
  say("wire is whole");
}

void Maker::change_ppt() {
  switch (chance_.between(1, 5)) {
    case 1:
      ppt_ = Ppt::kSilent;
      return say("ppt is silent");
    case 2:
      ppt_ = Ppt::kRefuses;
      return say("ppt refuses");
    case 3:
      ppt_ = Ppt::kAnswers;
      return say("ppt answers");
    default:
      ppt_ = Ppt::kAnswersError;
      error_ = &chance_.one_of(kErrors);
      return say("ppt answers ERROR " + number(error_->code) + " " + quoted(error_->sent));
  }
}

std::string Maker::verdict_name(const std::string& outcome) {
  constexpr std::size_t kLongest = 200;  // characters, of a name that is also a file's
  char step[3];
  std::snprintf(step, sizeof step, "%02d", chance_.between(0, 99));
  std::string test = chance_.one_of(kTestNames);
  if (chance_.one_in(20)) test.resize(kLongest, 'x');
  return std::string("F_l_m_") + step + test + outcome;
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

void Maker::expect_of_verdict(const std::string& name) {
  say_of_station("Cmd received: " + name);
  if (holds(name, "TEST_FAILED")) {
    is_marked_failed_ = board_was_called_ = true;
    say("board ran \"envtool ppt_flag=failed\"");
  }
  say((ppt_ == Ppt::kRefuses ? "ppt has not heard " : "ppt hears ") + quoted(tagged(name)));
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
}

void Maker::ask_in_vain() {
  say("unit asks ZIRN_ASKS_FOR_HIS_MAC in vain");
  seconds_ += 3;
}

void Maker::relay() {
  // The relay does not say when it has begun.
  if (datagrams_ == 0 && verdicts_ == 0) say("bench waits 0.5 s");
  const std::string text = "line " + number(++datagrams_) + " is up";
  say("unit sends " + quoted(text));
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
    is_marked_failed_ = board_was_called_ = true;
    say("board ran \"envtool ppt_flag=failed\"");
  }
}

void Maker::end_by(const std::string& signal, int status) {
  say("station gets " + signal);
  say("station exits " + number(status));
  expect_shut_down();
}

void Maker::end_by_kill() {
  say("station gets SIGKILL");
  say("station exits 137");
}

void Maker::end_by_short_verdict() {
  if (loss_ > 0) mend_wire();
  say("unit reads F_l_m_1");
  say("station exits 134");
  say_of_station("Cmd received: F_l_m_1");
}

void Maker::expect_shut_down() {
  say_of_station("Message Server was shut down");
  say_of_station("Stopping server. Active 0 connections");
  say_of_station("TFTP Server was shut down");
}

void Maker::expect_of_board() {
  say(std::string("board keeps ppt_flag ") + (is_marked_failed_ ? "failed" : "nothing"));
  if (!board_was_called_) say("board ran nothing");
}

}  // namespace

std::string made_scenario(std::uint64_t seed) {
  return Maker(seed).scenario();
}
