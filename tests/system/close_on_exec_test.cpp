#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <fstream>
#include <ios>
#include <set>
#include <string>

#include "support/at_commands.h"
#include "support/emulated.h"
#include "support/fake_board.h"

// What a board's command inherits of the program: nothing but its standard input and output.

namespace {

namespace fs = std::filesystem;
using namespace station;

class CloseOnExec : public testing::Test {
 protected:
  void SetUp() override { NEEDS_SANDBOX(); }
};

bool is_closed_on_exec(const fs::path& descriptor) {
  std::ifstream file(descriptor);
  std::string word;
  int flags = 0;
  while (file >> word && word != "flags:") continue;
  file >> std::oct >> flags;
  return (flags & O_CLOEXEC) != 0;
}

std::set<std::string> open_files(const fs::path& process) {
  std::set<std::string> files;
  for (const auto& entry : fs::directory_iterator(process / "fd")) files.insert(fs::read_symlink(entry));
  return files;
}

TEST_F(CloseOnExec, IsSetOnEveryFileAndSocketOfARun) {
  LEFT_OUT_UNDER_EMULATION("qemu has descriptors of its own");
  const AtCommands at_commands;
  write_whole_file("file", noise(2000));
  UdpPeer reader = at_commands.station.unit();
  reader.sends(rrq("file"));
  reader.expects(data(1, noise(2000).substr(0, 512)));
  // A write's socket and file stay open.
  UdpPeer writer = at_commands.station.unit();
  writer.sends(wrq("new"));
  writer.expects(ack(0));
  const TcpPeer unit = at_commands.unit();
  unit.asks("hello", "hello");

  const fs::path process = "/proc/" + std::to_string(at_commands.station.daemon->pid());
  const std::set<std::string> inherited = open_files("/proc/self");
  int count = 0;
  for (const auto& entry : fs::directory_iterator(process / "fd")) {
    const std::string number = entry.path().filename();
    const std::string file = fs::read_symlink(entry);
    if (std::stoi(number) <= STDERR_FILENO || inherited.count(file) != 0) continue;
    ++count;
    EXPECT_TRUE(is_closed_on_exec(process / "fdinfo" / number)) << file;
  }
  // The TFTP port, the command port and its connection, the connection to the PPT server, the relay's two
  // sockets, and a socket and a file for each client.
  EXPECT_EQ(count, 10);
}

TEST_F(CloseOnExec, LetsTheNextRunBeginWhileTheVoiceServiceRuns) {
  const FakeBoard board;
  const ScratchDirectory files;
  const std::string running = files.file("running");
  board.is_script(FakeBoard::kVoice,
                  "[ $1 = stop ] || { sleep 100 > /dev/null 2>&1 & echo $! > " + running + "; }\n");
  board.ends_with(FakeBoard::kT1E1, 1);
  AtCommands at_commands;
  at_commands.unit().asks("DO_PMC_INIT:7", "READY");
  at_commands.station.unit_reads_verdict("F_l_m_02PPT_PASSED");
  EXPECT_EQ(at_commands.station.daemon->exit_status(), 2);
  const pid_t service = std::stoi(whole_file(running));
  EXPECT_EQ(kill(service, 0), 0);
  at_commands.station.daemon = at_commands.station.start();
  EXPECT_TRUE(at_commands.station.daemon->serves());
  kill(service, SIGKILL);
}

}  // namespace
