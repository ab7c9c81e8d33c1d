// What is on the screen, key by key.
#include <gtest/gtest.h>

#include <clocale>

#include "terminal/view.h"
#include "zirn_run/made_run.h"

namespace {

using terminal::Line;
using terminal::View;
using Lines = std::vector<std::string>;

constexpr std::size_t kHeadLines = 4;

class TerminalView : public testing::Test {
 protected:
  TerminalView() {
    std::setlocale(LC_CTYPE, "C.UTF-8");
    view.set_size(10, 80);
  }

  void prints(int first, int last) {
    for (int i = first; i <= last; ++i) run.line("line " + std::to_string(i));
    view.look();
  }
  Lines screen() const {
    Lines lines;
    for (const Line& line : view.screen({"title", "live", "how far", terminal::Style::kPlain, ""}))
      lines.push_back(line.text());
    return lines;
  }
  // The words of the rows; before the one that is chosen stands an asterisk.
  std::string body() const {
    std::string text;
    const auto lines = view.screen({});
    for (std::size_t i = kHeadLines; i + 1 < lines.size(); ++i) {
      const std::string words = lines[i].spans.empty() ? "" : lines[i].spans.back().text;
      if (!words.empty())
        text += (lines[i].is_chosen ? "*" : "") + words.substr(words.find_first_not_of(' ')) + "\n";
    }
    return text;
  }
  void press(const std::string& keys) {
    for (const char key : keys) view.press(static_cast<terminal::Key>(key));
  }
  // So much of a file of 1000 bytes in blocks of 100 is read.
  Exchange reads(int blocks, const std::string& name = "kernel.img") {
    Exchange read(&run, {made::kUnit, 2000}, made::kStation);
    read.asks(tftp::rrq(name, {{"blksize", "100"}, {"tsize", "0"}}));
    read.answers(tftp::oack({{"blksize", "100"}, {"tsize", "1000"}}));
    read.sends(tftp::ack(0));
    read.blocks(1, blocks, 100);
    view.look();
    return read;
  }

  MadeRun run;
  View view{run.reading()};
};

TEST_F(TerminalView, HasALaneForEverybodyAndSaysAboveHowFarItIs) {
  run.broadcasts_boot_script();
  run.says(record::BoardCall{"envtool show tempmac", 0});
  Exchange query(&run, {made::kStationAtPpt, 2001}, made::kPptServer);
  query.asks(tftp::rrq("F_l_m_01CPU_2_MEMORY_PASSED"));
  reads(1);
  const Lines lines = screen();
  EXPECT_EQ(lines.size(), 10U);
  EXPECT_EQ(lines[0].substr(0, 6), "title ");
  EXPECT_EQ(lines[0].substr(69), "0.0 s  live");
  EXPECT_EQ(lines[1], "how far");
  EXPECT_EQ(lines[2], "nothing points to a fault");
  EXPECT_EQ(lines[3], "     time board station unit    PPT");
  EXPECT_EQ(lines[4], "    0.000   │      │─────>│      │  boot script");
  EXPECT_EQ(lines[5], "    0.001   │<─────│      │      │  envtool show tempmac, status 0");
  EXPECT_EQ(lines[6], "    0.002   │      │──────┼─────>│  read F_l_m_01CPU_2_MEMORY_PASSED");
  EXPECT_EQ(lines[7].rfind("    0.003   │      │═════>│      │  ░░░░░░░░  10 % kernel.img, ", 0), 0U)
      << lines[7];
}

TEST_F(TerminalView, FillsTheLineOfATransferWhereItIs) {
  Exchange read = reads(2);
  run.line("a line");
  read.blocks(3, 5, 100);
  read.sends(tftp::ack(4));
  read.blocks(5, 5, 100);
  view.look();
  EXPECT_EQ(body(), "████░░░░  50 % kernel.img, 0.0 s left, 3 ...\na line\n");
  view.set_size(10, 160);
  EXPECT_EQ(body(),
            "████░░░░  50 % kernel.img, 0.0 s left, 3 sent again, 34.9 KiB/s, 500 bytes of 1000 bytes\n"
            "a line\n");
  run.rests(4000).line("another");
  EXPECT_EQ(body().substr(0, body().find(", 3 sent")), "████░░░░  50 % kernel.img, silent for 4 s") << body();
  read.blocks(6, 10, 100);
  read.blocks(11, 11, 0);
  EXPECT_NE(body().find("kernel.img, 1000 bytes in 4."), std::string::npos) << body();
}

TEST_F(TerminalView, FollowsTheEndUntilOneGoesUpAndThenStaysWhereItIs) {
  prints(1, 20);
  EXPECT_EQ(body(), "line 16\nline 17\nline 18\nline 19\nline 20\n");
  view.press(terminal::kUp);
  EXPECT_EQ(body(), "line 16\nline 17\nline 18\n*line 19\nline 20\n");
  prints(21, 30);
  EXPECT_EQ(body(), "line 16\nline 17\nline 18\n*line 19\nline 20\n");
  view.press(terminal::kEnd);
  EXPECT_EQ(body(), "line 26\nline 27\nline 28\nline 29\nline 30\n");
}

TEST_F(TerminalView, StaysWhereItIsWhenSomethingEarlierComesLate) {
  prints(1, 20);
  view.press(terminal::kUp);
  const record::Nanoseconds early = MadeRun::kStart + 2 * MadeRun::kMillisecond;
  run.story.take(record::BoardCall{"late", 0}, early, ++run.number);
  view.look();
  EXPECT_EQ(body(), "line 16\nline 17\nline 18\n*line 19\nline 20\n");
  view.press(terminal::kHome);
  EXPECT_EQ(body(), "*line 1\nline 2\nlate, status 0\nline 3\nline 4\n");
}

TEST_F(TerminalView, GoesUpAndDownByLinesPagesAndTheWheel) {
  prints(1, 20);
  view.press(terminal::kPageUp);
  EXPECT_EQ(body(), "*line 15\nline 16\nline 17\nline 18\nline 19\n");
  view.press(terminal::kWheelUp);
  EXPECT_EQ(body(), "*line 12\nline 13\nline 14\nline 15\nline 16\n");
  view.press(terminal::kDown);
  EXPECT_EQ(body(), "line 12\n*line 13\nline 14\nline 15\nline 16\n");
  view.press(terminal::kHome);
  EXPECT_EQ(body(), "*line 1\nline 2\nline 3\nline 4\nline 5\n");
  view.press(terminal::kPageDown);
  view.press(terminal::kWheelDown);
  EXPECT_EQ(body(), "line 5\nline 6\nline 7\nline 8\n*line 9\n");
  for (int i = 0; i < 12; ++i) view.press(terminal::kDown);
  EXPECT_EQ(body(), "line 16\nline 17\nline 18\nline 19\nline 20\n")
      << "down from the last one follows again";
  prints(21, 21);
  EXPECT_EQ(body().substr(0, 7), "line 17");
}

TEST_F(TerminalView, UnfoldsARowAndFoldsItAgain) {
  view.set_size(24, 120);
  reads(10);
  Exchange(&run, {made::kUnit, 2000}, made::kStation).blocks(11, 11, 0);
  view.look();
  EXPECT_EQ(body(), "kernel.img, 1000 bytes in 0.022 s\n");
  press("\n");
  EXPECT_EQ(body(),
            "*kernel.img, 1000 bytes in 0.022 s\n"
            "0.000  unit > station: read kernel.img, blksize 100, tsize 0\n"
            "0.001  station > unit: OACK blksize 100, tsize 1000, ACK 0\n"
            "0.002  station > unit: kernel.img, 1000 bytes in 0.022 s\n"
            "1000 bytes, 11 blocks of 100 bytes\n"
            "0.022 s, 44.4 KiB/s\n"
            "frames 1 to 25\n");
  view.press(terminal::kDown);
  EXPECT_NE(body().find("*0.000  unit > station"), std::string::npos) << body();
  press("\n");
  EXPECT_EQ(body(), "*kernel.img, 1000 bytes in 0.022 s\n");
}

TEST_F(TerminalView, FindsWhatIsSearchedForAndUnfoldsIt) {
  prints(1, 8);
  reads(1);
  prints(9, 20);
  press("/LINE 7\n");
  EXPECT_EQ(body(), "*line 7\nline 8\n░░░░░░░░  10 % kernel.img, 0.1 s left, 7....\nline 9\nline 10\n");
  press("/oack\n");
  EXPECT_NE(body().find("station > unit: OACK"), std::string::npos) << body();
  run.line("MARK a");
  run.line("MARK b");
  view.look();
  press("/markx\x7f\n");
  EXPECT_NE(body().find("*MARK a\n"), std::string::npos) << body();
  press("n");
  EXPECT_NE(body().find("*MARK b\n"), std::string::npos) << body();
  press("nN");
  EXPECT_NE(body().find("*MARK b\n"), std::string::npos) << "round the end and back";
  press("/nobody\n");
  EXPECT_EQ(screen().back(), "not found: nobody");
  press("/");
  EXPECT_EQ(screen().back(), "/");
  view.press(terminal::kEscape);
  EXPECT_EQ(screen().back().substr(0, 6), "q quit");
}

TEST_F(TerminalView, TellsItsKeysAndWhatAKeyAsksOfTheProgram) {
  prints(1, 3);
  press("?");
  EXPECT_EQ(screen()[5].substr(0, 9), "page keys");
  press("x");
  EXPECT_EQ(body(), "line 1\nline 2\nline 3\n");
  EXPECT_EQ(view.press('p'), View::Wish::kPause);
  EXPECT_EQ(view.press('s'), View::Wish::kSave);
  EXPECT_EQ(view.press('d'), View::Wish::kDraw);
  EXPECT_EQ(view.press('q'), View::Wish::kQuit);
  press("/");
  EXPECT_EQ(view.press('q'), View::Wish::kNothing) << "it is part of what is searched for";
}

TEST_F(TerminalView, HasOneLaneBelowSixtyColumnsAndSaysSo) {
  view.set_size(10, 59);
  reads(10);
  const Lines lines = screen();
  EXPECT_EQ(lines[3], "     time");
  EXPECT_EQ(lines[4], "    0.000 station > unit: ████████ 100 % kernel.img, 48....");
  EXPECT_EQ(lines.back(), "one lane: fewer than 60 columns  ? help");
  view.set_size(10, 60);
  EXPECT_NE(screen()[3].find("station"), std::string::npos);
}

TEST_F(TerminalView, HasALaneForEachUnitAndOneForTheOthers) {
  view.set_size(10, 120);
  for (std::uint32_t i = 0; i < 5; ++i) {
    Exchange read(&run, {made::kUnit + i, 2000}, made::kStation);
    read.asks(tftp::rrq("file"));
  }
  view.look();
  const Lines lines = screen();
  EXPECT_EQ(lines[3], "     time board station  .2     .3     .4   others   PPT") << lines[3];
  EXPECT_EQ(lines[5].rfind("    0.001   │      │<─────┼──────│      │      │      │  read file", 0), 0U)
      << lines[5];
  EXPECT_EQ(
      lines[8].rfind(
          "    0.004   │      │<─────┼──────┼──────┼──────│      │  172.40.0.6 > station: read file", 0),
      0U)
      << lines[8];
}

TEST_F(TerminalView, IsNotMovedByWhatComesFromTheWire) {
  Exchange(&run, {made::kUnit, 2000}, made::kStation).asks(tftp::rrq("\x1b[2J\a\r\xe2\x80\xae.img"));
  run.line("\x1b]0;title\a");
  view.look();
  for (const std::string& line : screen()) {
    for (const char letter : line)
      EXPECT_FALSE(static_cast<unsigned char>(letter) < 0x20 || letter == 0x7f) << line;
    EXPECT_EQ(line.find("\xe2\x80\xae"), std::string::npos);
  }
  EXPECT_NE(body().find("read \\x1b[2J\\x07\\x0d\\xe2\\x80\\xae.img"), std::string::npos) << body();
}

TEST_F(TerminalView, StaysWithinTheScreenHoweverSmallItIsAndHoweverWideTheLetters) {
  run.line("幅の広い文字 幅の広い文字 幅の広い文字 幅の広い文字");
  reads(3);
  for (std::size_t columns = 1; columns < 100; ++columns) {
    for (const std::size_t lines : {std::size_t{1}, std::size_t{3}, std::size_t{7}}) {
      view.set_size(lines, columns);
      const Lines screen = this->screen();
      EXPECT_EQ(screen.size(), lines);
      for (const std::string& line : screen) EXPECT_LE(terminal::columns_of(line), columns) << line;
    }
  }
}

TEST_F(TerminalView, ShowsWhatTheKernelDroppedAndWhatIsMissing) {
  view.set_size(10, 100);
  run.story.take(record::Interface{"lan0", "", 1, 0});
  run.line("a line");
  run.story.take(record::Statistics{0, run.now, 10, 7});
  run.says(record::Gap{"frames are missing from here on: lan0 is gone or down"});
  run.line("another");
  view.look();
  EXPECT_EQ(body(),
            "a line\n7 frames missing: the kernel dropped them, lan0\n"
            "frames are missing from here on: lan0 is gone or down\nanother\n");
  run.story.take(record::Statistics{0, run.now, 10, 9});
  view.look();
  EXPECT_NE(body().find("2 frames missing"), std::string::npos) << body();
}

}  // namespace
