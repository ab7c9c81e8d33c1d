// `zirn-run watch`: in lines, and in a terminal, key by key.
#include <csignal>
#include <fstream>

#include "support/sandbox.h"
#include "support/test_network.h"
#include "zirn_run/called_program.h"
#include "zirn_run/made_capture.h"
#include "zirn_run/recording.h"
#include "zirn_run/tmux_terminal.h"

namespace {

using Words = std::vector<std::string>;

MadeCapture a_run() {
  MadeCapture run;
  run.read("kernel.img").verdict("F_l_m_01MEMORY_PASSED", 2001);
  run.rests(1000);
  run.verdict("F_l_m_02PPT_PASSED", 2002);
  return run;
}

class ProgramWatch : public CalledProgram {};

TEST_F(ProgramWatch, PrintsALineForEachEventWithoutATerminal) {
  write_whole_file("run", a_run().contents());
  const Result result = calls({"watch", "run"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.errors, "");
  EXPECT_EQ(result.output,
            "    0.000  unit > station: read kernel.img\n"
            "    0.002  unit > station: kernel.img, 8 bytes in 0.001 s\n"
            "    0.003  unit > station: read F_l_m_01MEMORY_PASSED\n"
            "    1.006  unit > station: read F_l_m_02PPT_PASSED\n"
            "    1.008  the unit PASSED, 1 file read, 1 step reported\n");
  EXPECT_EQ(calls({"watch", "-"}, whole_file("run")).output, result.output);
}

TEST_F(ProgramWatch, PrintsWhatComesAtOnce) {
  const std::string run = a_run().contents();
  const std::string beginning = MadeCapture().read("kernel.img").contents();
  Process program({ZIRN_RUN_PROGRAM, "watch", "-"});
  program.write_text(beginning);
  std::string output;
  EXPECT_TRUE(wait_until(
      [&] { return (output += program.read_text()).find("read kernel.img") != std::string::npos; }));
  EXPECT_FALSE(program.end());
  program.write_text(run.substr(beginning.size()));
  program.close_input();
  EXPECT_EQ(status_number(program.wait_for_end(kPatience)), 0);
  EXPECT_NE(program.read_text().find("the unit PASSED"), std::string::npos);
}

TEST_F(ProgramWatch, PlaysAFileAtItsPace) {
  write_whole_file("run", a_run().contents());
  const auto begin = std::chrono::steady_clock::now();
  const Result result = calls({"watch", "--speed", "2", "run"});
  const auto took = std::chrono::steady_clock::now() - begin;
  EXPECT_EQ(result.output, calls({"watch", "run"}).output);
  EXPECT_GE(took, std::chrono::milliseconds(500)) << "1.008 s, twice as fast";
}

TEST_F(ProgramWatch, NamesWhatItCannotWatch) {
  expect_refused({"watch", "absent"}, 3, "zirn-run: absent: No such file or directory");
  write_whole_file("text", "no record at all, but a text");
  expect_refused({"watch", "text"}, 3, "zirn-run: text: expected a pcapng or pcap file, found text");
  expect_refused({"watch"}, 2, "FILE or -i is required");
  expect_refused({"watch", "-i", "lan0", "run"}, 2, "FILE excludes --interface");
  expect_refused({"watch", "--speed", "2", "-"}, 2, "--speed: expected a file, which alone can be played");
}

TEST_F(ProgramWatch, SaysWhatToDoWithWhatIsPacked) {
  write_whole_file("run", a_run().contents());
  const auto watches = [](const std::string& command) {
    Process program({"sh", "-c", command + " 2>&1"});
    const int status = status_number(program.wait_for_end(kPatience));
    return program.read_text() + std::to_string(status);
  };
  const std::string watch = "'" ZIRN_RUN_PROGRAM "' watch ";
  EXPECT_EQ(
      watches("gzip -c run | " + watch + "-"),
      "zirn-run: standard input: expected a pcapng or pcap file, found gzip data; before the pipe, \"gzip "
      "-dc\" unpacks it\n3");
  const std::string plain = watches(watch + "run");
  EXPECT_NE(plain.find("the unit PASSED"), std::string::npos) << plain;
  EXPECT_EQ(watches("gzip -c run | gzip -dc | " + watch + "-"), plain);
  EXPECT_EQ(watches("gzip run && " + watch + "run.gz"), plain);
}

TEST_F(ProgramWatch, SaysThatARecordIsCutShort) {
  const std::string whole = a_run().contents();
  write_whole_file("run", whole.substr(0, whole.size() - 10));
  const Result result = calls({"watch", "run"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.errors.rfind("zirn-run: run: byte ", 0), 0U) << result.errors;
}

TEST_F(ProgramWatch, WatchesLinksAndNamesThoseThatAreThere) {
  NEEDS_SANDBOX();
  const TestNetwork network;
  expect_refused({"watch", "-i", "lan1"}, 3, "zirn-run: lan1: no such link; there are: lo lan0 ppt0");
  Process program({ZIRN_RUN_PROGRAM, "watch", "-i", "lan0,ppt0,lan7"}, [] { append_errors_to("errors"); });
  const Sender sender(TestNetwork::kUnit, 12345);
  std::string output;
  EXPECT_TRUE(wait_until([&] {
    sender.sends("here");
    usleep(50000);
    return (output += program.read_text()).find("datagram to port 12345, 4 bytes") != std::string::npos;
  })) << output;
  EXPECT_NE(output.find("frames are missing: lan7: no such link\n"), std::string::npos) << output;
  EXPECT_EQ(whole_file("errors").rfind("zirn-run: lan7: no such link; there are: lo ", 0), 0U);
  program.send_signal(SIGTERM);
  EXPECT_EQ(status_number(program.wait_for_end()), -SIGTERM);
}

TEST_F(ProgramWatch, WatchesWhatAnotherRecorderWrites) {
  NEEDS_SANDBOX();
  const TestNetwork network;
  Process both({"sh", "-c", "'" ZIRN_RUN_PROGRAM "' record -i lan0 -o - | '" ZIRN_RUN_PROGRAM "' watch -"});
  const Sender sender(TestNetwork::kUnit, 12345);
  std::string output;
  EXPECT_TRUE(wait_until([&] {
    sender.sends("here");
    usleep(50000);
    return (output += both.read_text()).find("datagram to port 12345, 4 bytes") != std::string::npos;
  })) << output;
}

// In a terminal.
class ProgramWatchInTerminal : public testing::Test {
 protected:
  static constexpr char kHints[] =
      "q quit  Enter unfold  / search  p pause  s save  d draw  End follow  ? help\n";

  void SetUp() override {
    if (!TmuxTerminal::is_possible()) GTEST_SKIP() << "no tmux";
    terminal_ = std::make_unique<TmuxTerminal>(80, 12);
    terminal_->runs("PATH='" + std::filesystem::path(ZIRN_RUN_PROGRAM).parent_path().string() +
                    "':$PATH; clear");
    write_whole_file("run", a_run().contents());
  }
  // Shows so much of the run, and waits for more.
  std::ofstream feeds(const std::string& beginning) {
    EXPECT_EQ(std::system("mkfifo pipe"), 0);
    terminal_->runs("zirn-run watch - < pipe; echo status $?");
    std::ofstream pipe("pipe", std::ios::binary);
    pipe << beginning << std::flush;
    return pipe;
  }

  const ScratchDirectory directory_;
  std::unique_ptr<TmuxTerminal> terminal_;
};

TEST_F(ProgramWatchInTerminal, IsDrivenKeyByKey) {
  terminal_->runs("zirn-run watch run");
  ASSERT_TRUE(terminal_->shows("ended")) << terminal_->screen();
  const std::string head =
      "zirn-run watch  run                                                 1.0 s  ended\n"
      "the unit PASSED, 1 file read, 1 step reported\n"
      "nothing points to a fault\n"
      "     time board station unit    PPT\n";
  const std::string rows =
      "    0.000   │      │═════>│      │  kernel.img, 8 bytes in 0.001 s\n"
      "    0.003   │      │<─────│      │  read F_l_m_01MEMORY_PASSED, answered\n"
      "    1.006   │      │<─────│      │  read F_l_m_02PPT_PASSED, answered\n";
  EXPECT_EQ(terminal_->screen(), head + rows + "\n\n\n\n" + kHints);
  terminal_->presses({"Home", "Enter"});
  EXPECT_TRUE(terminal_->shows("frames 1 to 3"));
  EXPECT_EQ(terminal_->screen(),
            head +
                "    0.000   │      │═════>│      │  kernel.img, 8 bytes in 0.001 s\n"
                "        0.000  unit > station: read kernel.img\n"
                "        0.001  station > unit: DATA 1, 8 bytes, ACK 1\n"
                "               8 bytes, 1 block of 512 bytes\n"
                "               0.001 s, 7.8 KiB/s\n"
                "               frames 1 to 3\n"
                "    0.003   │      │<─────│      │  read F_l_m_01MEMORY_PASSED, answered\n" +
                kHints);
  terminal_->presses({"Enter", "?"});
  EXPECT_TRUE(terminal_->shows("Home g, End G        to the beginning; to the end, and follow it"));
  terminal_->presses({"x", "/", "2", "p", "p", "t"});
  EXPECT_TRUE(terminal_->shows("/2ppt")) << terminal_->screen();
  terminal_->presses({"Enter"});
  EXPECT_TRUE(terminal_->shows(kHints));
  EXPECT_EQ(terminal_->screen(), head + rows + "\n\n\n\n" + kHints);
  EXPECT_NE(terminal_->screen(true).find("7m\x1b[39m    1.006"), std::string::npos)
      << terminal_->screen(true);
}

TEST_F(ProgramWatchInTerminal, GoesWithTheWheelAndTheSizeOfTheTerminal) {
  MadeCapture run;
  for (int i = 1; i <= 20; ++i) run.request("file" + std::to_string(i), static_cast<std::uint16_t>(2000 + i));
  write_whole_file("run", run.contents());
  terminal_->runs("zirn-run watch run");
  ASSERT_TRUE(terminal_->shows("read file20"));
  EXPECT_EQ(terminal_->screen().find("read file13"), std::string::npos);
  terminal_->presses({"PPage"});
  EXPECT_TRUE(terminal_->shows("read file13,")) << terminal_->screen();
  terminal_->presses({"NPage", "End"});
  EXPECT_TRUE(terminal_->shows("read file20"));
  for (int i = 0; i < 4; ++i) terminal_->turns_the_wheel(true);
  EXPECT_TRUE(terminal_->shows("read file8")) << terminal_->screen();
  EXPECT_TRUE(terminal_->no_longer_shows("read file20"));
  terminal_->is_resized(50, 30);
  EXPECT_TRUE(terminal_->shows("one lane: fewer than 60 columns")) << terminal_->screen();
  EXPECT_TRUE(terminal_->shows("unit > station: read file1,")) << terminal_->screen();
  for (int i = 0; i < 4; ++i) terminal_->turns_the_wheel(false);
  EXPECT_TRUE(terminal_->shows("read file20"));
}

TEST_F(ProgramWatchInTerminal, FollowsAPipePausesAndGoesOn) {
  const std::string first = MadeCapture().read("kernel.img").contents();
  std::ofstream pipe = feeds(first);
  ASSERT_TRUE(terminal_->shows("kernel.img, 8 bytes")) << terminal_->screen();
  EXPECT_NE(terminal_->screen().find("live\n"), std::string::npos) << terminal_->screen();
  terminal_->presses({"p"});
  EXPECT_TRUE(terminal_->shows("PAUSED"));
  pipe << a_run().contents().substr(first.size()) << std::flush;
  usleep(500000);
  EXPECT_EQ(terminal_->screen().find("MEMORY_PASSED"), std::string::npos);
  terminal_->presses({"p"});
  EXPECT_TRUE(terminal_->shows("MEMORY_PASSED")) << terminal_->screen();
  pipe.close();
  EXPECT_TRUE(terminal_->shows("ended"));
  terminal_->presses({"q"});
  EXPECT_TRUE(terminal_->shows("status 0"));
}

TEST_F(ProgramWatchInTerminal, SavesTheRecordSoFarAndThePicture) {
  const std::string first = MadeCapture().read("kernel.img").contents();
  std::ofstream pipe = feeds(first);
  ASSERT_TRUE(terminal_->shows("kernel.img, 8 bytes"));
  terminal_->presses({"s"});
  EXPECT_TRUE(terminal_->shows("saved: run-20231114T221320Z.pcapng")) << terminal_->screen();
  EXPECT_EQ(whole_file("run-20231114T221320Z.pcapng"), first);
  pipe << a_run().contents().substr(first.size()) << std::flush;
  ASSERT_TRUE(terminal_->shows("PPT_PASSED"));
  terminal_->presses({"s"});
  EXPECT_TRUE(terminal_->shows("saved: run-20231114T221320Z-2.pcapng")) << terminal_->screen();
  EXPECT_EQ(whole_file("run-20231114T221320Z-2.pcapng"), a_run().contents());
  terminal_->presses({"d"});
  EXPECT_TRUE(terminal_->shows("drawn: run-20231114T221320Z.svg")) << terminal_->screen();
  EXPECT_NE(whole_file("run-20231114T221320Z.svg").find("PPT_PASSED"), std::string::npos);
}

TEST_F(ProgramWatchInTerminal, SaysWhyItCannotSave) {
  const std::string first = MadeCapture().read("kernel.img").contents();
  terminal_->runs("TMPDIR=/nowhere; export TMPDIR");
  std::ofstream pipe = feeds(first);
  ASSERT_TRUE(terminal_->shows("kernel.img, 8 bytes")) << "what comes is shown all the same";
  terminal_->presses({"s"});
  EXPECT_TRUE(
      terminal_->shows("not saved: run-20231114T221320Z.pcapng: cut short: No such file or directory"))
      << terminal_->screen();
  terminal_->presses({"p"});
  EXPECT_TRUE(terminal_->shows("PAUSED"));
  pipe << a_run().contents().substr(first.size()) << std::flush;
  terminal_->presses({"p"});
  EXPECT_TRUE(terminal_->shows("PPT_PASSED")) << terminal_->screen();
}

TEST_F(ProgramWatchInTerminal, LeavesTheTerminalAsItWasHoweverItEnds) {
  const auto is_as_it_was = [this](int status) {
    EXPECT_TRUE(terminal_->shows("before\n"));
    terminal_->runs("echo status $?");
    EXPECT_TRUE(terminal_->shows("status " + std::to_string(status) + "\n")) << terminal_->screen();
  };
  for (const auto& [key, status] : {std::pair("q", 0), std::pair("C-c", 130), std::pair("C-\\", 131)}) {
    terminal_->runs("clear; echo bef'ore'; zirn-run watch run");
    ASSERT_TRUE(terminal_->shows("ended"));
    EXPECT_EQ(terminal_->screen().find("before"), std::string::npos);
    terminal_->presses({key});
    is_as_it_was(status);
  }
  for (const int number : {SIGTERM, SIGHUP}) {
    terminal_->runs("clear; echo bef'ore'; sh -c 'echo $$ > pid; exec zirn-run watch run'");
    ASSERT_TRUE(terminal_->shows("ended"));
    kill(std::stoi(whole_file("pid")), number);
    is_as_it_was(128 + number);
  }
}

TEST_F(ProgramWatchInTerminal, NamesATerminalThatIsNotKnown) {
  terminal_->runs("clear; TERM=no-such-terminal zirn-run watch run; echo status $?");
  EXPECT_TRUE(terminal_->shows("zirn-run: TERM is \"no-such-terminal\": expected ")) << terminal_->screen();
  EXPECT_TRUE(terminal_->shows("status 3\n")) << terminal_->screen();
}

TEST_F(ProgramWatchInTerminal, SaysThatThereIsNoTerminalToReadKeysFrom) {
  terminal_->runs("clear; setsid --wait zirn-run watch - < run; echo status $?");
  EXPECT_TRUE(terminal_->shows("zirn-run: /dev/tty, where the keys are read: ")) << terminal_->screen();
  EXPECT_TRUE(terminal_->shows("status 3\n")) << terminal_->screen();
}

TEST_F(ProgramWatchInTerminal, IsStoppedAndGoesOnWhereItWas) {
  terminal_->runs("clear; echo bef'ore'; zirn-run watch run");
  ASSERT_TRUE(terminal_->shows("ended"));
  terminal_->presses({"Home", "Enter"});
  ASSERT_TRUE(terminal_->shows("frames 1 to 3"));
  const std::string screen = terminal_->screen();
  terminal_->presses({"C-z"});
  EXPECT_TRUE(terminal_->shows("before\n")) << terminal_->screen();
  EXPECT_TRUE(terminal_->shows("Stopped")) << terminal_->screen();
  terminal_->runs("stty -a | grep -o ' icanon'");
  EXPECT_TRUE(terminal_->shows("\n icanon\n")) << terminal_->screen();
  terminal_->runs("fg");
  EXPECT_TRUE(terminal_->shows("frames 1 to 3")) << terminal_->screen();
  EXPECT_EQ(terminal_->screen(), screen);
  terminal_->presses({"C-z"});
  ASSERT_TRUE(terminal_->shows("Stopped"));
  terminal_->is_resized(100, 12);
  terminal_->runs("fg");
  EXPECT_TRUE(terminal_->shows(std::string(68, ' ') + " 1.0 s  ended\n")) << terminal_->screen();
  terminal_->presses({"q"});
  terminal_->runs("echo status $?");
  EXPECT_TRUE(terminal_->shows("status 0\n")) << terminal_->screen();
}

TEST_F(ProgramWatchInTerminal, HasColoursUnlessTheyAreNotWanted) {
  terminal_->runs("zirn-run watch run");
  ASSERT_TRUE(terminal_->shows("ended"));
  EXPECT_NE(terminal_->screen(true).find("\x1b[32mthe unit PASSED"), std::string::npos)
      << terminal_->screen(true);
  terminal_->presses({"q"});
  ASSERT_TRUE(terminal_->no_longer_shows("ended"));
  terminal_->runs("clear; NO_COLOR=1 zirn-run watch run");
  ASSERT_TRUE(terminal_->shows("ended"));
  for (const char* const colour : {"[31m", "[32m", "[35m"})
    EXPECT_EQ(terminal_->screen(true).find(colour), std::string::npos) << terminal_->screen(true);
  terminal_->presses({"q"});
  ASSERT_TRUE(terminal_->no_longer_shows("ended"));
  terminal_->runs("clear; NO_COLOR= zirn-run watch run");
  ASSERT_TRUE(terminal_->shows("ended"));
  EXPECT_NE(terminal_->screen(true).find("\x1b[32mthe unit PASSED"), std::string::npos)
      << terminal_->screen(true);
}

TEST_F(ProgramWatchInTerminal, IsNotMovedByWhatComesFromTheWire) {
  write_whole_file("run", MadeCapture().request("\x1b[H\x1b[2J\a\nname", 2000).contents());
  terminal_->runs("zirn-run watch run");
  EXPECT_TRUE(terminal_->shows("read \\x1b[H\\x1b[2J\\x07\\x0aname")) << terminal_->screen();
}

TEST_F(ProgramWatchInTerminal, DrawsWithAsciiWhereThereIsNoUtf8) {
  terminal_->runs("LC_ALL=C zirn-run watch run");
  EXPECT_TRUE(terminal_->shows("    0.000   |      |=====>|      |  kernel.img, 8 bytes"))
      << terminal_->screen();
}

TEST_F(ProgramWatchInTerminal, ShowsLinksAndWhatTheRecorderSaysOfThem) {
  NEEDS_SANDBOX();
  const TestNetwork network;
  terminal_->is_resized(120, 12);
  terminal_->runs("zirn-run watch -i lan0,lan7; echo status $?");
  ASSERT_TRUE(terminal_->shows("live")) << terminal_->screen();
  EXPECT_TRUE(terminal_->shows("zirn-run: lan7: no such link; there are: lo ")) << terminal_->screen();
  const Sender sender(TestNetwork::kUnit, 12345);
  EXPECT_TRUE(wait_until([&] {
    sender.sends("here");
    usleep(50000);
    return terminal_->screen().find("datagram to port 12345, 4 bytes") != std::string::npos;
  })) << terminal_->screen();
  terminal_->presses({"q"});
  EXPECT_TRUE(terminal_->shows("status 0"));
  EXPECT_TRUE(terminal_->shows("zirn-run: lan7: no such link")) << "it is not lost with the screen";
  terminal_->runs("clear; zirn-run watch -i lan7; echo status $?");
  EXPECT_TRUE(terminal_->shows("status 3"));
  EXPECT_TRUE(terminal_->shows("zirn-run: lan7: no such link; there are: lo "));
}

}  // namespace
