#include <gtest/gtest.h>

#include <string>

#include "picture/words.h"
#include "zirn_run/drawn.h"

namespace {

using picture::Detail;
using picture::Pen;
using picture::Row;
using tftp::rrq;

constexpr made::Endpoint kUnit{made::kUnit, 2000};
constexpr made::Endpoint kAsking{made::kStationAtPpt, 40000};

class PictureOfTransfers : public testing::Test {
 protected:
  PictureOfTransfers() { run.says(record::RunBegins{"", "", "TFTP -o 172.40.0.1"}); }
  Drawn picture(Detail detail = Detail::kRepetitionsFolded) { return drawn(run.ends(), detail); }
  Lines words() { return words_in(picture()); }
  MadeRun run;
  Exchange unit{&run, kUnit, made::kStation};
};

TEST_F(PictureOfTransfers, TellsAReadOfFewBlocksByArrows) {
  unit.asks(rrq("bootscript.txt", {{"blksize", "1428"}, {"timeout", "1"}}));
  unit.answers(tftp::oack({{"blksize", "1428"}, {"timeout", "5"}}));
  unit.sends(tftp::ack(0));
  unit.answers(tftp::data(1, "text"));
  unit.sends(tftp::ack(1));
  EXPECT_EQ(words(), (Lines{"read bootscript.txt, blksize 1428, timeout 1",
                            "OACK blksize 1428, timeout 5, ACK 0", "DATA 1, 4 bytes, ACK 1"}));
}

TEST_F(PictureOfTransfers, DrawsALongReadAsABandWithItsSizes) {
  unit.asks(rrq("image.bin"));
  unit.blocks(1, 9, 512);
  run.rests(981);
  unit.blocks(10, 10, 100);
  const Drawn drawing = picture();
  EXPECT_EQ(words_in(drawing),
            (Lines{"read image.bin", "image.bin 4708 bytes, 10 blocks of 512 bytes 1.000 s, 4.6 KiB/s"}));
  EXPECT_EQ(areas_of(picture::Paint::kBand, drawing).size(), 2U);  // one of them in the legend
  EXPECT_EQ(strokes_of(Pen::kLost, drawing) + strokes_of(Pen::kAgain, drawing), 0U);
  EXPECT_TRUE(says(drawing, "1.002"));
}

TEST_F(PictureOfTransfers, CountsInTheBandAndMarksAtItsSideWhatWasLostAndSentAgain) {
  unit.asks(rrq("image.bin"));
  unit.blocks(1, 3, 512);
  run.next_is(record::kLostByChance);
  unit.answers(tftp::data(4, std::string(512, 'x')));
  run.rests(489);
  unit.sends(tftp::ack(3));
  unit.answers(tftp::data(4, std::string(512, 'x')));
  run.next_is(record::kLostByChance);
  unit.sends(tftp::ack(4));
  run.rests(2997);
  unit.sends(tftp::ack(4));
  unit.blocks(5, 5, 100);
  const Drawn drawing = picture();
  EXPECT_EQ(words_in(drawing).at(1),
            "image.bin 2148 bytes, 5 blocks of 512 bytes 3.498 s, 614 bytes/s 1 block and 1 ACK lost, 1 "
            "block and 2 ACKs sent again lost at 0.008 s, 0.500 s, again at 0.498 s, 0.499 s, 3.498 s silent "
            "until the unit spoke again: for 3.0 s from 0.500 s (block 4)");
  EXPECT_EQ(strokes_of(Pen::kLost, drawing), 3U);   // one of them in the legend
  EXPECT_EQ(strokes_of(Pen::kAgain, drawing), 4U);  // likewise
}

TEST_F(PictureOfTransfers, MarksInABandWhatTheWireDuplicatedAndSwapped) {
  const auto wire_does = [this](const char* what, int block) {
    run.next_is(what);
    unit.answers(tftp::data(block, std::string(512, 'x')));
    unit.sends(tftp::ack(block));
  };
  unit.asks(rrq("image.bin"));
  unit.blocks(1, 3, 512);
  wire_does(record::kDuplicated, 4);
  wire_does(record::kSwapped, 5);
  wire_does(record::kDuplicated, 6);
  unit.blocks(7, 7, 100);
  const Drawn drawing = picture();
  EXPECT_EQ(words_in(drawing).at(1),
            "image.bin 3172 bytes, 7 blocks of 512 bytes 0.013 s, 238.3 KiB/s 2 blocks duplicated, 1 block "
            "swapped with the next one duplicated at 0.008 s, 0.012 s, swapped at 0.010 s");
  EXPECT_EQ(strokes_of(Pen::kDuplicated, drawing), 3U);  // one of them in the legend
  EXPECT_EQ(strokes_of(Pen::kSwapped, drawing), 2U);     // likewise
  EXPECT_TRUE(says(drawing, "a block or ACK duplicated"));
  EXPECT_TRUE(says(drawing, "swapped with the next one"));
}

// Of many datagrams only some are marked.
TEST_F(PictureOfTransfers, SaysExactlyWhenOneOfManyWasLost) {
  unit.asks(rrq("image.bin"));
  unit.blocks(1, 199, 512);
  unit.answers(tftp::data(200, std::string(512, 'x')));
  run.next_is(record::kLostByChance);
  unit.sends(tftp::ack(200));
  const std::string lost_at = picture::seconds(run.now - run.reading().first, 3);
  run.rests(4999);
  unit.sends(tftp::ack(200));
  unit.blocks(201, 300, 512);
  unit.blocks(301, 301, 1);
  const std::string band = words().at(1);
  EXPECT_NE(band.find("lost at " + lost_at + " s, again at 5.401 s"), std::string::npos) << band;
}

TEST_F(PictureOfTransfers, CountsWhatBecameOfBlocksAtOnePlace) {
  unit.asks(rrq("image.bin"));
  for (int block = 1; block <= 400; ++block) {
    if (block > 200 && block <= 203) run.next_is(record::kDuplicated);
    unit.answers(tftp::data(block, std::string(512, 'x')));
    unit.sends(tftp::ack(block));
  }
  const std::string band = words().at(1);
  EXPECT_NE(band.find("3 blocks duplicated duplicated at "), std::string::npos) << band;
  EXPECT_NE(band.find(" s (3)"), std::string::npos) << band;
}

TEST_F(PictureOfTransfers, SaysOfFramesThatTheCaptureCutNoMoreThanThat) {
  constexpr std::size_t kHeaders = 14 + 20 + 8;
  unit.asks(rrq("image.bin"));
  run.keeps(kHeaders + 3);
  unit.blocks(1, 3, 512);
  run.rests(20000);
  EXPECT_EQ(words(),
            (Lines{"read image.bin",
                   "frame cut by the capture, 3 times until "
                   "0.006 s",
                   "frame cut by the capture, its end is not in the record, 3 times until 0.007 s"}));
  EXPECT_EQ(run.reading().transfers.at(0).end, story::Transfer::End::kUnknown);
}

TEST_F(PictureOfTransfers, SaysThatTheCaptureCutARequest) {
  run.broadcasts_boot_script();
  run.keeps(14 + 20 + 8 + 1);
  unit.asks(rrq("image.bin"));
  EXPECT_EQ(words().back(), "frame cut by the capture, its end is not in the record");
}

TEST_F(PictureOfTransfers, ListsNoMoreThanAFewPlacesOfLoss) {
  unit.asks(rrq("image.bin"));
  for (int block = 1; block <= 20; ++block) {
    run.next_is(record::kLostByChance);
    unit.answers(tftp::data(block, std::string(512, 'x')));
    unit.blocks(block, block, 512);
  }
  unit.blocks(21, 21, 1);
  const std::string band = words().at(1);
  EXPECT_NE(band.find("20 blocks lost, 20 blocks sent again"), std::string::npos) << band;
  EXPECT_EQ(band.find("lost at"), std::string::npos) << band;
  EXPECT_EQ(drawn(run.reading()).rows.size(), 2U);
}

TEST_F(PictureOfTransfers, TellsAnInferredLossApartFromOneThatWasSeen) {
  unit.asks(rrq("image.bin"));
  unit.blocks(1, 4, 512);
  unit.answers(tftp::data(5, std::string(512, 'x')));
  run.rests(1000);
  unit.answers(tftp::data(5, std::string(512, 'x')));
  unit.sends(tftp::ack(5));
  unit.blocks(6, 6, 1);
  EXPECT_NE(words().at(1).find("at least 1 lost (inferred)"), std::string::npos) << words().at(1);
}

TEST_F(PictureOfTransfers, NamesNoSpeedOfLessThanAByte) {
  unit.asks(rrq("image.bin"));
  unit.blocks(1, 3, 8);
  run.rests(60000);
  unit.blocks(4, 4, 1);
  const std::string band = words().at(1);
  EXPECT_NE(band.find("60.007 s silent"), std::string::npos) << band;
}

TEST_F(PictureOfTransfers, CallsAReadUnfinishedOnlyWhereItIs) {
  unit.asks(rrq("image.bin"));
  unit.blocks(1, 4, 512);
  unit.answers(tftp::data(5, "end"));
  EXPECT_NE(words().back().find("its end is not in the record"), std::string::npos) << words().back();
  const Drawn cut = drawn(run.ends(true));
  EXPECT_EQ(words_in(cut).back().find("its end"), std::string::npos) << words_in(cut).back();
  EXPECT_TRUE(says(cut, "The record breaks off: what came after it is not known."));
  unit.sends(tftp::ack(5));
  EXPECT_EQ(words().back(), "image.bin 2051 bytes, 5 blocks of 512 bytes 0.009 s, 222.5 KiB/s");
}

TEST_F(PictureOfTransfers, SaysWhoFellSilent) {
  unit.asks(rrq("image.bin"));
  unit.blocks(1, 4, 512);
  unit.answers(tftp::data(5, std::string(512, 'x')));
  run.rests(60000).line("later");
  EXPECT_NE(words().at(1).find("not finished: the unit was silent"), std::string::npos) << words().at(1);
}

TEST_F(PictureOfTransfers, GivesABandThatIsDividedItsEndAndABarInBetween) {
  unit.asks(rrq("image.bin"));
  unit.blocks(1, 2, 512);
  run.line("RRQ image.bin");
  unit.blocks(3, 4, 512);
  run.line("something");
  unit.blocks(5, 5, 100);
  const Drawn drawing = picture();
  EXPECT_EQ(words_in(drawing),
            (Lines{"read image.bin", "image.bin 2148 bytes, 5 blocks of 512 bytes 0.011 s, 190.7 KiB/s",
                   "RRQ image.bin", "something", "end of image.bin"}));
  const std::vector<picture::Box> bands = areas_of(picture::Paint::kBand, drawing);
  ASSERT_EQ(bands.size(), 3U);  // one of them in the legend
  EXPECT_GT(bands[2].bottom(), drawing.sheet.rows.at(3).bottom());
  EXPECT_EQ(wrong_in_layout(drawing), "");
}

TEST_F(PictureOfTransfers, LetsTheTimeGoOnWithTwoUnits) {
  Exchange other(&run, {made::kUnitB, 2000}, made::kStation, 33233);
  unit.asks(rrq("a"));
  other.asks(rrq("b"));
  for (int block = 1; block <= 50; ++block) {
    unit.blocks(block, block, block == 50 ? 1 : 512);
    other.blocks(block, block, block == 50 ? 1 : 512);
  }
  unit.asks(rrq("c"));
  EXPECT_EQ(wrong_in_layout(picture()), "");
  EXPECT_EQ(picture().rows.size(), 7U);
}

TEST_F(PictureOfTransfers, FoldsARequestThatIsRepeatedWithoutAnAnswer) {
  for (int i = 0; i < 3; ++i) {
    if (i < 2) run.next_is(record::kLostByChance);
    unit.asks(rrq("a"));
    run.rests(999);
  }
  unit.answers(tftp::error(1, ""));
  EXPECT_EQ(words(), (Lines{"read a, 3 times until 2.0 s, 2 lost", "3.0 s nothing else",
                            "ERROR 1, no text this went wrong last"}));
}

TEST_F(PictureOfTransfers, SaysThatNobodyAnswered) {
  unit.asks(rrq("a"));
  run.rests(20000).line("later");
  EXPECT_EQ(words().front(), "read a, not answered this went wrong last");
}

TEST_F(PictureOfTransfers, TakesAFinishedReadFromTheSamePortForNoRepetition) {
  for (int i = 0; i < 2; ++i) {
    unit.asks(rrq("a"));
    unit.blocks(1, 1, 0);
  }
  EXPECT_EQ(words(), (Lines{"read a", "DATA 1, 0 bytes, ACK 1", "read a", "DATA 1, 0 bytes, ACK 1"}));
}

TEST_F(PictureOfTransfers, SaysWhatTheSecondAnswerToADuplicatedRequestIsFor) {
  run.next_is(record::kDuplicated);
  unit.asks(rrq("a"));
  unit.answers(tftp::data(1, "x"));
  unit.sends(tftp::ack(1));
  Exchange(&run, kUnit, made::kStation, 33233).answers(tftp::data(1, "x"));
  EXPECT_EQ(words(), (Lines{"read a, duplicated", "DATA 1, 1 byte, ACK 1", "DATA 1, 1 byte, for a"}));
}

TEST_F(PictureOfTransfers, FoldsABlockThatIsSentAgainAndAgain) {
  unit.asks(rrq("a"));
  for (int i = 0; i < 4; ++i) {
    unit.answers(tftp::data(1, "x"));
    run.rests(4999);
  }
  EXPECT_EQ(words().at(1),
            "a 1 byte, 1 block of 512 bytes 15.000 s 3 blocks sent again again at 5.002 s, 10.002 s, 15.002 "
            "s silent until the station spoke again: for 5.0 s from 0.002 s (block 1), 5.0 s from 5.002 s "
            "(block 1), 5.0 s from 10.002 s (block 1) its end is not in the record");
}

TEST_F(PictureOfTransfers, TellsAnErrorWithItsText) {
  unit.asks(rrq("a"));
  unit.answers(tftp::error(1, "File not found"));
  EXPECT_EQ(words(), (Lines{"read a", "ERROR 1, \"File not found\" this went wrong last"}));
}

TEST_F(PictureOfTransfers, TellsAWriteAndAnythingElseThatComesToThePort) {
  unit.asks(tftp::wrq("a"));
  unit.answers(tftp::ack(0));
  Exchange(&run, {made::kUnit, 2001}, made::kStation, 33233).asks("garbage");
  EXPECT_EQ(words().front(), "write a");
  EXPECT_EQ(words().back(), "no TFTP request");
}

TEST_F(PictureOfTransfers, DrawsATransferThatBeganBeforeTheRecordAsInferred) {
  unit.blocks(7, 12, 512);
  unit.blocks(13, 13, 1);
  const Drawn drawing = picture();
  EXPECT_EQ(words_in(drawing).front().find(
                "a transfer that began before the record, 172.40.0.2 3073 bytes, 7 blocks"),
            0U)
      << words_in(drawing).front();
  EXPECT_EQ(areas_of(picture::Paint::kInferredBand, drawing).size(), 2U);
  EXPECT_TRUE(says(drawing, "the same, in part inferred"));
}

TEST_F(PictureOfTransfers, EmphasisesAVerdictAndDrawsItsForwardingFromTheStation) {
  unit.asks(rrq("F_l_m_01MEMORY_PASSED"));
  Exchange query(&run, kAsking, made::kPptServer, 69);
  query.asks(rrq("F_l_m_01CPU_2_MEMORY_PASSED"));
  query.blocks(1, 1, 0);
  const Drawn drawing = picture();
  ASSERT_EQ(drawing.rows.size(), 3U);
  EXPECT_EQ(words_in(drawing), (Lines{"read F_l_m_01MEMORY_PASSED, its end is not in the record",
                                      "read F_l_m_01CPU_2_MEMORY_PASSED", "DATA 1, 0 bytes, ACK 1"}));
  EXPECT_EQ(drawing.rows[0].look, Row::Look::kVerdict);
  EXPECT_EQ(drawing.rows[1].look, Row::Look::kDatagram);
  EXPECT_EQ(drawing.rows[1].source, story::kStation);
  EXPECT_EQ(drawing.rows[2].target, story::kStation);
}

TEST_F(PictureOfTransfers, ShowsTheAckToASilentPptServer) {
  Exchange query(&run, kAsking, made::kPptServer, 69);
  query.asks(rrq("F_l_m_01CPU_2_MEMORY_PASSED"));
  run.rests(4999);
  query.sends(tftp::ack(1));
  EXPECT_EQ(words(), (Lines{"read F_l_m_01CPU_2_MEMORY_PASSED, not answered", "5.0 s nothing", "ACK 1"}));
}

TEST_F(PictureOfTransfers, CallsThePortHarmlessThatIsClosedAfterAVerdict) {
  unit.asks(rrq("F_l_m_01MEMORY_PASSED"));
  unit.answers(tftp::data(1, ""));
  unit.sends(tftp::ack(1));
  run.closed(kUnit, {made::kStation, 33133});
  unit.asks(rrq("image.bin"));
  run.closed(kUnit, {made::kStation, 69});
  const Drawn drawing = picture();
  ASSERT_EQ(drawing.rows.size(), 5U);
  EXPECT_EQ(words_in(drawing).at(2), "port 33133 is closed (harmless)");
  EXPECT_EQ(drawing.rows[2].look, Row::Look::kHarmless);
  EXPECT_EQ(words_in(drawing).at(4), "port 69 is closed this went wrong last");
  EXPECT_EQ(drawing.rows[4].look, Row::Look::kClosedPort);
  EXPECT_TRUE(says(drawing, "nobody listens on that port"));
}

TEST_F(PictureOfTransfers, TellsEachInOneRowWhereThereIsLittleRoom) {
  unit.asks(rrq("image.bin"));
  unit.blocks(1, 2048, 512);
  unit.blocks(2049, 2049, 0);
  unit.asks(rrq("F_l_m_01MEMORY_PASSED"));
  unit.answers(tftp::data(1, ""));
  unit.sends(tftp::ack(1));
  run.closed(kUnit, {made::kStation, 33133});
  unit.asks(rrq("missing"));
  unit.answers(tftp::error(1, "File not found"));
  EXPECT_EQ(words_in(picture(Detail::kTransfersInARow)),
            (Lines{"image.bin, 1.0 MiB in 4.097 s", "read F_l_m_01MEMORY_PASSED, answered",
                   "read missing, ERROR 1, \"File not found\" this went wrong last"}));
}

}  // namespace
