// The program zirn-run as it is called.
#include "zirn_run/called_program.h"
#include "zirn_run/made_capture.h"

namespace {

using Words = std::vector<std::string>;

class ProgramCall : public CalledProgram {};

TEST_F(ProgramCall, SaysItsVersionAndHowItIsCalled) {
  EXPECT_EQ(calls({"--version"}).output, "zirn-run " PROJECT_VERSION "\n");
  const Result help = calls({"--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_NE(help.output.find("draw"), std::string::npos) << help.output;
  EXPECT_EQ(help.errors, "");
  EXPECT_NE(calls({"draw", "--help"}).output.find("--journal FILE"), std::string::npos);
}

TEST_F(ProgramCall, RefusesAWrongCall) {
  expect_refused({}, 2, "A command is required");
  expect_refused({"drow"}, 2, "The following argument was not expected: drow");
  expect_refused({"draw"}, 2, "FILE is required");
  expect_refused({"draw", "a", "--fold", "--unfold"}, 2, "--fold excludes --unfold");
  expect_refused({"draw", "a", "--journal", "b", "--log", "c"}, 2, "--journal excludes --log");
  expect_refused({"draw", "a", "--unit", "5"}, 2, "--unit: expected an address as 172.40.0.2, found 5");
  for (const char* const command : {"draw", "explain", "scenario"}) {
    expect_refused({command, "-", "--log", "a"}, 2,
                   "--log: expected a FILE beside it, found standard input, which cannot be read twice");
    expect_refused({command, "-", "--journal", "-"}, 2,
                   "--journal: expected a FILE beside it, found standard input, which is both");
  }
  expect_refused({"record", "-o", "a"}, 2, "--interface is required");
  expect_refused({"record", "-i", "lo,lo", "-o", "a"}, 2,
                 "zirn-run: expected each link once (-i), found lo twice: its frames would be, too");
  expect_refused({"record", "-i", "lo", "-i", "any", "-o", "a"}, 2,
                 "zirn-run: expected no link beside \"any\" (-i): its frames would be there twice");
  expect_refused({"record", "-i", "lo"}, 2, "zirn-run: expected either a file (-o) or --service");
  expect_refused({"record", "-i", "lo", "-o", "a", "--unit", "b", "--log", "c"}, 2, "--unit excludes --log");
  expect_refused({"record", "-i", "lo", "-o", "a", "--pid", "5"}, 2, "--pid requires --log");
  expect_refused({"record", "-i", "lo", "-o", "a", "--limit", "2G"}, 2, "--limit requires --service");
  expect_refused({"record", "-i", "lo", "--service", "-o", "a"}, 2, "--output excludes --service");
}

TEST_F(ProgramCall, RefusesANumberThatIsNone) {
  for (const char* const number : {"nan", "-nan", "inf", "-1", "1e300", "soon"}) {
    const auto expect = [&](Words call, const std::string& option, const std::string& range) {
      call.insert(call.end(), {option, number});
      expect_refused(call, 2, option + ": expected a number from " + range + ", found " + number);
    };
    expect({"draw", "a"}, "--from", "0 to 1000000000");
    expect({"draw", "a"}, "--until", "0 to 1000000000");
    expect({"watch", "a"}, "--speed", "0.001 to 1000000");
    expect({"collect", "a"}, "--patience", "0 to 86400");
    expect({"test"}, "--timeout", "0.001 to 1000000000");
  }
  for (const char* const size : {"-1", " -1", "-0", "-1G"})
    expect_refused({"record", "-i", "lo", "--service", "--folder", "a", "--limit", size}, 2,
                   std::string("--limit: expected a size as 2G, found ") + size);
  EXPECT_EQ(calls({"record", "-i", "lo", "--service", "--limit", "nan"}).status, 2);
}

// A name from outside may hold what a terminal obeys.
TEST_F(ProgramCall, ShowsWhatACallHoldsWithoutObeyingIt) {
  const std::string odd = "\x1b[2J\n\xff";
  const std::string shown = "\\x1b[2J\\x0a\\xff";
  expect_refused({odd}, 2, "The following argument was not expected: " + shown);
  expect_refused({"check", "--" + odd}, 2, "The following argument was not expected: --" + shown);
  expect_refused({"draw", "a", "--unit", odd}, 2,
                 "--unit: expected an address as 172.40.0.2, found " + shown);
  expect_refused(
      {"record", "-i", odd, "-i", odd, "-o", "a"}, 2,
      "zirn-run: expected each link once (-i), found " + shown + " twice: its frames would be, too");
  expect_refused({"record", "-i", "lo", "-o", odd + "/a"}, 3,
                 "zirn-run: " + shown + "/a.part: No such file or directory");
}

TEST_F(ProgramCall, RefusesLinesBesideARecordThatHasThem) {
  const std::string entry = "__REALTIME_TIMESTAMP=1700000000000001\nMESSAGE=a\nSYSLOG_IDENTIFIER=TFTP\n\n";
  write_whole_file("run", MadeCapture().read("kernel.img").contents() +
                              MadeRecord::in_order_of_this_machine().journal(entry));
  write_whole_file("journal", entry);
  for (const char* const command : {"draw", "explain"}) {
    expect_refused({command, "run", "--journal", "journal"}, 2,
                   "--journal: expected a capture without the station's lines beside it, found them in run");
    expect_refused({command, "run", "--log", "journal"}, 2,
                   "--log: expected a capture without the station's lines beside it, found them in run");
  }
}

TEST_F(ProgramCall, NamesAFileThatCannotBeUsed) {
  write_whole_file("run", MadeCapture().read("kernel.img").contents());
  expect_refused({"draw", "missing"}, 3, "zirn-run: missing: No such file or directory");
  expect_refused({"draw", "\x1b[2Ja\nb"}, 3, "zirn-run: \\x1b[2Ja\\x0ab: No such file or directory");
  expect_refused({"draw", "run", "-o", "\x1b/b"}, 3, "zirn-run: \\x1b/b: No such file or directory");
  expect_refused({"draw", "run", "-o", "none/picture.svg"}, 3,
                 "zirn-run: none/picture.svg: No such file or directory");
  expect_refused({"draw", "run", "-o", "/dev/full"}, 3, "zirn-run: /dev/full: No space left on device");
  expect_refused({"draw", "run", "-o", "./run"}, 3,
                 "zirn-run: ./run: expected a file for the picture, found what is to be drawn");
  EXPECT_EQ(whole_file("run"), MadeCapture().read("kernel.img").contents());
  for (const char* const command : {"draw", "explain"}) {
    expect_refused({command, "run", "--log", "run"}, 3,
                   "zirn-run: run: expected the station's lines, found a pcapng file");
    expect_refused(
        {command, "run", "--journal", "run"}, 3,
        "zirn-run: run: expected the journal as `journalctl -o export` writes it, found a pcapng file");
  }
}

// The last one's record goes on.
TEST_F(ProgramCall, SaysThatStandardOutputCannotBeWritten) {
  const std::string run = MadeCapture().verdict("F_l_m_02PPT_PASSED", 2002).contents();
  write_whole_file("run", run);
  for (const char* const call :
       {"draw run", "explain run", "explain --json run run", "explain --result run", "explain --causes",
        "scenario run", "collect --into runs.db run", "report --csv runs.db", "watch run", "watch -"}) {
    Process program({"sh", "-c", "exec '" ZIRN_RUN_PROGRAM "' " + std::string(call) + " 2>&1 >/dev/full"});
    program.write_text(run);
    EXPECT_EQ(status_number(program.wait_for_end(kPatience)), 3) << call;
    EXPECT_EQ(program.read_text(), "zirn-run: standard output: No space left on device\n") << call;
  }
}

}  // namespace
