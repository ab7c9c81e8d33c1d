#include <gtest/gtest.h>

#include <string>

#include "zirn_run/drawn.h"

namespace {

using picture::Detail;
using picture::Mark;
using picture::Paint;
using picture::Row;
using tftp::rrq;

class PictureOfAnOutcome : public testing::Test {
 protected:
  PictureOfAnOutcome() { run.says(record::RunBegins{"", "", "TFTP -o 172.40.0.1"}); }
  Drawn picture(Detail detail = Detail::kRepetitionsFolded) { return drawn(run.ends(), detail); }
  void reads(std::uint32_t unit, const std::string& name, std::size_t last_block = 0) {
    Exchange read(&run, {unit, port++}, made::kStation);
    read.asks(rrq(name));
    read.blocks(1, 1, last_block);
  }
  // The words of the rows that are marked so.
  Lines marked(Mark mark) {
    const Drawn drawing = picture();
    Lines lines;
    for (std::size_t i = 0; i < drawing.rows.size(); ++i) {
      if (drawing.rows[i].mark == mark) lines.push_back(words_in(drawing)[i]);
    }
    return lines;
  }
  MadeRun run;
  std::uint16_t port = 2000;
};

TEST_F(PictureOfAnOutcome, SaysThatTheUnitPassedAndMarksTheRow) {
  reads(made::kUnit, "F_l_m_01PPT_PASSED");
  EXPECT_TRUE(says(picture(), "the unit PASSED"));
  EXPECT_TRUE(says(picture(), "F_l_m_01PPT_PASSED"));
  EXPECT_EQ(areas_of(Paint::kPassed, picture()).size(), 2U);  // the sign, and the row's edge
  EXPECT_EQ(marked(Mark::kPassed), (Lines{"read F_l_m_01PPT_PASSED the unit PASSED"}));
  EXPECT_EQ(picture().sheet.summary, "the unit PASSED");
}

TEST_F(PictureOfAnOutcome, MarksTheStepThatFailedAndTheFinalVerdict) {
  reads(made::kUnit, "F_l_m_01TEST_FAILED");
  reads(made::kUnit, "F_l_m_02PPT_FAILED");
  EXPECT_TRUE(says(picture(), "the unit FAILED"));
  EXPECT_EQ(marked(Mark::kFailed),
            (Lines{"read F_l_m_01TEST_FAILED a step FAILED", "read F_l_m_02PPT_FAILED the unit FAILED"}));
}

TEST_F(PictureOfAnOutcome, CountsNoUnitForAVerdictThatIsPassedOnAfterTheFinalOne) {
  reads(made::kUnit, "F_l_m_01MEMORY_PASSED");
  reads(made::kUnit, "F_l_m_02PPT_FAILED");
  run.udp({made::kStationAtPpt, 50000}, {made::kPptServer, 69}, rrq("F_l_m_01CPU_2_MEMORY_PASSED"));
  EXPECT_EQ(picture().sheet.summary, "the unit FAILED");
}

TEST_F(PictureOfAnOutcome, SaysThatARunWentWrongBesideWhatTheUnitSays) {
  reads(made::kUnit, "F_l_m_01PPT_PASSED");
  run.says(record::RunEnds{"failed", "line 3: the station did not"});
  const Drawn drawing = picture();
  EXPECT_TRUE(says(drawing, "the run went WRONG"));
  EXPECT_TRUE(says(drawing, "the unit PASSED"));
  EXPECT_TRUE(says(drawing, "failed"));
  EXPECT_TRUE(says(drawing, "line 3: the station did not"));
  EXPECT_EQ(marked(Mark::kWrong), (Lines{"end of the run the run went WRONG: line 3: the station did not"}));
}

TEST_F(PictureOfAnOutcome, TakesARunForRightThatWentAsItsScenarioSays) {
  reads(made::kUnit, "F_l_m_01PPT_PASSED");
  run.says(record::RunEnds{"", record::kAsTheScenarioSays});
  EXPECT_FALSE(says(picture(), "the run went WRONG"));
  EXPECT_FALSE(says(picture(), "ppt_flag"));
}

TEST_F(PictureOfAnOutcome, CountsNoVerdictThatNeverArrived) {
  for (int i = 0; i < 3; ++i) {
    run.next_is(record::kLostByChance);
    Exchange(&run, {made::kUnit, 2000}, made::kStation).asks(rrq("F_l_m_01PPT_PASSED"));
    run.rests(1000);
  }
  EXPECT_TRUE(says(picture(), "no final verdict"));
  EXPECT_TRUE(says(picture(), "none"));
}

TEST_F(PictureOfAnOutcome, TellsSeveralUnitsByTheirAddresses) {
  reads(made::kUnit, "kernel.img", 20);
  reads(made::kUnitB, "kernel.img", 20);
  reads(made::kUnit, "F_l_m_01PPT_PASSED");
  reads(made::kUnitB, "F_l_m_01PPT_FAILED");
  EXPECT_TRUE(says(picture(), "1 unit FAILED"));
  EXPECT_TRUE(says(picture(), "1 unit PASSED"));
  EXPECT_EQ(marked(Mark::kPassed), (Lines{"read F_l_m_01PPT_PASSED 172.40.0.2 PASSED"}));
  EXPECT_EQ(marked(Mark::kFailed), (Lines{"read F_l_m_01PPT_FAILED 172.40.0.3 FAILED"}));
}

TEST_F(PictureOfAnOutcome, TakesTheSameAddressAfterAFinalVerdictForTheNextUnit) {
  for (int i = 0; i < 3; ++i) {
    reads(made::kUnit, "kernel.img", 20);
    reads(made::kUnit, "F_l_m_01PPT_PASSED");
    reads(made::kUnit, "F_l_m_01PPT_PASSED");  // again, since the answer was lost
  }
  EXPECT_TRUE(says(picture(), "3 units PASSED"));
}

TEST_F(PictureOfAnOutcome, ReadsTheLinesWhereThereAreNoFrames) {
  run.line("Cmd received: F_l_m_01TEST_FAILED");
  run.rests(1);
  run.line("Cmd received: F_l_m_02PPT_FAILED");
  EXPECT_TRUE(says(picture(), "the unit FAILED"));
  EXPECT_TRUE(says(picture(), "The record has no frames: what went over the networks is not known."));
  EXPECT_EQ(marked(Mark::kFailed), (Lines{"Cmd received: F_l_m_01TEST_FAILED a step FAILED",
                                          "Cmd received: F_l_m_02PPT_FAILED the unit FAILED"}));
}

TEST_F(PictureOfAnOutcome, ReadsTheLineOfAVerdictThatTheFramesLack) {
  Exchange query(&run, {made::kStationAtPpt, 40000}, made::kPptServer, 69);
  query.asks(rrq("F_l_m_01CPU_2_MEMORY_PASSED"));
  query.blocks(1, 1, 0);
  run.line("Cmd received: F_l_m_02PPT_PASSED");
  EXPECT_TRUE(says(picture(), "the unit PASSED"));
  reads(made::kUnit, "F_l_m_02PPT_PASSED");
  EXPECT_TRUE(says(picture(), "the unit PASSED"));
}

TEST_F(PictureOfAnOutcome, ListsLinesWithoutATimeBelow) {
  run.story.take(record::Line{"Cmd received: F_l_m_02PPT_PASSED"}, 0, 2);
  EXPECT_TRUE(says(picture(), "the unit PASSED"));
  EXPECT_TRUE(says(picture(), "The station printed, without a time:"));
  EXPECT_TRUE(says(picture(), "Cmd received: F_l_m_02PPT_PASSED"));
}

TEST_F(PictureOfAnOutcome, MarksWhatEndedARunWithoutAVerdict) {
  run.broadcasts_boot_script();
  EXPECT_EQ(marked(Mark::kWrong), (Lines{"boot script nobody answered"}));
  run.says(record::StationEnds{15, 0});
  EXPECT_EQ(marked(Mark::kWrong), (Lines{"boot script nobody answered"}));
  Exchange unit(&run, {made::kUnit, 2000}, made::kStation);
  unit.asks(rrq("missing"));
  unit.answers(tftp::error(1, "File not found"));
  EXPECT_EQ(marked(Mark::kWrong), (Lines{"ERROR 1, \"File not found\" this went wrong last"}));
  run.says(record::StationEnds{std::nullopt, 6});
  EXPECT_EQ(marked(Mark::kWrong).size(), 1U);
  EXPECT_EQ(marked(Mark::kWrong).front().find("ends: 134 (abort"), 0U) << marked(Mark::kWrong).front();
}

class HourOfProduction : public PictureOfAnOutcome {
 protected:
  void plays(std::uint32_t unit, bool passes) {
    run.line("Server started , waiting for connections");
    run.broadcasts_boot_script();
    reads(unit, "bootscript.txt", 20);
    Exchange kernel(&run, {unit, port++}, made::kStation);
    kernel.asks(rrq("kernel.img"));
    kernel.blocks(1, 200, 512);
    kernel.blocks(201, 201, 7);
    for (const char* const step : {"MEMORY", "CLOCK", "LINE_1", "LINE_2"}) {
      reads(unit, std::string("F_l_m_01") + step + (passes ? "_PASSED" : "_TEST_FAILED"));
      run.closed({unit, 2000}, {made::kStation, 33133});
      Exchange query(&run, {made::kStationAtPpt, 40000}, made::kPptServer, 69);
      query.asks(rrq(std::string("F_l_m_01CPU_2_") + step + "_PASSED"));
      query.blocks(1, 1, 0);
      run.rests(10000);
    }
    reads(unit, passes ? "F_l_m_02PPT_PASSED" : "F_l_m_02PPT_FAILED");
    run.line("TFTP Server was shut down");
    run.says(record::StationEnds{2, 0});
    run.rests(15000);
  }
  static double height_of(const std::string& svg) { return std::stod(svg.substr(svg.find("height=\"") + 8)); }
  static double width_of(const std::string& svg) { return std::stod(svg.substr(svg.find("width=\"") + 7)); }
};

TEST_F(HourOfProduction, FitsThreeScreens) {
  for (std::uint32_t i = 0; i < 60; ++i) plays(made::kUnit + i, i % 20 != 13);
  const std::string svg = picture::picture_of(run.ends());
  EXPECT_LE(height_of(svg), 3000);
  EXPECT_LE(width_of(svg), 1400);
  EXPECT_NE(svg.find(">57 units PASSED<"), std::string::npos);
  EXPECT_NE(svg.find(">3 units FAILED<"), std::string::npos);
  EXPECT_NE(svg.find(">172.40.0.15 FAILED<"), std::string::npos);
  EXPECT_EQ(wrong_in_layout(picture(Detail::kUnitsInARow)), "");
  EXPECT_EQ(wrong_in_layout(picture(Detail::kUnitsTogether)), "");
}

TEST_F(HourOfProduction, FitsThreeScreensAlsoWithOneAddressForAll) {
  for (int i = 0; i < 60; ++i) plays(made::kUnit, true);
  const std::string svg = picture::picture_of(run.ends());
  EXPECT_LE(height_of(svg), 3000);
  EXPECT_NE(svg.find(">60 units PASSED<"), std::string::npos);
}

TEST_F(HourOfProduction, LeavesALongRunOfOneUnitItsTransfers) {
  for (int i = 0; i < 200; ++i) reads(made::kUnit, "file-" + std::to_string(i), 20);
  reads(made::kUnit, "F_l_m_02PPT_PASSED");
  const std::string svg = picture::picture_of(run.ends());
  EXPECT_GT(height_of(svg), 3000);
  EXPECT_NE(svg.find(">file-199, 20 bytes in 0.001 s<"), std::string::npos);
}

TEST_F(HourOfProduction, GivesEachUnitThatPassedARow) {
  for (std::uint32_t i = 0; i < 3; ++i) plays(made::kUnit + i, true);
  const Drawn drawing = picture(Detail::kUnitsInARow);
  Lines units;
  for (std::size_t i = 0; i < drawing.rows.size(); ++i) {
    if (drawing.rows[i].kind == Row::Kind::kUnit) units.push_back(words_in(drawing)[i]);
  }
  EXPECT_EQ(units, (Lines{"172.40.0.2 PASSED 2 files, 100.0 KiB in 40.4 s",
                          "172.40.0.3 PASSED 2 files, 100.0 KiB in 40.4 s",
                          "172.40.0.4 PASSED 2 files, 100.0 KiB in 40.4 s"}));
  const Lines together = words_in(picture(Detail::kUnitsTogether));
  EXPECT_EQ(together.back(), "\xe2\x80\xa6 3 units PASSED until 151.3 s");
}

TEST_F(HourOfProduction, FoldsAsMuchOrAsLittleAsIsAsked) {
  for (std::uint32_t i = 0; i < 3; ++i) plays(made::kUnit + i, true);
  picture::Choice choice;
  choice.folding = picture::Choice::Folding::kFold;
  const double least = height_of(picture::picture_of(run.ends(), choice));
  choice.folding = picture::Choice::Folding::kUnfold;
  const double most = height_of(picture::picture_of(run.reading(), choice));
  const double fitting = height_of(picture::picture_of(run.reading()));
  EXPECT_LT(least, fitting);
  EXPECT_LE(fitting, most);
}

}  // namespace
