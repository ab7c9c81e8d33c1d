#include "bench/made_scenario.h"

#include <algorithm>
#include <cstdio>
#include <iterator>

#include "bench/maker.h"

namespace {

constexpr char kKernel[] = "kernel.img";
constexpr int kMostActs = 10;
constexpr int kLongestSeconds = 12;  // after so many of waiting the run comes to its end
constexpr int kLargeFile = 60000;    // bytes, at least; at 20 ms a frame its read takes seconds

std::string mac_text(std::uint64_t address) {
  char text[18];
  std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x",
                static_cast<unsigned>(address >> 40 & 0xFF), static_cast<unsigned>(address >> 32 & 0xFF),
                static_cast<unsigned>(address >> 24 & 0xFF), static_cast<unsigned>(address >> 16 & 0xFF),
                static_cast<unsigned>(address >> 8 & 0xFF), static_cast<unsigned>(address & 0xFF));
  return text;
}

}  // namespace

const std::vector<Maker::Act> Maker::kActs = {
    {30, "the unit boots", &Maker::script_is_sent, &Maker::boot},
    {3, "the unit hears the boot script", &Maker::script_is_sent, &Maker::hear_again},
    {20, "the unit reads", &Maker::always, &Maker::read_file},
    {3, "the unit gives a read up", &Maker::loses_nothing, &Maker::give_up_reading},
    {3, "a read is refused", &Maker::loses_nothing, &Maker::read_wrongly},
    {2, "the unit writes", &Maker::unit_is_known, &Maker::write_file},
    {2, "a stray datagram", &Maker::unit_is_known, &Maker::send_stray},
    {2, "the unit is like another loader", &Maker::loses_nothing, &Maker::be_like_a_loader},
    {4, "a file is missing", &Maker::always, &Maker::read_missing_file},
    {6, "a read beside commands", &Maker::loses_nothing, &Maker::read_beside_commands},
    {5, "the unit dies and comes back", &Maker::loses_nothing, &Maker::die_and_come_back},
    {3, "the cable is pulled", &Maker::always, &Maker::pull_the_cable},
    {8, "frames are lost", &Maker::neither_loses_nor_duplicates, &Maker::lose},
    {5, "a block is lost", &Maker::neither_loses_nor_duplicates, &Maker::lose_block},
    {4, "an answer is lost", &Maker::neither_loses_nor_duplicates, &Maker::lose_answer},
    {6, "frames are duplicated", &Maker::neither_loses_nor_duplicates, &Maker::duplicate},
    {6, "frames are swapped", &Maker::swaps_nothing, &Maker::swap},
    {5, "frames are delayed", &Maker::delays_nothing, &Maker::delay},
    {3, "the wire is mended", &Maker::always, &Maker::mend_wire},
    {8, "the PPT server changes", &Maker::always, &Maker::change_ppt},
    {15, "a step passes", &Maker::always, &Maker::pass_step},
    {6, "a step fails", &Maker::always, &Maker::fail_step},
    {4, "a verdict's answer is lost", &Maker::is_passed_on_at_once, &Maker::lose_on_the_way_to_ppt},
    {3, "no more boot script", &Maker::serves_commands, &Maker::hear_no_more},
    {10, "MAC", &Maker::serves_commands, &Maker::ask_mac},
    {3, "the tool changes", &Maker::always, &Maker::change_tool},
    {12, "PMC", &Maker::serves_commands, &Maker::ask_pmc},
    {4, "echo", &Maker::serves_commands, &Maker::ask_echo},
    {2, "a command that is broken off", &Maker::serves_commands, &Maker::break_off},
    {2, "a connection that stays open", &Maker::serves_commands, &Maker::hold_on},
    {2, "a command in vain", &Maker::serves_no_commands, &Maker::ask_in_vain},
    {8, "a datagram", &Maker::loses_nothing, &Maker::relay},
};

const std::vector<Maker::Ending> Maker::kEndings = {
    {40, &Maker::end_passed},          {20, &Maker::end_failed},          {3, &Maker::end_with_both},
    {3, &Maker::end_passed_after_all}, {8, &Maker::end_by_interrupt},     {8, &Maker::end_by_termination},
    {4, &Maker::end_by_kill},          {4, &Maker::end_by_short_verdict}, {3, &Maker::end_by_hanging_tool},
    {3, &Maker::end_by_leaving},       {2, &Maker::end_by_abort},
};

std::string Maker::scenario() {
  say("wire damages by seed " + number(static_cast<long>(seed_)));
  prepare_files();
  prepare_board();
  if (chance_.one_in(20)) {
    start_in_vain();
  } else {
    start();
    for (int left = chance_.between(2, kMostActs); left > 0 && seconds_ < kLongestSeconds; --left) act();
    (this->*chance_.by_weight(kEndings).happen)();
  }
  expect_of_board();
  say("fault is " + fault_);
  return "# By chance: " + title_ + "\n" + steps_;
}

// Of every kind of size; the first is the one that the boot script names.
void Maker::prepare_files() {
  constexpr int kEdges[] = {0, 1, 511, 512, 513, 1024, 1428, 2856};
  files_.push_back({"bootscript.txt", 0});
  files_.push_back({"small.cfg", chance_.one_of(kEdges)});
  files_.push_back({"medium.bin", chance_.between(2, 11000)});
  files_.push_back({kKernel, chance_.between(kLargeFile, 300000)});
  std::string script = "setenv bootdelay 1\\r\\n";
  script_reads_more_ = chance_.one_in(2);
  if (script_reads_more_) script += "tftp 47000000 small.cfg\\r\\n";
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
    has_envtool_ = false;
    mac_ = mac_text(0x020000000003);
    say("board lacks envtool");
  } else if (chance_.one_in(15)) {
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
  if (chance_.one_in(5)) {
    tftp_port_ = chance_.between(70, 32000);
    options += " -n " + number(tftp_port_);
  }
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

void Maker::start_in_vain() {
  struct Start {
    const char* words;
    const char* before;
    const char* step;
    const char* line;
    const char* fault;
  };
  static constexpr Start kStarts[] = {
      {"a wrong address", "", "station starts with \"-o 172.40.0.9\"",
       "Socket Bind exception: Cannot assign requested address", "station"},
      {"a port in use", "board has port 69 taken\n", "station starts",
       "Socket Bind exception: Address already in use", "station"},
      {"a right missing", "station lacks CAP_NET_BIND_SERVICE\n", "station starts",
       "Socket Bind exception: Permission denied", "station"},
      {"no PPT server", "", "station starts with \"-s=\"", "Usage: TFTP [-h] [-p port] [-s server]",
       "operator"}};
  const Start& start = chance_.one_of(kStarts);
  title_ = start.words;
  fault_ = start.fault;
  steps_ += start.before;
  say(start.step);
  say_of_station(start.line);
  say("station exits 1");
}

void Maker::act() {
  std::vector<Act> possible;
  std::copy_if(kActs.begin(), kActs.end(), std::back_inserter(possible),
               [this](const Act& act) { return (this->*act.is_possible)(); });
  const Act& drawn = chance_.by_weight(possible);
  title_ += (title_.empty() ? "" : ", ") + std::string(drawn.words);
  (this->*drawn.happen)();
}

void Maker::expect_of_board() {
  say(std::string("board keeps ppt_flag ") + (is_marked_failed_ ? "failed" : "nothing"));
  if (!board_was_called_) say("board ran nothing");
}

void Maker::meet(Problem problem) {
  unit_was_heard_ = true;
  in_step_.insert(problem);
  since_success_ = std::min(since_success_, problem);
}

void Maker::succeed() {
  unit_was_heard_ = true;
  since_success_ = Problem::kNone;
}

void Maker::succeed_in_reading(const File& file) {
  if (file.name == kKernel) {  // it makes up for what came of it before
    in_step_.erase(Problem::kGivenUp);
    in_step_.erase(Problem::kDeath);
  }
  if (file.bytes == 0) {
    meet(Problem::kEmptyFile);
  } else {
    succeed();
  }
}

std::string Maker::owner_of(Problem problem) {
  switch (problem) {
    case Problem::kTool:
    case Problem::kMac:
      return "board";
    case Problem::kMissingFile:
    case Problem::kEmptyFile:
      return "station";
    case Problem::kPpt:
      return "ppt-server";
    default:
      return "unit";
  }
}

void Maker::note_verdict(bool has_failed) {
  succeed();
  if (has_failed) {
    last_failure_ = owner_in_step();
    if (first_failure_.empty()) first_failure_ = last_failure_;
    since_success_ = Problem::kFailure;
  }
  in_step_.clear();
}

// Of a run that is ended without a final verdict.
std::string Maker::owner_of_end() const {
  if (!unit_was_heard_) return link_is_right_ ? "unknown" : "station";
  if (since_success_ == Problem::kNone) return "operator";
  return since_success_ == Problem::kFailure ? last_failure_ : owner_of(since_success_);
}

std::string made_scenario(std::uint64_t seed) {
  return Maker(seed).scenario();
}
