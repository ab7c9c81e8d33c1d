// `zirn-run scenario --check`.
#include <filesystem>

#include "zirn_run/called_program.h"

namespace {

constexpr char kScenario[] =
    "# A short run\n"
    "file kernel.img is 3 KiB\n"
    "file notes.txt holds \"as it was\"\n"
    "station starts\n"
    "unit hears the boot script\n"
    "unit reads kernel.img blksize 1428\n"
    "unit reads notes.txt\n"
    "unit reads F_l_m_01MEMORY_PASSED\n"
    "ppt hears F_l_m_01CPU_2_MEMORY_PASSED\n"
    "unit reads F_l_m_02PPT_PASSED\n"
    "station exits 2\n"
    "fault is none by passed\n";

class ProgramReplay : public CalledProgram {
 protected:
  void SetUp() override {
    write_whole_file("short.run", kScenario);
    Program bench({BENCH_PROGRAM, TFTP_PROGRAM, "short.run", "."});
    const int status = bench.exit_status(kPatience);
    if (status == kNotAllowed) GTEST_SKIP() << bench.output();
    ASSERT_EQ(status, 0) << bench.output();
  }
  static constexpr int kNotAllowed = 77;
};

constexpr char kAsPicture[] =
    "both as a picture: zirn-run draw short.pcapng --beside short.again.pcapng -o short.again.svg\n";

TEST_F(ProgramReplay, SaysThatTheSameHappens) {
  const Result result = calls({"scenario", "--check", "short.pcapng"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.errors, "");
  EXPECT_EQ(result.output,
            std::string("the same happens in short.pcapng and in short.again.pcapng\n") + kAsPicture);
  EXPECT_EQ(calls({"explain", "--result", "short.again.pcapng"}).output, "passed\n");
}

TEST_F(ProgramReplay, ServesTheFilesOfTheRecord) {
  EXPECT_EQ(calls({"scenario", "--check", "short.pcapng", "--files", "files"}).status, 0);
  EXPECT_EQ(whole_file("files/notes.txt"), "as it was");
  const Result again = calls({"scenario", "short.again.pcapng", "--files", "again"});
  EXPECT_NE(again.output.find("\nfile notes.txt comes from again/notes.txt\n"), std::string::npos)
      << again.output;
  EXPECT_EQ(whole_file("again/notes.txt"), "as it was");
  EXPECT_EQ(whole_file("again/kernel.img").size(), 3072U);
}

TEST_F(ProgramReplay, NamesTheFirstDifferenceOfAScenarioThatWasChanged) {
  std::string changed = kScenario;
  changed.replace(changed.find("blksize 1428"), 12, "blksize 1024");
  write_whole_file("changed.run", changed);
  const Result result = calls({"scenario", "--check", "short.pcapng", "changed.run", "--record", "new"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.errors, "");
  EXPECT_EQ(result.output.rfind("the first difference:\n  short.pcapng: unit reads kernel.img, asks for ", 0),
            0U)
      << result.output;
  for (const char* const part : {"blksize=1428", "\n  new: unit reads kernel.img, asks for ", "blksize=1024",
                                 ": arrives, 3072 bytes (frames "})
    EXPECT_NE(result.output.find(part), std::string::npos) << part << " in " << result.output;
  EXPECT_EQ(result.output.find("the bench: "), std::string::npos) << result.output;
}

TEST_F(ProgramReplay, SaysWhatTheBenchFoundWrong) {
  std::string changed = kScenario;
  changed.replace(changed.find("exits 2"), 7, "exits 3");
  write_whole_file("changed.run", changed);
  const Result result = calls({"scenario", "--check", "short.pcapng", "changed.run"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.output.rfind("the records show no difference\nthe bench: line 11, station exits 3: ", 0),
            0U)
      << result.output;
}

TEST_F(ProgramReplay, RefusesWhatItCannotDo) {
  expect_refused(
      {"scenario", "--check", "short.pcapng", "--bench", "/missing"}, 3,
      "zirn-run: /missing: expected the virtual bench's program, which is built with the project's "
      "sources: --bench FILE");
  expect_refused({"scenario", "--check", "short.pcapng", "--program", "missing"}, 3,
                 "zirn-run: missing: expected the station's program");
  expect_refused({"scenario", "--check", "short.pcapng", "--record", "./short.pcapng"}, 3,
                 "zirn-run: ./short.pcapng: expected a file for the replay's record, found short.pcapng");
  write_whole_file("no-bench",
                   "#!/bin/sh\necho 'bench: not possible on this machine: no tun' >&2\nexit 77\n");
  std::filesystem::permissions("no-bench", std::filesystem::perms::owner_all);
  expect_refused({"scenario", "--check", "short.pcapng", "--bench", "no-bench"}, 3,
                 "zirn-run: bench: not possible on this machine: no tun");
  write_whole_file("no.run", "unit sings\n");
  const Result result = calls({"scenario", "--check", "short.pcapng", "no.run"});
  EXPECT_EQ(result.status, 3);
  EXPECT_NE(result.errors.find("no.run:1: "), std::string::npos) << result.errors;
  expect_refused({"scenario", "short.pcapng", "short.run"}, 2, "SCENARIO requires --check");
  EXPECT_EQ(calls({"scenario", "short.pcapng"}).status, 0);
}

}  // namespace
