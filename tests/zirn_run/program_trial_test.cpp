// zirn-run test as it is called.
#include <linux/capability.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>

#include "zirn_run/older_kernel.h"
#include "zirn_run/recording.h"
#include "zirn_run/tested_unit.h"

namespace {

class ProgramTrial : public TestedUnit {
 protected:
  // A program in the station's place: lines of a shell.
  static std::string script(const std::string& lines) {
    write_whole_file("station", "#!/bin/sh\n" + lines);
    chmod("station", 0755);
    return "station";
  }
  // Ends the run that is under way by the signal, and expects all that is to be left of it.
  void expect_ended_by(int signal, const std::string& cause) {
    program->send_signal(signal);
    EXPECT_EQ(ends(), 4);
    EXPECT_NE(output.find("(" + cause + ")"), std::string::npos) << output;
    EXPECT_EQ(calls({"explain", "--result", "run.pcapng"}).output, "none\n");
  }
};

TEST_F(ProgramTrial, PassesWithTheUnit) {
  EXPECT_EQ(tests(call(), "F_l_m_02PPT_PASSED"), 0);
  EXPECT_NE(output.find(" s  the unit PASSED\n"), std::string::npos) << output;
  const std::string last = "record: run.pcapng\n";
  EXPECT_EQ(output.substr(output.find(last) + last.size()), explained());
  EXPECT_EQ(output.find("WRONG      PPT server"), std::string::npos);
}

TEST_F(ProgramTrial, FailsWithTheUnit) {
  begins(call());
  serves();
  unit_gives("F_l_m_01MEMORY_FAILED");
  unit_gives("F_l_m_02PPT_FAILED");
  EXPECT_EQ(ends(), 1);
  EXPECT_NE(output.find(" s  step MEMORY FAILED\n"), std::string::npos) << output;
  EXPECT_NE(output.find(" s  the unit FAILED\n"), std::string::npos) << output;
}

TEST_F(ProgramTrial, SaysNothingButJsonOnStandardOutput) {
  begins(call({"--json"}));
  ASSERT_TRUE(wait_until([] { return whole_file("errors").find("the boot script") != std::string::npos; }));
  unit_gives("F_l_m_02PPT_PASSED");
  EXPECT_EQ(ends(), 0);
  EXPECT_EQ(output, explained("run.pcapng", {"--json"}));
  EXPECT_EQ(std::count(output.begin(), output.end(), '\n'), 1);
}

TEST_F(ProgramTrial, SaysWhatTheStationPrints) {
  EXPECT_EQ(tests(call({"--lines"}), "F_l_m_02PPT_PASSED"), 0);
  EXPECT_NE(output.find(" s  | Cmd received: F_l_m_02PPT_PASSED\n"), std::string::npos) << output;
  EXPECT_EQ(tests(call(), "F_l_m_02PPT_PASSED"), 0);
  EXPECT_EQ(output.find(" s  | "), std::string::npos) << output;
}

// From before the first line to after the last.
TEST_F(ProgramTrial, RecordsTheWholeRun) {
  EXPECT_EQ(tests(call(), "F_l_m_02PPT_PASSED"), 0);
  const Recorded record = recorded("run.pcapng");
  EXPECT_EQ(record.problem, "");
  EXPECT_EQ(record.lines().front(), "Starting TFTP server on 172.40.0.1:69 PPT Server: 172.30.0.254");
  EXPECT_EQ(record.lines().back(), "TFTP Server was shut down");
  ASSERT_EQ(record.said<record::StationEnds>().size(), 1U);
  EXPECT_EQ(record.said<record::StationEnds>().front().status, 2);
  EXPECT_GE(record.count("ZIRN install boot script"), 1U);
  EXPECT_EQ(record.count("F_l_m_02PPT_PASSED"), 1U);
  EXPECT_EQ(record.links.size(), 2U);
  EXPECT_FALSE(std::filesystem::exists("run.pcapng.part"));
}

TEST_F(ProgramTrial, RunsNothingWhereTheStationIsNotReady) {
  ip("link set lan0 down");
  begins(call());
  EXPECT_EQ(ends(), 3);
  EXPECT_EQ(output.find("WRONG      link up: lan0 is down. Then: no boot script. Do: ip link set lan0 up\n"),
            0U)
      << output;
  EXPECT_NE(output.find("the station is not ready: "), std::string::npos) << output;
  EXPECT_FALSE(std::filesystem::exists("run.pcapng.part") || std::filesystem::exists("run.pcapng"));
}

TEST_F(ProgramTrial, RunsAnyway) {
  std::filesystem::remove("bootscript.txt");
  EXPECT_EQ(tests(call({"--anyway"}), "F_l_m_02PPT_PASSED"), 0);
  EXPECT_NE(output.find("WRONG      bootscript.txt: "), std::string::npos) << output;
}

// It reads as failed to those who look at the flag alone.
TEST_F(ProgramTrial, SaysThatTheFlagIsThatOfTheRunBeforeAndRuns) {
  board->sets_variable("ppt_flag", "failed");
  EXPECT_EQ(tests(call(), "F_l_m_02PPT_PASSED"), 0);
  EXPECT_NE(output.find("WRONG      ppt_flag: envtool has ppt_flag=failed, of an earlier run."),
            std::string::npos);
}

TEST_F(ProgramTrial, RunsWithoutAPptServerAndSaysSo) {
  network->at_ppt_server([] { ip("link set ppt0 down"); });
  EXPECT_EQ(tests(call(), "F_l_m_02PPT_PASSED"), 0);
  EXPECT_NE(output.find("WRONG      PPT server: nobody answers for 172.30.0.254."), std::string::npos)
      << output;
}

TEST_F(ProgramTrial, RunsWithItsLinesAloneWithoutTheRightToRecord) {
  begins(call({"--anyway"}), [] { prctl(PR_CAPBSET_DROP, CAP_NET_RAW, 0, 0, 0); });
  ASSERT_TRUE(says("the station says: Can't create socket for ioctl calls"))
      << output << whole_file("errors");
  unit_gives("F_l_m_02PPT_PASSED");
  EXPECT_EQ(ends(), 0);
  EXPECT_NE(whole_file("errors").find("zirn-run: lan0: "), std::string::npos) << whole_file("errors");
  EXPECT_NE(output.find("  The record lacks: the frames\n"), std::string::npos) << output;
  EXPECT_EQ(recorded("run.pcapng").frames.size(), 0U);
}

TEST_F(ProgramTrial, TellsTheSecondWhoTests) {
  begins(call());
  serves();
  const Result second = calls({"test", "--record", "second.pcapng", "--", "-o", "172.40.0.1"});
  EXPECT_EQ(second.status, 3);
  const std::string who = "zirn-run: process " + std::to_string(program->pid()) + " tests a unit here since ";
  EXPECT_EQ(second.errors.substr(0, who.size()), who) << second.errors;
  EXPECT_EQ(second.output, "");
  unit_gives("F_l_m_02PPT_PASSED");
  EXPECT_EQ(ends(), 0);
  EXPECT_EQ(tests(call(), "F_l_m_02PPT_PASSED"), 0);
}

TEST_F(ProgramTrial, EndsTheStationWithSigint) {
  begins(call());
  serves();
  expect_ended_by(SIGINT, "boot.unanswered");
  EXPECT_NE(output.find("\n  Exit status: 2 ("), std::string::npos) << output;
}

TEST_F(ProgramTrial, EndsTheStationWithSigterm) {
  begins(call());
  serves();
  unit_gives("F_l_m_01MEMORY_PASSED");
  ASSERT_TRUE(says("step MEMORY passed"));
  expect_ended_by(SIGTERM, "end.sigterm");
  EXPECT_NE(output.find("\n  Exit status: 15 (SIGTERM)\n"), std::string::npos) << output;
}

TEST_F(ProgramTrial, EndsTheStationWhenItsTerminalIsClosed) {
  begins(call());
  serves();
  expect_ended_by(SIGHUP, "boot.unanswered");
}

TEST_F(ProgramTrial, GoesOnWithoutItsTerminalWhereItIsToldTo) {
  begins(call(), [] { signal(SIGHUP, SIG_IGN); });
  serves();
  program->send_signal(SIGHUP);
  unit_gives("F_l_m_02PPT_PASSED");
  EXPECT_EQ(ends(), 0);
}

TEST_F(ProgramTrial, EndsTheStationAfterTheTimeout) {
  begins(call({"--timeout", "0.5"}));
  EXPECT_EQ(ends(), 4);
  EXPECT_NE(output.find("it takes longer than it may: the station is asked to end"), std::string::npos);
  const std::vector<record::Timeout> said = recorded("run.pcapng").said<record::Timeout>();
  ASSERT_EQ(said.size(), 1U);
  EXPECT_EQ(said[0].after, 500'000'000);
  EXPECT_NE(output.find("(end.timeout)"), std::string::npos) << output;
}

TEST_F(ProgramTrial, NeedsNoSystemCallThatAnOlderKernelLacks) {
  begins(call(), [] {
    lacks_pidfd_open();
    signal(SIGCHLD, SIG_IGN);
  });
  serves();
  expect_ended_by(SIGTERM, "boot.unanswered");
  EXPECT_NE(output.find("\n  Exit status: 15 (SIGTERM)\n"), std::string::npos) << output;
}

TEST_F(ProgramTrial, KillsAStationThatDoesNotEnd) {
  begins(call({"--anyway", "--program", script("trap '' TERM\necho begun\nwhile :; do sleep 0.1; done\n")}));
  ASSERT_TRUE(says("the station says: begun")) << output;
  const auto start = std::chrono::steady_clock::now();
  program->send_signal(SIGTERM);
  EXPECT_EQ(ends(), 4);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
  EXPECT_NE(output.find("it does not end: the station is killed"), std::string::npos) << output;
  EXPECT_NE(output.find("(end.sigkill)"), std::string::npos) << output;
}

TEST_F(ProgramTrial, KillsAStationWhenAskedTwice) {
  begins(call({"--anyway", "--program", script("trap '' TERM\necho begun\nwhile :; do sleep 0.1; done\n")}));
  ASSERT_TRUE(says("the station says: begun")) << output;
  program->send_signal(SIGTERM);
  ASSERT_TRUE(says("the station is asked to end"));
  const auto start = std::chrono::steady_clock::now();
  program->send_signal(SIGTERM);
  EXPECT_EQ(ends(), 4);
  EXPECT_LE(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

TEST_F(ProgramTrial, LeavesNoStationWhenItIsKilled) {
  begins(call());
  serves();
  const std::vector<pid_t> stations = processes_of(TFTP_PROGRAM);
  ASSERT_EQ(stations.size(), 1U);
  kill(stations[0], SIGSTOP);  // so that it is still there when the next one comes
  program->send_signal(SIGKILL);
  EXPECT_EQ(ends(), -SIGKILL);
  const Result second = calls({"test", "--record", "second.pcapng", "--", "-o", "172.40.0.1"});
  EXPECT_EQ(second.status, 3) << second.output;
  EXPECT_NE(second.errors.find(" tested a unit here and was killed; the run is being ended\n"),
            std::string::npos)
      << second.errors;
  EXPECT_TRUE(wait_until([] { return !is_anything_left(); }, std::chrono::seconds(30)));
  EXPECT_EQ(calls({"explain", "--result", "run.pcapng.part"}).output, "none\n");
  EXPECT_EQ(tests(call(), "F_l_m_02PPT_PASSED"), 0);
}

TEST_F(ProgramTrial, SurvivesTheEndOfItsGuardian) {
  begins(call());
  serves();
  for (const pid_t process : processes_of(ZIRN_RUN_PROGRAM)) {
    if (process != program->pid()) kill(process, SIGKILL);
  }
  EXPECT_EQ(ends(), 4);
  EXPECT_NE(output.find("  Exit status: not known\n"), std::string::npos) << output;
}

// The voice service outlives the run, and has the station's output.
TEST_F(ProgramTrial, EndsWithTheStationWhateverThatLeavesRunning) {
  begins(call({"--anyway", "--program",
               script("sleep 60 &\necho $! > left\necho begun\nprintf unfinished\nexit 15\n")}));
  const int status = ends();
  kill(std::stoi(whole_file("left")), SIGKILL);
  EXPECT_EQ(status, 4);
  EXPECT_NE(output.find("the station says: unfinished\n"), std::string::npos) << output;
  EXPECT_NE(output.find("  Exit status: 15 (SIGTERM)\n"), std::string::npos) << output;
}

TEST_F(ProgramTrial, StartsTheStationAsAShellWould) {
  begins(call({"--anyway", "--program", script("kill -PIPE $$\n")}), [] { signal(SIGINT, SIG_IGN); });
  EXPECT_EQ(ends(), 4);
  EXPECT_NE(output.find("  Exit status: 141 ("), std::string::npos) << output;
  begins(call({"--anyway", "--program", script("kill -INT $$\n")}), [] { signal(SIGINT, SIG_IGN); });
  EXPECT_EQ(ends(), 4);
  EXPECT_NE(output.find("  Exit status: 130\n"), std::string::npos) << output;
}

// The recorder beside it gives way to it.
TEST_F(ProgramTrial, StartsTheStationNoNicerThanItIs) {
  begins(call({"--anyway", "--program", script("sleep 0.3\nnice > niceness\n")}));
  EXPECT_EQ(ends(), 4);
  EXPECT_EQ(whole_file("niceness"), std::to_string(getpriority(PRIO_PROCESS, 0)) + "\n");
}

TEST_F(ProgramTrial, HoldsNothingUpWhereNobodyReads) {
  constexpr char kMuch[] =
      "i=0\nwhile [ $i -lt 3000 ]; do echo \"line $i of very many lines that nobody reads\"; "
      "i=$((i+1)); done\necho done > done\nexec sleep 60\n";
  begins(call({"--anyway", "--lines", "--program", script(kMuch)}));
  EXPECT_TRUE(wait_until([] { return std::filesystem::exists("done"); }));
  program->send_signal(SIGTERM);
  EXPECT_EQ(ends(), 4);
  EXPECT_NE(output.find("line 2999 of very many"), std::string::npos);
}

TEST_F(ProgramTrial, RunsOnWhereTheDiskIsFull) {
  std::filesystem::create_directory("small");
  ASSERT_EQ(mount("none", "small", "tmpfs", 0, "size=64k"), 0);
  begins(
      {ZIRN_RUN_PROGRAM, "test", "--anyway", "--record", "small/run.pcapng", "--program",
       script("i=0\nwhile [ $i -lt 3000 ]; do echo \"Cmd received: F_l_m_01STEP_PASSED\"; i=$((i+1)); done\n"
              "sleep 1\necho 'Cmd received: F_l_m_02PPT_PASSED'\nexit 2\n"),
       "--", "-o", "172.40.0.1"});
  const int status = ends();
  const std::string errors = whole_file("errors");
  const std::string result = calls({"explain", "--result", "small/run.pcapng"}).output;
  umount("small");
  EXPECT_EQ(status, 0) << output;
  EXPECT_NE(errors.find("No space left on device; nothing more is recorded"), std::string::npos) << errors;
  EXPECT_EQ(result, "none\n");
}

TEST_F(ProgramTrial, ExplainsAsWellWhatTheRecordHasNoRoomFor) {
  std::filesystem::create_directory("small");
  ASSERT_EQ(mount("none", "small", "tmpfs", 0, "size=64k"), 0);
  write_whole_file("kernel.img", std::string(5000, 'k'));
  begins({ZIRN_RUN_PROGRAM, "test", "--record", "small/run.pcapng", "--", "-o", TestNetwork::kStation});
  serves();
  std::ofstream("small/filling") << std::string(100000, 'x');
  network->at_unit([] {
    const Sender unit(TestNetwork::kStation, 9);
    for (int i = 0; i < 10; ++i) unit.sends(std::string(1000, 'x'));
  });
  ASSERT_TRUE(
      wait_until([] { return whole_file("errors").find("nothing more is recorded") != std::string::npos; }));
  usleep(500000);
  network->at_unit([] {
    UdpPeer unit(TestNetwork::kUnit);
    unit.aims_at(TestNetwork::kStation, 69);
    unit.sends(tftp::rrq("kernel.img"));
    unit.expects(tftp::data(1, std::string(512, 'k')));
    unit.sends(tftp::error(3, "no room"));
  });
  usleep(500000);
  program->send_signal(SIGTERM);
  EXPECT_EQ(ends(), 4);
  umount("small");
  EXPECT_NE(output.find("(read.given-up)"), std::string::npos) << output;
}

TEST_F(ProgramTrial, KeepsItsRecordsInOneFolder) {
  std::filesystem::create_directories("/var/lib/zirn-runs");
  ASSERT_EQ(mount("none", "/var/lib/zirn-runs", "tmpfs", 0, nullptr), 0);
  write_whole_file("/var/lib/zirn-runs/20200101T000000Z-left.pcapng.part", "");
  EXPECT_EQ(tests({ZIRN_RUN_PROGRAM, "test", "--", "-o", "172.40.0.1"}, "F_l_m_02PPT_PASSED"), 0);
  std::vector<std::string> files;
  for (const auto& entry : std::filesystem::directory_iterator("/var/lib/zirn-runs"))
    files.push_back(entry.path());
  umount("/var/lib/zirn-runs");
  ASSERT_EQ(files.size(), 1U);
  EXPECT_EQ(std::filesystem::path(files.front()).extension(), ".pcapng");
  EXPECT_NE(output.find("record: " + files.front() + "\n"), std::string::npos) << output;
}

TEST_F(ProgramTrial, AnswersBeforeItKeepsTheFolderInOrder) {
  std::filesystem::create_directories("/var/lib/zirn-runs");
  ASSERT_EQ(mount("none", "/var/lib/zirn-runs", "tmpfs", 0, nullptr), 0);
  const char* const left = "/var/lib/zirn-runs/20200101T000000Z-left.pcapng.part";
  write_whole_file(left, "");
  ASSERT_EQ(mount(left, left, nullptr, MS_BIND, nullptr), 0);
  ASSERT_EQ(mount(nullptr, left, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0);
  begins({ZIRN_RUN_PROGRAM, "test", "--", "-o", TestNetwork::kStation},
         [] { dup2(STDOUT_FILENO, STDERR_FILENO); });
  serves();
  unit_gives("F_l_m_02PPT_PASSED");
  EXPECT_EQ(ends(), 0);
  umount(left);
  umount("/var/lib/zirn-runs");
  const auto answer = output.find("  Exit status: 2");
  const auto trouble = output.find(left + std::string(": Read-only file system\n"));
  EXPECT_LT(answer, trouble) << output;
  EXPECT_NE(trouble, std::string::npos) << output;
}

const std::vector<std::string> kStationsRecorder = {ZIRN_RUN_PROGRAM, "record", "--service", "--folder",
                                                    "runs",           "-i",     "lan0"};

TEST_F(ProgramTrial, HasTheOnlyRecordOfItsRunInTheFolder) {
  std::filesystem::create_directories("/var/lib/zirn-runs");
  ASSERT_EQ(mount("none", "/var/lib/zirn-runs", "tmpfs", 0, nullptr), 0);
  begins({ZIRN_RUN_PROGRAM, "test", "--", "-o", TestNetwork::kStation});
  serves();
  Process recorder(kStationsRecorder, [] { append_errors_to("errors of the recorder"); });
  const auto end = recorder.wait_for_end();
  if (!end) recorder.send_signal(SIGTERM);
  EXPECT_TRUE(end && status_number(end) == 0);
  EXPECT_EQ(whole_file("errors of the recorder"), "zirn-run: zirn-run test records this run itself\n");
  EXPECT_FALSE(std::filesystem::exists("runs"));
  unit_gives("F_l_m_02PPT_PASSED");
  EXPECT_EQ(ends(), 0);
  umount("/var/lib/zirn-runs");
}

TEST_F(ProgramTrial, LeavesTheFolderToTheStationsRecorderWhereItsOwnRecordIsElsewhere) {
  begins(call());
  serves();
  std::filesystem::create_directory("runs");
  Process recorder(kStationsRecorder, [] { append_errors_to("errors of the recorder"); });
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (std::filesystem::is_empty("runs") && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_FALSE(std::filesystem::is_empty("runs")) << whole_file("errors of the recorder");
  recorder.send_signal(SIGTERM);
  recorder.wait_for_end();
  unit_gives("F_l_m_02PPT_PASSED");
  EXPECT_EQ(ends(), 0);
}

TEST_F(ProgramTrial, RefusesAWrongCall) {
  EXPECT_EQ(calls({"test", "--timeout", "0"}).status, 2);
  EXPECT_EQ(calls({"test", "--programs"}).status, 2);
}

TEST_F(ProgramTrial, SaysWhyNoRunCouldBeBegun) {
  expect_refused({"test", "--record", "run.pcapng", "--program", "nothing", "--", "-o", "172.40.0.1"}, 3,
                 "zirn-run: " + folder->file("nothing") + ": No such file or directory");
  expect_refused({"test", "--record", "no/run.pcapng", "--", "-o", "172.40.0.1"}, 3,
                 "zirn-run: no/run.pcapng.part: No such file or directory");
  EXPECT_FALSE(std::filesystem::exists("run.pcapng.part"));
}

}  // namespace
