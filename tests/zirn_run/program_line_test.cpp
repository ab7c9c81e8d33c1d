// Units tested one after another by the loop of docs/lines.md, and zirn-run test killed at any moment.
#include <sys/resource.h>

#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <thread>

#include "support/sanitized.h"
#include "support/tcp_peer.h"
#include "zirn_run/tested_unit.h"

namespace {

namespace fs = std::filesystem;
using namespace tftp;

constexpr char kPython[] = "/usr/bin/python3";  // Debian's, with Debian's libraries
constexpr char kPassed[] = "F_l_m_02PPT_PASSED";
constexpr char kFailed[] = "F_l_m_02PPT_FAILED";

// The block of docs/lines.md with these words in it.
std::string shown(const std::string& words) {
  const std::string text = whole_file(LINES_DOCUMENT);
  const std::size_t within = text.find(words);
  if (within == std::string::npos) throw std::runtime_error("docs/lines.md shows no " + words);
  const std::size_t begin = text.find('\n', text.rfind("\n```", within) + 1) + 1;
  return text.substr(begin, text.find("```", within) - begin);
}

// Answers each query for a verdict, and takes each connection.
[[noreturn]] int serve_as_ppt_server() {
  UdpPeer queries(TestNetwork::kPptServer, 69);
  TcpAddress connections(TestNetwork::kPptServer, 12345);
  for (;;) {
    const auto datagram = queries.receives(std::chrono::milliseconds(50));
    if (datagram && datagram->compare(0, 2, bytes("\0\1")) == 0) queries.sends(data(1, ""));
    connections.accepts(std::chrono::milliseconds(0));
  }
}

class ProgramLine : public TestedUnit {
 protected:
  struct Way {  // that a unit goes
    void (ProgramLine::*play)();
    int status;
    const char* cause;
  };
  static const std::vector<Way>& ways_to_fail();

  void SetUp() override {
    TestedUnit::SetUp();
    if (IsSkipped()) return;
    write_whole_file("bootscript.txt", "tftp 45000000 kernel.img\n");
    write_whole_file("kernel.img", std::string(100000, 'k'));
    board->ends_with(Board::kT1E1, 1);
    network->at_ppt_server([this] { ppt_server_ = std::make_unique<Process>(serve_as_ppt_server); });
    network->at_unit([this] { radio_ = std::make_unique<UdpPeer>("0.0.0.0", 12345); });
  }
  void TearDown() override {
    ppt_server_.reset();
    TestedUnit::TearDown();
  }

  template <typename Work>
  void at_unit(const Work& work) {
    network->at_unit([&] {
      UdpPeer unit(TestNetwork::kUnit);
      unit.aims_at(TestNetwork::kStation, 69);
      work(unit);
    });
  }
  void reads(const std::string& file) {
    at_unit([&](UdpPeer& unit) { EXPECT_EQ(read_by_tftp(unit, rrq(file)), whole_file(file)); });
  }
  void boots() {
    reads("bootscript.txt");
    reads("kernel.img");
  }
  std::string is_told(const std::string& command) {
    std::string answer;
    network->at_unit([&] {
      const TcpPeer peer(TestNetwork::kStation, 12345);
      peer.sends(command);
      answer = peer.reads();
    });
    return answer;
  }
  bool hears_boot_script() {
    while (radio_->receives(std::chrono::milliseconds(0))) continue;
    return radio_->receives(std::chrono::seconds(60)).has_value();
  }
  void passes() {
    boots();
    unit_gives("F_l_m_01MEMORY_PASSED");
    unit_gives(kPassed);
  }

  // The ways to fail:
  void fails_a_step() {
    boots();
    unit_gives("F_l_m_01TEST_FAILED");
    unit_gives(kFailed);
  }
  void misses_a_file() {
    reads("bootscript.txt");
    at_unit([](UdpPeer& unit) { EXPECT_EQ(read_by_tftp(unit, rrq("missing.img")), std::nullopt); });
    unit_gives(kFailed);
  }
  void is_told_that_the_tool_failed() {
    boots();
    unit_gives("F_l_m_t_Bootstrap_loading");
    board->ends_with(Board::kT1E1, 0);
    EXPECT_TRUE(wait_until([this] {
      try {
        return is_told("DO_PMC_INIT:7") == "FAIL";
      } catch (const std::runtime_error&) {  // the command port is not open yet
        return false;
      }
    }));
    board->ends_with(Board::kT1E1, 1);
    unit_gives("F_l_m_01TEST_FAILED");
    unit_gives(kFailed);
  }
  void is_silent() {}
  void asks_for_no_name() {
    at_unit([](UdpPeer& unit) {
      unit.sends(rrq(""));
      EXPECT_TRUE(unit.receives());
    });
  }
  void gives_up_in_a_read() {
    at_unit([](UdpPeer& unit) {
      unit.sends(rrq("kernel.img"));
      EXPECT_TRUE(unit.receives());
      unit.sends(ack(1));
      EXPECT_TRUE(unit.receives());
      unit.sends(error(3, "no room"));
    });
  }
  void gives_a_short_verdict() {
    boots();
    at_unit([](UdpPeer& unit) { unit.sends(rrq("F_l_m_1")); });
  }
  void refuses_the_options() {
    at_unit([](UdpPeer& unit) {
      unit.sends(rrq("kernel.img", {{"blksize", "1024"}}));
      unit.expects(oack({{"blksize", "1024"}}));
      unit.sends(error(8, "no"));
    });
  }
  void asks_too_early() {
    reads("bootscript.txt");
    EXPECT_THROW(is_told("ZIRN_ASKS_FOR_HIS_MAC"), std::runtime_error);
  }
  void reads_as_text() {
    at_unit([](UdpPeer& unit) {
      unit.sends(rrq("kernel.img", {}, "netascii"));
      EXPECT_TRUE(unit.receives());
    });
  }

  // In the PATH of the program: zirn-run, with the station's options, and what switches the unit's power.
  void begins_with_tools(const Words& words) {
    fs::create_directory("tools");
    makes_tool("zirn-run", std::string("exec ") + ZIRN_RUN_PROGRAM + " \"$@\" -- -o 172.40.0.1 2>> \"" +
                               folder->file("errors") + "\"");
    makes_tool("unit-power", "echo $1 >> power");
    begins(words, [this] {
      setenv("PATH", (folder->file("tools") + ":" + getenv("PATH")).c_str(), 1);
      setenv("PYTHONDONTWRITEBYTECODE", "1", 1);
    });
  }
  static void makes_tool(const std::string& name, const std::string& line) {
    write_whole_file("tools/" + name, "#!/bin/sh\n" + line + "\n");
    fs::permissions("tools/" + name, fs::perms::owner_all);
  }

  void tests_units(int count);
  void kills_runs(int count);

 private:
  std::unique_ptr<Process> ppt_server_;
  std::unique_ptr<UdpPeer> radio_;
};

const std::vector<ProgramLine::Way>& ProgramLine::ways_to_fail() {
  static const std::vector<Way> ways = {
      {&ProgramLine::fails_a_step, 1, "unit.failed"},
      {&ProgramLine::is_silent, 4, "boot.unanswered"},
      {&ProgramLine::misses_a_file, 1, "file.missing"},
      {&ProgramLine::gives_a_short_verdict, 4, "verdict.too-short"},
      {&ProgramLine::is_told_that_the_tool_failed, 1, "board.tool-failed"},
      {&ProgramLine::gives_up_in_a_read, 4, "read.given-up"},
      {&ProgramLine::refuses_the_options, 4, "read.options-refused"},
      {&ProgramLine::asks_too_early, 4, "command.too-early"},
      {&ProgramLine::reads_as_text, 4, "file.wrong-mode"},
      {&ProgramLine::asks_for_no_name, 4, "file.no-name"},
  };
  return ways;
}

std::vector<std::string> lines_of(const std::string& file) {
  std::istringstream text(whole_file(file));
  std::vector<std::string> lines;
  for (std::string line; std::getline(text, line);) lines.push_back(line);
  return lines;
}

// The text behind "KEY":" that comes first.
std::string value_in(const std::string& json, const std::string& key) {
  const std::string begins = "\"" + key + "\":\"";
  const std::size_t begin = json.find(begins) + begins.size();
  return json.substr(begin, json.find('"', begin) - begin);
}

// One in five fails, each in the next way.
void ProgramLine::tests_units(int count) {
  std::string loop = shown("while read");
  const std::string seconds = "--timeout 600";
  ASSERT_NE(loop.find(seconds), std::string::npos);
  // Six of the ways to fail wait for it; few of them come among few units, whose machine may then be busy.
  loop.replace(loop.find(seconds), seconds.size(), count <= 20 ? "--timeout 30" : "--timeout 4");
  begins_with_tools({"sh", "-c", loop});
  for (int i = 0; i < count; ++i) program->write_line("unit" + std::to_string(i));
  program->close_input();

  const auto way_of = [](int i) -> const Way* {
    const auto number = static_cast<std::size_t>(i / 5);
    return i % 5 == 4 ? &ways_to_fail()[number % ways_to_fail().size()] : nullptr;
  };
  const auto tested = [] { return fs::exists("yield") ? lines_of("yield").size() : 0; };
  for (int i = 0; i < count && !HasFailure(); ++i) {
    SCOPED_TRACE("unit " + std::to_string(i));
    ASSERT_TRUE(hears_boot_script()) << whole_file("errors");
    way_of(i) == nullptr ? passes() : (this->*way_of(i)->play)();
    ASSERT_TRUE(
        wait_until([&] { return tested() == static_cast<std::size_t>(i) + 1; }, std::chrono::seconds(60)));
  }
  EXPECT_EQ(ends(), 0);

  const std::vector<std::string> yield = lines_of("yield");
  const std::vector<std::string> results = lines_of("results.json");
  ASSERT_EQ(yield.size(), static_cast<std::size_t>(count));
  ASSERT_EQ(results.size(), yield.size());
  std::uintmax_t bytes = 0;
  for (int i = 0; i < count; ++i) {
    const auto place = static_cast<std::size_t>(i);
    const Way way = way_of(i) == nullptr ? Way{nullptr, 0, "passed"} : *way_of(i);
    const std::string name = "unit" + std::to_string(i);
    EXPECT_EQ(yield[place], name + " " + std::to_string(way.status));
    EXPECT_EQ(value_in(results[place], "cause"), way.cause) << results[place];
    bytes += fs::file_size(name + ".pcapng");
  }
  EXPECT_LE(bytes, static_cast<std::uintmax_t>(count) * 100000);
  const int others = 6;  // files to serve, tools, errors, yield, results.json
  EXPECT_EQ(std::distance(fs::directory_iterator("."), fs::directory_iterator()), count + others);
  rusage used = {};
  getrusage(RUSAGE_CHILDREN, &used);
  if (!kSanitized) {
    EXPECT_LE(used.ru_maxrss, 64 * 1024) << "KiB";
  }
  EXPECT_EQ(calls({"check", "--", "-o", "172.40.0.1"}).output.find("is held by"), std::string::npos);
}

// At any moment: no station is left, and a record that can be read.
void ProgramLine::kills_runs(int count) {
  std::mt19937 random(19);
  std::uniform_int_distribution<int> early(0, 800);  // milliseconds
  std::uniform_int_distribution<int> late(0, 2500);
  int with_record = 0;
  for (int i = 0; i < count; ++i) {
    SCOPED_TRACE("run " + std::to_string(i));
    fs::remove("run.pcapng");
    fs::remove("run.pcapng.part");
    begins(call());
    const bool is_late = i % 2 == 0;
    const int moment = is_late ? late(random) : early(random);
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(moment);
    if (is_late && says("the boot script goes out")) unit_gives("F_l_m_01MEMORY_PASSED");
    std::this_thread::sleep_until(end);
    program->send_signal(SIGKILL);
    ends();
    EXPECT_TRUE(wait_until([] { return !is_anything_left(); }, std::chrono::seconds(20)));
    const bool has_begun = output.find("the station has begun") != std::string::npos;
    EXPECT_TRUE(fs::exists("run.pcapng.part") || !has_begun);
    if (!fs::exists("run.pcapng.part") || fs::file_size("run.pcapng.part") == 0) continue;
    ++with_record;
    EXPECT_NE(explained("run.pcapng.part").find("no verdict"), std::string::npos) << output;
  }
  EXPECT_GE(with_record, count / 4);
}

// What a factory's own system does.
TEST_F(ProgramLine, IsCalledByAnotherProgram) {
  NEEDS_PROGRAM(kPython, "python3");
  write_whole_file("factory.py", shown("def tested(") + "\nprint(*tested('4711'), sep='|')\n");
  begins_with_tools({kPython, "factory.py"});
  ASSERT_TRUE(hears_boot_script());
  passes();
  EXPECT_EQ(ends(), 0);
  EXPECT_EQ(output, "True|none|Nothing: the next unit can be tested.\n");
  begins_with_tools({kPython, "factory.py"});
  ASSERT_TRUE(hears_boot_script());
  fails_a_step();
  EXPECT_EQ(ends(), 0);
  EXPECT_EQ(
      output,
      "False|unit|Put the unit aside as failed, with a note of F_l_m_01TEST_FAILED for whoever repairs it. "
      "Begin a new run with the next unit.\n");
}

TEST_F(ProgramLine, IsAStrategyOfLabgrid) {
  NEEDS_PROGRAM("pytest-3", "python3-pytest");
  if (Process({kPython, "-c", "import labgrid"}, [] { append_errors_to("errors"); })
          .wait_for_end(kPatience)
          ->status != 0)
    GTEST_SKIP() << "needs labgrid (package python3-labgrid)";
  write_whole_file("zirn_strategy.py", shown("class ZirnStrategy"));
  write_whole_file("station.yaml", shown("ExternalPowerDriver"));
  write_whole_file("test_unit.py", shown("def test_unit("));
  const Words call = {"sh", "-c", "exec 2>&1\n" + shown("pytest-3")};
  begins_with_tools(call);
  ASSERT_TRUE(hears_boot_script()) << program->read_text();
  passes();
  EXPECT_EQ(ends(), 0) << output;
  EXPECT_EQ(whole_file("power"), "off\non\n");
  begins_with_tools(call);
  ASSERT_TRUE(hears_boot_script());
  fails_a_step();
  EXPECT_EQ(ends(), 1);
  EXPECT_NE(output.find("failed: unit (unit.failed): Put the unit aside as failed"), std::string::npos)
      << output;
}

// The page for OpenHTF is not run; it is Python.
TEST_F(ProgramLine, IsShownForOpenHtf) {
  NEEDS_PROGRAM(kPython, "python3");
  write_whole_file("phase.py", shown("import openhtf"));
  Process python({kPython, "-c", "import ast; ast.parse(open('phase.py').read())"});
  EXPECT_EQ(status_number(python.wait_for_end(kPatience)), 0);
}

TEST_F(ProgramLine, TestsTwentyUnits) {
  tests_units(kSanitized ? 10 : 20);
}

TEST_F(ProgramLine, IsKilledTenTimes) {
  kills_runs(10);
}

TEST_F(ProgramLine, TestsTwoHundredUnitsLong) {
  tests_units(200);
}

TEST_F(ProgramLine, IsKilledAHundredTimesLong) {
  kills_runs(100);
}

}  // namespace
