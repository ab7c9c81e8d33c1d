// zirn-run check as it is called.
#include <sys/stat.h>

#include <filesystem>
#include <memory>
#include <sstream>

#include "support/fake_board.h"
#include "support/sandbox.h"
#include "support/test_network.h"
#include "zirn_run/called_program.h"

namespace {

class ProgramCheck : public CalledProgram {
 protected:
  void SetUp() override {
    NEEDS_SANDBOX();
    network_ = std::make_unique<TestNetwork>();
    board_ = std::make_unique<FakeBoard>();
    files_ = std::make_unique<ScratchDirectory>();
    board_->sets_variable("tempmac", "02:00:00:00:10:00");
    write_whole_file("bootscript.txt", "setenv bootdelay 1\n");
    systemd_says("");
  }
  void systemd_says(const std::string& said) const {
    const std::string path = board_->Board::path();
    const std::string tool = path.substr(0, path.find(':')) + "/systemctl";
    write_whole_file(tool, "#!/bin/sh\ncat << end\n" + said + "end\n");
    chmod(tool.c_str(), 0755);
  }
  // The service, whose command line and PATH are in a file, as the package has it.
  void has_service(const std::string& state) const {
    write_whole_file("default",
                     "TFTP_OPTIONS=\"-o 172.40.0.1 -n 6900\"\nPATH=" + board_->Board::path() + "\n");
    systemd_says(
        "LoadState=loaded\nExecStart={ path=/usr/sbin/TFTP ; argv[]=/usr/sbin/TFTP \\$TFTP_OPTIONS ; }\n" +
        ("EnvironmentFiles=" + files_->file("default") + " (ignore_errors=no)\n") +
        "WorkingDirectory=" + files_->path() + "/served\nUser=\nDynamicUser=no\n" +
        "CapabilityBoundingSet=cap_net_bind_service cap_net_raw\nAmbientCapabilities=\nActiveState=" + state +
        "\nMainPID=42\n");
    std::filesystem::create_directory("served");
    write_whole_file("served/bootscript.txt", "setenv bootdelay 1\n");
  }
  static std::string line_of(const Result& result, const std::string& name) {
    std::istringstream lines(result.output);
    for (std::string line; std::getline(lines, line);) {
      if (line.find("  " + name + ": ") != std::string::npos) return line;
    }
    return "no line " + name;
  }

  std::unique_ptr<TestNetwork> network_;
  std::unique_ptr<FakeBoard> board_;
  std::unique_ptr<ScratchDirectory> files_;
};

TEST_F(ProgramCheck, EndsWith0WhereTheStationIsReady) {
  const Result result = calls({"check", "--", "-o", "172.40.0.1"});
  EXPECT_EQ(result.status, 0) << result.output;
  EXPECT_EQ(result.errors, "");
  std::istringstream lines(result.output);
  std::string last;
  for (std::string line; std::getline(lines, line); last = line) {
    EXPECT_TRUE(line.substr(0, 11) == "ok         " || line == "the station is ready") << line;
  }
  EXPECT_EQ(last, "the station is ready");
  EXPECT_EQ(line_of(result, "folder"), "ok         folder: files are served from " + files_->path());
  EXPECT_EQ(line_of(result, "label"), "ok         label: an address has the label lan0:0");
}

TEST_F(ProgramCheck, EndsWith3WhereSomethingIsWrong) {
  ip("link set lan0 down");
  const Result result = calls({"check", "--", "-o", "172.40.0.1"});
  EXPECT_EQ(result.status, 3);
  EXPECT_EQ(line_of(result, "link up"),
            "WRONG      link up: lan0 is down. Then: no boot script. Do: ip link set lan0 up");
  EXPECT_NE(result.output.find("\nthe station is not ready: 1 wrong\n"), std::string::npos) << result.output;
}

TEST_F(ProgramCheck, TakesOptionsAndFolderFromTheService) {
  has_service("inactive");
  const Result result = calls({"check"});
  EXPECT_EQ(result.status, 0) << result.output;
  EXPECT_EQ(line_of(result, "TFTP port"), "ok         TFTP port: UDP port 6900 of 172.40.0.1 is free");
  EXPECT_EQ(line_of(result, "folder"), "ok         folder: files are served from " + files_->file("served"));
}

TEST_F(ProgramCheck, TakesOptionsAndFolderFromTheCall) {
  has_service("inactive");
  const Result result = calls({"check", "--folder", "/nowhere", "--", "-o", "172.40.0.1", "-n", "7000"});
  EXPECT_EQ(result.status, 3);
  EXPECT_EQ(line_of(result, "TFTP port"), "ok         TFTP port: UDP port 7000 of 172.40.0.1 is free");
  EXPECT_EQ(line_of(result, "folder").find("WRONG      folder: there is no folder /nowhere."), 0U);
}

TEST_F(ProgramCheck, SaysThatTheServiceRuns) {
  has_service("active");
  for (const std::vector<std::string>& call :
       {std::vector<std::string>{"check"}, {"check", "--", "-o", "172.40.0.1"}}) {
    const Result result = calls(call);
    EXPECT_EQ(result.status, 3);
    EXPECT_EQ(line_of(result, "no run").find("WRONG      no run: zirn-test-station is active, process 42."),
              0U);
  }
}

TEST_F(ProgramCheck, FindsAnInitScriptWhereThereIsNoSystemd) {
  write_whole_file("/etc/init.d/zirn-test-station", "#!/bin/sh\n");
  EXPECT_EQ(line_of(calls({"check"}), "served address").find("WRONG"), 0U);
  chmod("/etc/init.d/zirn-test-station", 0755);
  EXPECT_EQ(line_of(calls({"check"}), "folder")
                .find("WRONG      folder: there is no folder /var/lib/zirn-test-station"),
            0U);
}

TEST_F(ProgramCheck, SaysThatNobodyCanReadIt) {
  Process program({"sh", "-c", ZIRN_RUN_PROGRAM " check -- -o 172.40.0.1 2>&1 > /dev/full"});
  EXPECT_EQ(status_number(program.wait_for_end(kPatience)), 3);
  EXPECT_EQ(program.read_text(), "zirn-run: standard output: No space left on device\n");
}

TEST_F(ProgramCheck, RefusesAWrongCall) {
  EXPECT_EQ(calls({"check", "--folders"}).status, 2);
  EXPECT_EQ(calls({"check", "--folder"}).status, 2);
}

}  // namespace
