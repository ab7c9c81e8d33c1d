#ifndef ZIRN_RUN_TESTED_UNIT_H
#define ZIRN_RUN_TESTED_UNIT_H

#include <algorithm>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "support/fake_board.h"
#include "support/sandbox.h"
#include "support/test_network.h"
#include "support/tftp_bytes.h"
#include "support/udp_peer.h"
#include "zirn_run/called_program.h"

// Processes in this network namespace that run the file.
inline std::vector<pid_t> processes_of(const std::string& program) {
  namespace fs = std::filesystem;
  std::vector<pid_t> found;
  std::error_code error;
  const fs::path here = fs::read_symlink("/proc/self/ns/net", error);
  for (const fs::directory_entry& it : fs::directory_iterator("/proc")) {
    const std::string pid = it.path().filename();
    if (pid.find_first_not_of("0123456789") != std::string::npos) continue;
    std::error_code gone;
    if (fs::read_symlink(it.path() / "exe", gone) != program || gone) continue;
    if (fs::read_symlink(it.path() / "ns/net", gone) == here) found.push_back(std::stoi(pid));
  }
  return found;
}

// A station in namespaces of its own, on which `zirn-run test` is called from the folder with the files to serve.
class TestedUnit : public CalledProgram {
 protected:
  using Words = std::vector<std::string>;

  void SetUp() override {
    NEEDS_SANDBOX();
    network = std::make_unique<TestNetwork>();
    board = std::make_unique<FakeBoard>();
    folder = std::make_unique<ScratchDirectory>();
    board->sets_variable("tempmac", "02:00:00:00:10:00");
    write_whole_file("bootscript.txt", "setenv bootdelay 1\n");
  }
  void TearDown() override {
    program.reset();
    if (!network) return;
    EXPECT_TRUE(wait_until([] { return !is_anything_left(); })) << "a process is left";
  }
  static bool is_anything_left() {
    return !processes_of(TFTP_PROGRAM).empty() || !processes_of(ZIRN_RUN_PROGRAM).empty();
  }

  // zirn-run test, with more words; those behind "--" are the station's.
  static Words call(Words more = {}, const Words& station = {"-o", TestNetwork::kStation}) {
    Words words = {ZIRN_RUN_PROGRAM, "test", "--record", "run.pcapng"};
    words.insert(words.end(), more.begin(), more.end());
    if (!station.empty()) words.emplace_back("--");
    words.insert(words.end(), station.begin(), station.end());
    return words;
  }
  void begins(
      const Words& words, const Process::Prepare& prepare = [] {}) {
    output.clear();
    program = std::make_unique<Process>(words, [&prepare] {
      append_errors_to("errors");
      prepare();
    });
  }
  bool says(const std::string& text) {
    return wait_until([&] {
      output += program->read_text();
      return output.find(text) != std::string::npos;
    });
  }
  void serves() { ASSERT_TRUE(says("the boot script goes out")) << output << whole_file("errors"); }
  int ends() {
    const int status = status_number(program->wait_for_end(kPatience));
    output += program->read_text();
    return status;
  }
  // The same from beginning to end.
  int tests(const Words& words, const std::string& verdict) {
    begins(words);
    serves();
    unit_gives(verdict);
    return ends();
  }
  void unit_gives(const std::string& verdict) const {
    network->at_unit([&] {
      UdpPeer unit(TestNetwork::kUnit);
      unit.aims_at(TestNetwork::kStation, 69);
      unit.sends(tftp::rrq(verdict));
      unit.expects(tftp::data(1, ""));
      unit.sends(tftp::ack(1));
    });
  }
  // What zirn-run explain says of the record.
  std::string explained(const std::string& record = "run.pcapng", const Words& more = {}) const {
    Words words = {"explain", record};
    words.insert(words.end(), more.begin(), more.end());
    return calls(words).output;
  }

  std::unique_ptr<TestNetwork> network;
  std::unique_ptr<FakeBoard> board;
  std::unique_ptr<ScratchDirectory> folder;
  std::unique_ptr<Process> program;
  std::string output;
};

#endif
