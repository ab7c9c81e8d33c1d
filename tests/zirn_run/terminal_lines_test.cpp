// The run in lines, and whose fault it is while it goes on.
#include <gtest/gtest.h>

#include <sstream>

#include "terminal/judgement.h"
#include "terminal/plain_lines.h"
#include "zirn_run/explained_run.h"
#include "zirn_run/made_run.h"

namespace {

class TerminalLines : public testing::Test {
 protected:
  // What was printed since the last time.
  std::string news() {
    lines.look();
    std::string text = out.str();
    out.str("");
    return text;
  }

  MadeRun run;
  std::ostringstream out;
  terminal::PlainLines lines{run.reading(), out};
};

TEST_F(TerminalLines, PrintsEachEventOnceItIsThere) {
  run.broadcasts_boot_script();
  EXPECT_EQ(news(), "    0.000  station > everyone: boot script\n");
  EXPECT_EQ(news(), "");
  run.rests(1000).broadcasts_boot_script();
  EXPECT_EQ(news(), "    1.001  station > everyone: boot script, 2 times\n");
  Exchange read(&run, {made::kUnit, 2000}, made::kStation);
  read.asks(tftp::rrq("kernel.img"));
  EXPECT_EQ(news(), "    1.002  unit > station: read kernel.img\n");
  run.line("RRQ kernel.img");
  EXPECT_EQ(news(), "    1.003  station: RRQ kernel.img\n");
}

TEST_F(TerminalLines, FoldsABulkOfBlocksIntoTheLineOfItsEnd) {
  Exchange read(&run, {made::kUnit, 2000}, made::kStation);
  read.asks(tftp::rrq("kernel.img"));
  news();
  for (int block = 1; block <= 100; ++block) {
    read.blocks(block, block, 512);
    EXPECT_EQ(news(), "");
  }
  read.blocks(101, 101, 10);
  EXPECT_EQ(news(), "    0.202  unit > station: kernel.img, 50.0 KiB in 0.201 s\n");
}

TEST_F(TerminalLines, SaysHowAReadFailed) {
  Exchange read(&run, {made::kUnit, 2000}, made::kStation);
  read.asks(tftp::rrq("kernel.img"));
  news();
  read.answers(tftp::error(1, "File not found"));
  EXPECT_EQ(news(),
            "    0.001  station > unit: ERROR 1, \"File not found\"\n"
            "    0.001  unit > station: read kernel.img, ERROR 1, \"File not found\"\n");
}

TEST_F(TerminalLines, EndsWithHowTheRunCameOut) {
  run.line("a line");
  run.ends();
  terminal::Judgement judgement;
  judgement.judge(run.reading());
  lines.finish(judgement);
  EXPECT_EQ(out.str().rfind("    0.000  station: a line\n    0.000  no final verdict\n    0.000  fault: ", 0),
            0U)
      << out.str();
}

TEST(TerminalJudgement, PointsToSomebodyAsSoonAsSomethingDoes) {
  ExplainedRun made;
  terminal::Judgement judgement;
  const auto judged = [&] {
    judgement.judge(made.run.reading());
    return judgement.fault();
  };
  made.begins();
  EXPECT_EQ(judged(), "");
  made.reads("kernel.img");
  EXPECT_EQ(judged(), "");
  made.ppt = ExplainedRun::Ppt::kSilent;
  made.gives("F_l_m_01MEMORY_PASSED");
  EXPECT_EQ(judged().rfind("PPT server (ppt.silent): ", 0), 0U) << judged();
}

TEST(TerminalJudgement, IsMadeAtMostOnceASecond) {
  MadeRun run;
  run.line("Cmd received: F_l_m_01PPT_PASSED");
  terminal::Judgement judgement;
  const auto now = terminal::Judgement::Clock::now();
  EXPECT_TRUE(judgement.look_at(run.reading(), now));
  run.line("another");
  EXPECT_FALSE(judgement.look_at(run.reading(), now + terminal::Judgement::kPace / 2));
  EXPECT_TRUE(judgement.look_at(run.reading(), now + terminal::Judgement::kPace * 2));
  EXPECT_FALSE(judgement.look_at(run.reading(), now + terminal::Judgement::kPace * 9)) << "nothing is new";
}

}  // namespace
