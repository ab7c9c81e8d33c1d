#include <gtest/gtest.h>

#include <string>

#include "zirn_run/drawn.h"

namespace {

using picture::Detail;
using picture::Paint;
using picture::Pen;
using picture::Row;
using tftp::rrq;

constexpr made::Endpoint kUnit{made::kUnit, 2000};
constexpr made::Endpoint kMessages{made::kStation, 12345};
constexpr made::Endpoint kPassing{made::kStationAtPpt, 41000};
constexpr made::Endpoint kPptMessages{made::kPptServer, 12345};

class PictureOfARun : public testing::Test {
 protected:
  PictureOfARun() { run.says(record::RunBegins{"", "", "TFTP -o 172.40.0.1"}); }
  Drawn picture(Detail detail = Detail::kRepetitionsFolded) { return drawn(run.ends(), detail); }
  Lines words(Detail detail = Detail::kRepetitionsFolded) { return words_in(picture(detail)); }
  // Returns the first sequence numbers behind those of the opening.
  void opens(const made::Endpoint& client, const made::Endpoint& server) {
    run.tcp(client, server, made::kSyn, 100);
    run.tcp(server, client, made::kSyn | made::kAck, 500);
  }
  MadeRun run;
};

TEST_F(PictureOfARun, DrawsTheBootScriptOnce) {
  for (int i = 0; i < 4; ++i) {
    run.broadcasts_boot_script();
    run.rests(999);
  }
  EXPECT_EQ(words(), (Lines{"boot script, 4 times until 3.0 s nobody answered"}));
  EXPECT_EQ(picture().rows.at(0).look, Row::Look::kBroadcast);
}

TEST_F(PictureOfARun, QuotesRelayedTextsWithTheirNul) {
  run.udp(kUnit, kMessages, "up\n");
  run.udp(kPassing, kPptMessages, std::string("up\n\0", 4));
  run.udp(kUnit, {made::kStation, 4444}, "abc");
  EXPECT_EQ(words(), (Lines{"datagram \"up\\n\"", "relays \"up\\n\\0\"", "datagram to port 4444, 3 bytes"}));
}

TEST_F(PictureOfARun, GivesDifferentTextsInARowTheirOwnRows) {
  for (const char* const text : {"a", "b", "c", "d"}) run.udp(kUnit, kMessages, text);
  EXPECT_EQ(words(), (Lines{"datagram \"a\"", "datagram \"b\"", "datagram \"c\"", "datagram \"d\""}));
}

TEST_F(PictureOfARun, WritesLettersBeyondAsciiAsTheyAre) {
  run.udp(kUnit, kMessages, "fertig: \xc3\xbc \xff\x01");
  run.line("\xc3\xa4");
  EXPECT_EQ(words(), (Lines{"datagram \"fertig: \xc3\xbc \\xff\\x01\"", "\xc3\xa4"}));
}

TEST_F(PictureOfARun, FoldsPortsThatAreClosed) {
  for (int i = 0; i < 86; ++i) run.rests(99).closed(kUnit, {made::kStation, 4444});
  EXPECT_EQ(words(), (Lines{"port 4444 is closed, to 172.40.0.2, 86 times until 8.6 s"}));
}

TEST_F(PictureOfARun, TellsACommandConnectionInTwoRows) {
  constexpr made::Endpoint client{made::kUnit, 4000};
  opens(client, kMessages);
  run.next_is(record::kLostByChance);
  run.tcp(client, kMessages, made::kAck, 101, "DO_PMC_INIT:7");
  run.tcp(client, kMessages, made::kAck, 101, "DO_PMC_INIT:7");
  run.says(record::BoardCall{"/mnt/ramdisk/t1-e1 7 -1", 1});
  run.tcp(kMessages, client, made::kAck, 501, "READY");
  run.tcp(client, kMessages, made::kAck | made::kFin, 114);
  run.tcp(kMessages, client, made::kAck | made::kFin, 506);
  EXPECT_EQ(words(),
            (Lines{"connects to port 12345, accepted, \"DO_PMC_INIT:7\"",
                   "/mnt/ramdisk/t1-e1 7 -1, status 1, not 0, so READY",
                   "\"READY\", closed by the unit, then by the station, 1 segment lost, 1 sent again"}));
  EXPECT_EQ(words(Detail::kTransfersInARow).front(),
            "connects to port 12345, accepted, \"DO_PMC_INIT:7\", is told \"READY\", closed by the unit, "
            "then by the "
            "station, 1 segment lost, 1 sent again");
  EXPECT_EQ(words(Detail::kEverything).size(), 7U);
}

TEST_F(PictureOfARun, TellsALongTalkWithItsAnswersInBetween) {
  constexpr made::Endpoint client{made::kUnit, 4000};
  opens(client, kMessages);
  run.tcp(client, kMessages, made::kAck, 101, "a");
  run.tcp(kMessages, client, made::kAck, 501, "A");
  run.tcp(client, kMessages, made::kAck, 102, "b");
  run.tcp(kMessages, client, made::kRst, 502);
  EXPECT_EQ(words(), (Lines{"connects to port 12345, accepted, \"a\", is told \"A\", \"b\"",
                            "broken off by the station"}));
}

TEST_F(PictureOfARun, TellsAnRstThatComesToAConnectionThatIsClosed) {
  constexpr made::Endpoint client{made::kUnit, 4000};
  opens(client, kMessages);
  run.tcp(client, kMessages, made::kAck, 101, "DO_PMC_INIT:7");
  run.tcp(client, kMessages, made::kAck | made::kFin, 114);
  run.tcp(kMessages, client, made::kAck, 501, "READY");
  run.tcp(client, kMessages, made::kRst, 115);
  EXPECT_EQ(words().back(), "\"READY\", closed by the unit, RST after that, by the unit");
  EXPECT_EQ(words(Detail::kEverything).back(), "RST after the end");
}

TEST_F(PictureOfARun, SaysThatAQuestionHadNoAnswer) {
  constexpr made::Endpoint client{made::kUnit, 4000};
  opens(client, kMessages);
  run.tcp(client, kMessages, made::kAck, 101, "ZIRN_ASKS_FOR_HIS_MAC");
  run.rests(1000).tcp(client, kMessages, made::kAck | made::kFin, 122);
  EXPECT_EQ(words().back(), "no answer, closed by the unit");
}

TEST_F(PictureOfARun, TellsARefusalAndSilenceApart) {
  constexpr made::Endpoint other{made::kStationAtPpt, 40001};
  run.tcp({made::kStationAtPpt, 40000}, kPptMessages, made::kSyn, 1);
  run.tcp(kPptMessages, {made::kStationAtPpt, 40000}, made::kRst | made::kAck, 0);
  EXPECT_EQ(words(), (Lines{"connects to port 12345, refused"}));
  for (int i = 0; i < 3; ++i) run.rests(999).tcp(other, {made::kPptServer, 12346}, made::kSyn, 1);
  EXPECT_EQ(words().back(), "connects to port 12346, not answered, 3 times until 3.0 s");
}

TEST_F(PictureOfARun, KeepsTenSecondsOfRefusedConnectionsShort) {
  for (std::uint16_t i = 0; i < 10; ++i) {
    const made::Endpoint client{made::kUnit, static_cast<std::uint16_t>(4000 + i)};
    run.tcp(client, kMessages, made::kSyn, 1);
    run.tcp(kMessages, client, made::kRst | made::kAck, 0);
    run.line("ERROR on connect(). Connection refused");
    run.rests(997);
  }
  EXPECT_EQ(words(), (Lines{"connects to port 12345, refused, 10 times until 9.0 s",
                            "ERROR on connect(). Connection refused x 10 until 9.0 s"}));
}

TEST_F(PictureOfARun, FoldsARequestAndItsAnswerAgainAndAgain) {
  for (std::uint16_t i = 0; i < 12; ++i) {
    Exchange unit(&run, {made::kUnit, static_cast<std::uint16_t>(2000 + i)}, made::kStation);
    unit.asks(rrq("missing"));
    if (i % 2 == 0) run.line("RRQ missing");
    unit.answers(tftp::error(1, "File not found"));
    if (i % 2 == 1) run.line("RRQ missing");
    run.line("File not found");
    run.rests(1000);
  }
  unsigned marked = 0;
  const Drawn drawing = picture();
  for (const Row& row : drawing.rows) marked += row.mark != picture::Mark::kUnmarked ? 1 : 0;
  EXPECT_EQ(marked, 1U);
  const Lines folded{"read missing", "RRQ missing", "ERROR 1, \"File not found\"", "File not found",
                     "\xe2\x80\xa6 these rows 11 times until 10.0 s"};
  const Lines all = words_in(drawing);
  ASSERT_EQ(all.size(), 9U);
  EXPECT_EQ(Lines(all.begin(), all.begin() + 5), folded);
  EXPECT_EQ(all[6], "ERROR 1, \"File not found\" this went wrong last");
  EXPECT_EQ(wrong_in_layout(drawing), "");
  EXPECT_EQ(strokes_of(Pen::kGroup, drawing), 3U);
  EXPECT_EQ(words(Detail::kEverything).size(), 48U);
}

TEST_F(PictureOfARun, FoldsAGroupAlthoughAFoldedLineStandsInIt) {
  for (std::uint16_t i = 0; i < 4; ++i) {
    Exchange unit(&run, {made::kUnit, static_cast<std::uint16_t>(2000 + i)}, made::kStation);
    unit.asks(rrq("bootscript.txt"));
    if (i < 3) run.line("RRQ bootscript.txt");
    unit.blocks(1, 1, 20);
    run.rests(1000);
  }
  EXPECT_EQ(words(), (Lines{"read bootscript.txt", "RRQ bootscript.txt x 3 until 2.0 s",
                            "DATA 1, 20 bytes, ACK 1", "\xe2\x80\xa6 these rows 4 times until 3.0 s"}));
}

TEST_F(PictureOfARun, AddsUpWhatWasLostInFoldedRows) {
  for (int i = 0; i < 4; ++i) {
    if (i > 1) run.next_is(record::kLostByChance);
    run.udp(kUnit, kMessages, "a");
    run.udp(kUnit, kMessages, "b");
  }
  EXPECT_EQ(words(), (Lines{"datagram \"a\"", "datagram \"b\"",
                            "\xe2\x80\xa6 these rows 4 times until 0.008 s, 2 lost"}));
}

TEST_F(PictureOfARun, DoesNotFoldWhatComesTwice) {
  for (int i = 0; i < 2; ++i) {
    run.line("a");
    run.line("b");
  }
  EXPECT_EQ(words(), (Lines{"a", "b", "a", "b"}));
}

TEST_F(PictureOfARun, FoldsEqualLines) {
  for (const char* const line : {"twice", "twice", "thrice", "thrice", "thrice", " ", ""})
    run.rests(99).line(line);
  EXPECT_EQ(words(), (Lines{"twice x 2 until 0.200 s", "thrice x 3 until 0.500 s"}));
}

TEST_F(PictureOfARun, DrawsABoardCommandAtTheStationWithItsStatus) {
  run.says(record::BoardCall{"/mnt/ramdisk/t1-e1 7 -1", 0});
  run.says(record::BoardCall{"/mnt/ramdisk/t1-e1 7 -1", std::nullopt});
  run.says(record::BoardCall{"envtool show tempmac", 3});
  const Drawn drawing = picture();
  EXPECT_EQ(words_in(drawing), (Lines{"/mnt/ramdisk/t1-e1 7 -1, status 0, so FAIL", "/mnt/ramdisk/t1-e1 7 -1",
                                      "envtool show tempmac, status 3"}));
  EXPECT_EQ(areas_of(Paint::kBoardCall, drawing).size(), 4U);  // one of them in the legend
}

TEST_F(PictureOfARun, HatchesTheTestNetworkWhileACableIsOut) {
  run.says(record::Cut{1500000000});
  run.next_is(record::kLostByCut);
  Exchange(&run, kUnit, made::kStation).asks(rrq("a"));
  run.rests(1999);
  Exchange(&run, {made::kUnit, 2001}, made::kStation).asks(rrq("b"));
  const Drawn drawing = picture();
  EXPECT_EQ(words_in(drawing).at(0), "cable pulled, 1.5 s");
  EXPECT_EQ(words_in(drawing).at(1), "read a, its end is not in the record lost");
  const std::vector<picture::Box> hatched = areas_of(Paint::kCut, drawing);
  ASSERT_EQ(hatched.size(), 2U);  // one of them in the legend
  EXPECT_EQ(hatched[0].y, drawing.sheet.rows.at(0).y);
  EXPECT_EQ(hatched[0].bottom(), drawing.sheet.rows.at(1).bottom());
  EXPECT_EQ(wrong_in_layout(drawing), "");
}

TEST_F(PictureOfARun, SaysOfAPauseWhetherSomethingFoldedWentOn) {
  for (int i = 0; i < 4; ++i) {
    run.broadcasts_boot_script();
    run.rests(999);
  }
  run.rests(998).line("one");
  run.rests(54999).line("two");
  run.rests(1999).says(record::RunEnds{"", ""});
  EXPECT_EQ(words(), (Lines{"boot script, 4 times until 3.0 s nobody answered", "5.0 s nothing else", "one",
                            "55.0 s nothing", "two", "end of the run"}));
}

TEST_F(PictureOfARun, TakesACutForNothingThatGoesOn) {
  run.says(record::Cut{8500000000});
  run.rests(4999).line("one");
  EXPECT_EQ(words(), (Lines{"cable pulled, 8.5 s", "5.0 s nothing", "one"}));
}

TEST_F(PictureOfARun, TakesASlowTransferForNoPause) {
  Exchange unit(&run, kUnit, made::kStation);
  unit.asks(rrq("image.bin"));
  for (int block = 1; block <= 4; ++block) {
    run.rests(3000);
    unit.blocks(block, block, block == 4 ? 1 : 512);
  }
  EXPECT_EQ(words().size(), 3U);
  EXPECT_EQ(words().at(1), "3.0 s nothing");
}

TEST_F(PictureOfARun, EndsALostArrowInACrossAndGivesADuplicatedOneTwoHeads) {
  const auto request = [](const char* fate) {
    MadeRun one;
    if (fate != nullptr) one.next_is(fate);
    Exchange(&one, kUnit, made::kStation).asks(rrq("a"));
    return drawn(one.ends());
  };
  const Drawn plain = request(nullptr);
  EXPECT_EQ(request(record::kDuplicated).sheet.heads.size(),
            plain.sheet.heads.size() + 3);  // two in the legend
  const Drawn lost = request(record::kLostByChance);
  EXPECT_EQ(lost.sheet.heads.size(), plain.sheet.heads.size() - 1);
  EXPECT_EQ(strokes_of(Pen::kLost, lost), 4U);  // two in the legend
}

TEST_F(PictureOfARun, SaysThatFramesAreMissing) {
  run.story.take(record::Interface{"lan0", "", record::kEthernet, 0});
  run.story.take(record::Statistics{0, run.now, 200, 7});
  EXPECT_EQ(words(), (Lines{"7 frames missing: the kernel dropped them, lan0"}));
  EXPECT_TRUE(says(picture(), "The kernel dropped 7 frames of lan0: the record lacks them."));
}

TEST_F(PictureOfARun, SaysWhichTextsACaptureHasNotKept) {
  const std::string whole =
      made::ethernet(made::ip(made::kUnit, made::kStation, 17, made::udp(kUnit, kMessages, "line 1 is up")));
  record::Frame frame;
  frame.bytes = std::string_view(whole).substr(0, whole.size() - 6);
  frame.size = static_cast<std::uint32_t>(whole.size());
  frame.at = run.now;
  run.story.take(frame);
  EXPECT_EQ(words(), Lines{"datagram \"line 1\"… of 12 bytes"});
  EXPECT_TRUE(
      says(picture(), "The capture kept only a part of 1 packet: what is said in the rest is not known."));
}

TEST_F(PictureOfARun, SaysWhatTheRecorderSaysIsMissing) {
  run.line("before");
  run.says(record::Gap{"frames are missing from here on: lan0 is gone or down"});
  run.line("after");
  EXPECT_EQ(words(), (Lines{"before", "frames are missing from here on: lan0 is gone or down", "after"}));
  EXPECT_TRUE(says(picture(),
                   "The record lacks something, at 0.002 s: frames are missing from here on: lan0 is gone or "
                   "down"));
}

TEST_F(PictureOfARun, CountsWhatElseIsMissingOnTop) {
  run.says(record::Gap{"frames are missing from here on: lan0 is gone or down"});
  run.says(record::Gap{"frames are no longer missing: \x1b[31mlan0 is back"});
  EXPECT_EQ(words(), (Lines{"frames are missing from here on: lan0 is gone or down",
                            "frames are no longer missing: \\x1b[31mlan0 is back"}));
  EXPECT_TRUE(says(picture(),
                   "The record lacks something, at 0.001 s: frames are missing from here on: lan0 is gone or "
                   "down (and 1 further remark below)"));
}

TEST_F(PictureOfARun, KeepsWhatIsMissingWhereUnitsAreFolded) {
  Exchange exchange(&run, kUnit, made::kStation);
  exchange.asks(rrq("a"));
  run.says(record::Gap{"frames are missing from here on: lan0 is gone or down"});
  exchange.blocks(1, 1, 3);
  Exchange verdict(&run, {made::kUnit, 2001}, made::kStation, 33134);
  verdict.asks(rrq("F_l_m_01PPT_PASSED"));
  verdict.blocks(1, 1, 0);
  const Lines folded = words(Detail::kUnitsInARow);
  ASSERT_EQ(folded.size(), 2U);
  EXPECT_EQ(folded[1], "frames are missing from here on: lan0 is gone or down");
}

TEST_F(PictureOfARun, LeavesOutTheMiddleOfAVeryLongRun) {
  for (int line = 0; line < 3000; ++line) run.line(std::to_string(line));
  const Drawn drawing = picture();
  EXPECT_EQ(drawing.rows.size(), picture::kMaxRows + 1);
  EXPECT_EQ(words_in(drawing).front(), "0");
  EXPECT_EQ(words_in(drawing).at(picture::kMaxRows / 2), "2000 further rows left out");
  EXPECT_EQ(words_in(drawing).back(), "2999");
}

TEST_F(PictureOfARun, DrawsOnlyWhatWasChosen) {
  Exchange(&run, kUnit, made::kStation).asks(rrq("a"));
  run.rests(1000).line("in the middle");
  Exchange other(&run, {made::kUnitB, 2000}, made::kStation);
  other.asks(rrq("F_l_m_01PPT_PASSED"));
  other.blocks(1, 1, 0);
  run.rests(1000).line("late");
  picture::Choice choice;
  choice.from = 500000000;
  choice.until = 1500000000;
  const Drawn part = drawn(run.ends(), Detail::kRepetitionsFolded, choice);
  EXPECT_EQ(words_in(part),
            (Lines{"in the middle", "read F_l_m_01PPT_PASSED 172.40.0.3 PASSED", "DATA 1, 0 bytes, ACK 1"}));
  EXPECT_TRUE(says(part, "Drawn from 0.500 s until 1.500 s of the run only."));
  choice = {};
  choice.unit = made::kUnit;
  const Drawn one = drawn(run.reading(), Detail::kRepetitionsFolded, choice);
  EXPECT_EQ(words_in(one), (Lines{"read a, its end is not in the record", "in the middle", "late"}));
  EXPECT_TRUE(says(one, "no final verdict"));
}

}  // namespace
