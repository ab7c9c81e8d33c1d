#include "picture/picture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "picture/capture.h"
#include "picture/packet.h"
#include "picture/page.h"
#include "picture/record.h"
#include "picture/rows.h"
#include "picture/story.h"
#include "picture/svg.h"
#include "support/tftp_bytes.h"
#include "virtual_bench/made_capture.h"

namespace {

using picture::Area;
using picture::Box;
using picture::Event;
using picture::Lane;
using picture::Pen;
using picture::RunRecord;
using picture::Sheet;
using picture::Text;
using Lines = std::vector<std::string>;

constexpr MadeCapture::End kUnit{MadeCapture::kUnit, 2000};
constexpr MadeCapture::End kTftp{MadeCapture::kStation, 69};
constexpr MadeCapture::End kAnswering{MadeCapture::kStation, 33033};
constexpr MadeCapture::End kCommandPort{MadeCapture::kStation, 12345};
constexpr MadeCapture::End kAsking{MadeCapture::kStationAtPpt, 40000};
constexpr MadeCapture::End kPpt{MadeCapture::kPptServer, 69};
constexpr MadeCapture::End kPptMessages{MadeCapture::kPptServer, 12345};
constexpr picture::Microseconds kStart = 1700000000000000;
constexpr picture::Fate kLost{true, false, false};
constexpr picture::Fate kDuplicated{false, true, false};
constexpr picture::Fate kSwapped{false, false, true};

// A moment of the run.
constexpr picture::Microseconds at(double seconds) {
  return kStart + static_cast<picture::Microseconds>(seconds * 1e6 + 0.5);
}

RunRecord started_run() {
  RunRecord run;
  run.start = kStart;
  return run;
}

struct Drawing {
  std::vector<Event> rows;
  Sheet sheet;
  std::string svg;
};

Drawing draw(const std::string& capture, RunRecord run = started_run()) {
  run.capture = capture;
  Drawing drawing;
  const picture::Capture read = picture::read_capture(run.capture);
  const auto packets = picture::packets_in(read, run.fates);
  drawing.rows = picture::rows_of(picture::story_of(packets, run), run.end);
  drawing.sheet = picture::page_of(drawing.rows, run);
  drawing.svg = picture::picture_of(run);
  return drawing;
}

double bottom_of(const Box& box) {
  return box.y + box.height;
}

bool overlap(const Box& one, const Box& other) {
  return one.x < other.x + other.width && other.x < one.x + one.width && one.y < bottom_of(other) &&
         other.y < bottom_of(one);
}

// What stands in the rows of the story, downwards, without the times at the axis.
Lines words_in(const Drawing& drawing) {
  Lines lines;
  if (drawing.sheet.rows.empty()) return lines;
  const double top = drawing.sheet.rows.front().y;
  const double bottom = bottom_of(drawing.sheet.rows.back());
  for (const Text& text : drawing.sheet.texts) {
    const bool in_rows = text.box.y >= top && bottom_of(text.box) <= bottom;
    if (in_rows && text.box.x > picture::kAxisX) lines.push_back(text.text);
  }
  return lines;
}

bool says(const Drawing& drawing, const std::string& line) {
  return std::any_of(drawing.sheet.texts.begin(), drawing.sheet.texts.end(),
                     [&line](const Text& text) { return text.text == line; });
}

std::size_t strokes_of(Pen pen, const Drawing& drawing) {
  return static_cast<std::size_t>(
      std::count_if(drawing.sheet.strokes.begin(), drawing.sheet.strokes.end(),
                    [pen](const picture::Stroke& stroke) { return stroke.pen == pen; }));
}

std::vector<Box> areas_of(Area::Paint paint, const Drawing& drawing) {
  std::vector<Box> boxes;
  for (const Area& area : drawing.sheet.areas) {
    if (area.paint == paint) boxes.push_back(area.box);
  }
  return boxes;
}

// Empty when the text is well-formed as far as SVG without comments and CDATA goes; otherwise what is wrong.
std::string wrong_in_xml(const std::string& xml) {
  Lines open;
  for (std::size_t at = 0; at < xml.size();) {
    if (xml[at] == '&') {
      const std::string entity = xml.substr(at, xml.find(';', at) + 1 - at);
      if (entity != "&amp;" && entity != "&lt;" && entity != "&gt;" && entity != "&quot;") return "bare &";
    }
    const auto code = static_cast<unsigned char>(xml[at]);
    if (code != '\n' && (code < 0x20 || code > 0x7e)) return "byte " + std::to_string(code);
    if (xml[at] != '<') {
      ++at;
      continue;
    }
    const std::size_t end = xml.find('>', at);
    if (end == std::string::npos) return "tag without end";
    const std::string tag = xml.substr(at + 1, end - at - 1);
    if (tag.find('<') != std::string::npos || std::count(tag.begin(), tag.end(), '"') % 2 != 0)
      return "tag " + tag;
    const std::string name = tag.substr(0, tag.find_first_of(" /\n", 1));
    if (tag[0] == '/') {
      if (open.empty() || "/" + open.back() != tag) return "unexpected " + tag;
      open.pop_back();
    } else if (tag.back() != '/' && tag[0] != '?') {
      open.push_back(name);
    }
    at = end + 1;
  }
  return open.empty() ? "" : "not closed: " + open.back();
}

// Empty when every text has its own place on the sheet, and no arrow runs through one.
std::string wrong_in_layout(const Sheet& sheet) {
  const auto in_words = [](const Text& text) {
    return "'" + text.text + "' at " + std::to_string(text.box.y);
  };
  for (std::size_t i = 0; i < sheet.texts.size(); ++i) {
    const Text& text = sheet.texts[i];
    if (text.box.x < 0 || text.box.x + text.box.width > picture::kSheetWidth)
      return in_words(text) + " is off";
    if (text.box.y < 0 || bottom_of(text.box) > sheet.height) return in_words(text) + " is off";
    for (std::size_t j = i + 1; j < sheet.texts.size(); ++j) {
      if (overlap(text.box, sheet.texts[j].box)) return in_words(text) + " meets " + in_words(sheet.texts[j]);
    }
    for (const picture::Stroke& stroke : sheet.strokes) {
      if (stroke.pen == Pen::kLifeLine || stroke.pen == Pen::kPausedLifeLine) continue;
      const Box around{std::min(stroke.x1, stroke.x2), std::min(stroke.y1, stroke.y2),
                       std::abs(stroke.x1 - stroke.x2), std::abs(stroke.y1 - stroke.y2)};
      if (overlap(text.box, around)) return in_words(text) + " is crossed out";
    }
  }
  for (std::size_t i = 1; i < sheet.rows.size(); ++i) {
    if (sheet.rows[i].y < bottom_of(sheet.rows[i - 1]))
      return "row " + std::to_string(i) + " begins too early";
  }
  return "";
}

std::string block(std::size_t size) {
  return std::string(size, 'x');
}

// Blocks and ACKs from `first` to `last` of a read, a millisecond apart.
void add_blocks(MadeCapture* capture, unsigned milliseconds, int first, int last, std::size_t size) {
  for (int number = first; number <= last; ++number) {
    capture->udp(milliseconds++, kAnswering, kUnit, tftp::data(number & 0xffff, block(size)));
    capture->udp(milliseconds++, kUnit, kAnswering, tftp::ack(number & 0xffff));
  }
}

// A run in which everything happens that can be drawn.
MadeCapture busy_capture() {
  MadeCapture capture;
  for (unsigned second = 0; second < 4; ++second) {
    capture.udp(second * 1000, kCommandPort, {MadeCapture::kBroadcast, 12345}, block(300));
  }
  capture.udp(500, kUnit, kTftp, tftp::rrq(std::string(200, 'W') + "<&>\"\x01\xff", {{"blksize", "1428"}}));
  capture.udp(501, kAnswering, kUnit, tftp::oack({{"blksize", "1428"}}));
  capture.udp(502, kUnit, kAnswering, tftp::ack(0));
  add_blocks(&capture, 503, 1, 40, 1428);
  capture.udp(590, kAnswering, kUnit, tftp::data(40, block(1428)));
  capture.udp(6000, kAnswering, kUnit, tftp::data(40, block(1428)));
  capture.udp(6001, kUnit, kAnswering, tftp::ack(40));
  capture.udp(6002, kAnswering, kUnit, tftp::data(41, ""));
  capture.udp(6003, kUnit, kAnswering, tftp::error(4, std::string(600, 'e')));
  capture.udp(7000, {MadeCapture::kUnit, 2001}, kTftp, tftp::rrq("F_l_m_01TEST_FAILED"));
  capture.udp(7001, kAsking, kPpt, tftp::rrq("F_l_m_01CPU_2_TEST_FAILED"));
  capture.udp(7002, kPpt, kAsking, tftp::data(1, ""));
  capture.udp(7003, kAsking, kPpt, tftp::ack(1));
  capture.port_unreachable(7004, {MadeCapture::kUnit, 2001}, kAnswering);
  capture.tcp(7100, {MadeCapture::kStationAtPpt, 50000}, kPptMessages, MadeCapture::kSyn, 1);
  capture.tcp(8100, {MadeCapture::kStationAtPpt, 50000}, kPptMessages, MadeCapture::kSyn, 1);
  capture.udp(8200, {MadeCapture::kUnit, 2005}, kCommandPort, std::string(255, 'r'));
  capture.udp(8201, kAsking, kPptMessages, std::string(255, 'r') + '\0');
  return capture;
}

RunRecord busy_run() {
  RunRecord run = started_run();
  run.end = at(60.5);
  run.title = std::string(250, 'T');
  run.name = "busy";
  run.exit_status = {2, 0};
  run.ppt_flag = "failed";
  run.judged = std::string(400, 'j');
  run.command = "TFTP -o 172.40.0.1";
  run.station_lines = {{at(0.1), std::string(200, 'l')},
                       {at(0.51), "RRQ a name with blanks that is long enough to need a second line"},
                       {at(7.0005), "Cmd received: F_l_m_01TEST_FAILED"}};
  run.board_calls = {{at(7.0007), "envtool ppt_flag=failed", 0}};
  run.fates.of_frame = {{7, kLost}, {20, kLost}, {21, kDuplicated}, {90, kSwapped}, {95, kLost}, {1, kLost}};
  run.fates.cuts = {{at(0.52), at(0.56)}};
  return run;
}

}  // namespace

TEST(PictureCapture, ReadsBothByteOrders) {
  for (const bool big_endian : {false, true}) {
    MadeCapture made(big_endian);
    made.frame(1234, "first");
    made.frame(5678, "");
    const picture::Capture capture = picture::read_capture(made.contents());
    ASSERT_EQ(capture.frames.size(), 2U);
    EXPECT_EQ(capture.frames[0].number, 1U);
    EXPECT_EQ(capture.frames[0].at, 1700000001234000);
    EXPECT_EQ(capture.frames[0].bytes, "first");
    EXPECT_EQ(capture.frames[1].at, 1700000005678000);
    EXPECT_EQ(capture.frames[1].bytes, "");
    EXPECT_TRUE(capture.whole);
  }
}

TEST(PictureCapture, OfAFileThatIsCutShortTheWholeFramesAreRead) {
  for (const bool big_endian : {false, true}) {
    MadeCapture made(big_endian);
    made.frame(1, "0123456789");
    made.frame(2, "0123456789");
    for (std::size_t size = 0; size < made.contents().size(); ++size) {
      const std::string contents = made.contents().substr(0, size);
      EXPECT_EQ(picture::read_capture(contents).frames.size(), size < 50 ? 0U : 1U) << size;
      EXPECT_EQ(picture::read_capture(contents).whole, size == 24 || size == 50) << size;
    }
  }
}

TEST(PictureCapture, AnythingElseHasNoFrames) {
  MadeCapture made;
  made.frame(1, "x");
  std::string other_link = made.contents();
  other_link[20] = 2;
  std::string huge = made.contents();
  huge[24 + 11] = '\xff';
  for (const std::string& contents : {other_link, huge, std::string(1000, '\xff')}) {
    EXPECT_EQ(picture::read_capture(contents).frames.size(), 0U);
  }
}

TEST(PictureTransfers, AReadOfFewBlocksIsToldPacketByPacket) {
  MadeCapture capture;
  capture.udp(0, kUnit, kTftp, tftp::rrq("bootscript.txt", {{"blksize", "1428"}, {"timeout", "1"}}));
  capture.udp(1, kAnswering, kUnit, tftp::oack({{"blksize", "1428"}, {"timeout", "5"}}));
  capture.udp(2, kUnit, kAnswering, tftp::ack(0));
  capture.udp(3, kAnswering, kUnit, tftp::data(1, "text"));
  capture.udp(4, kUnit, kAnswering, tftp::ack(1));
  EXPECT_EQ(words_in(draw(capture.contents())),
            (Lines{"read bootscript.txt, blksize 1428, timeout 1",
                   "option acknowledgement, blksize 1428, timeout 5", "ACK 0", "data 1, 4 bytes", "ACK 1"}));
}

TEST(PictureTransfers, ALongReadIsOneBandWithItsSizes) {
  MadeCapture capture;
  capture.udp(0, kUnit, kTftp, tftp::rrq("image.bin"));
  add_blocks(&capture, 1, 1, 9, 512);
  add_blocks(&capture, 1000, 10, 10, 100);
  const Drawing drawing = draw(capture.contents());
  EXPECT_EQ(words_in(drawing), (Lines{"read image.bin", "image.bin", "4708 bytes, 10 blocks of 512 bytes",
                                      "1.000 s, 0.004 MiB/s"}));
  EXPECT_EQ(areas_of(Area::Paint::kBundle, drawing).size(), 1U);
  EXPECT_EQ(strokes_of(Pen::kLost, drawing) + strokes_of(Pen::kAgain, drawing), 0U);
}

TEST(PictureTransfers, WhatWasLostDuplicatedAndSentAgainIsCountedInTheBandAndBesideIt) {
  MadeCapture capture;
  capture.udp(0, kUnit, kTftp, tftp::rrq("image.bin"));             // frame 1
  add_blocks(&capture, 1, 1, 3, 512);                               // 2 to 7
  capture.udp(10, kAnswering, kUnit, tftp::data(4, block(512)));    // 8, lost
  capture.udp(500, kUnit, kAnswering, tftp::ack(3));                // 9, again
  capture.udp(501, kAnswering, kUnit, tftp::data(4, block(512)));   // 10, again
  capture.udp(502, kUnit, kAnswering, tftp::ack(4));                // 11, lost
  capture.udp(1000, kUnit, kAnswering, tftp::ack(4));               // 12, again
  capture.udp(1001, kAnswering, kUnit, tftp::data(5, block(100)));  // 13, duplicated
  capture.udp(1002, kUnit, kAnswering, tftp::ack(5));               // 14, swapped
  RunRecord run = started_run();
  run.fates.of_frame = {{8, kLost}, {11, kLost}, {13, kDuplicated}, {14, kSwapped}};
  const Drawing drawing = draw(capture.contents(), run);
  EXPECT_EQ(
      words_in(drawing),
      (Lines{"read image.bin", "image.bin", "2148 bytes, 5 blocks of 512 bytes", "1.001 s, 0.002 MiB/s",
             "in all: 1 block and 1 ACK lost, 1 block and 2 ACKs", "sent again, 1 duplicated, 1 swapped",
             "1 lost", "1 lost, 2 again", "1 again, 1 duplicated, 1 swapped"}));
  EXPECT_EQ(strokes_of(Pen::kLost, drawing), 2U);
}

TEST(PictureTransfers, TheFragmentsOfABlockAreItsSizeAndShareItsFate) {
  MadeCapture capture;
  capture.udp(0, kUnit, kTftp, tftp::rrq("image.bin", {{"blksize", "8192"}}));       // frame 1
  capture.udp(1, kAnswering, kUnit, tftp::oack({{"blksize", "8192"}}));              // 2
  capture.udp_in_fragments(2, kAnswering, kUnit, tftp::data(1, block(8192)), 1480);  // 3 to 8
  capture.udp(3, kUnit, kAnswering, tftp::ack(1));
  RunRecord run = started_run();
  run.fates.of_frame = {{8, kLost}};
  const Drawing drawing = draw(capture.contents(), run);
  EXPECT_EQ(words_in(drawing), (Lines{"read image.bin, blksize 8192", "option acknowledgement, blksize 8192",
                                      "data 1, 8192 bytes", "lost", "ACK 1"}));
  EXPECT_TRUE(drawing.rows[2].fate.lost);
  EXPECT_FALSE(drawing.rows[3].fate.lost);
}

TEST(PictureTransfers, BlocksAreCountedBeyondTheWrapOfTheirNumber) {
  MadeCapture capture;
  capture.udp(0, kUnit, kTftp, tftp::rrq("image.bin", {{"blksize", "8"}}));
  capture.udp(1, kAnswering, kUnit, tftp::oack({{"blksize", "8"}}));
  for (int number = 1; number <= 65540; ++number) {
    capture.udp(2, kAnswering, kUnit, tftp::data(number & 0xffff, number == 65540 ? "" : "12345678"));
    capture.udp(2, kUnit, kAnswering, tftp::ack(number & 0xffff));
  }
  EXPECT_TRUE(says(draw(capture.contents()), "524312 bytes, 65540 blocks of 8 bytes"));
}

TEST(PictureTransfers, AReadWhoseLastBlockWasNotAcknowledgedIsNotFinished) {
  MadeCapture capture;
  capture.udp(0, kUnit, kTftp, tftp::rrq("image.bin"));
  add_blocks(&capture, 1, 1, 4, 512);
  capture.udp(20, kAnswering, kUnit, tftp::data(5, "end"));
  EXPECT_TRUE(says(draw(capture.contents()), "not finished"));
  capture.udp(21, kUnit, kAnswering, tftp::ack(5));  // frame 11
  EXPECT_FALSE(says(draw(capture.contents()), "not finished"));
  RunRecord run = started_run();
  run.fates.of_frame = {{11, kLost}};
  EXPECT_TRUE(says(draw(capture.contents(), run), "not finished"));
}

TEST(PictureTransfers, ABandMakesRoomForWhatBeginsMeanwhileAndForItsOwnRest) {
  MadeCapture capture;
  capture.udp(0, kUnit, kTftp, tftp::rrq("image.bin"));
  add_blocks(&capture, 10, 1, 2, 512);
  add_blocks(&capture, 30, 3, 4, 512);
  add_blocks(&capture, 5033, 5, 5, 100);
  RunRecord run = started_run();
  run.station_lines = {{at(0.02), "RRQ image.bin"}};
  EXPECT_EQ(words_in(draw(capture.contents(), run)),
            (Lines{"read image.bin", "image.bin", "2148 bytes, 5 blocks of 512 bytes", "5.024 s, 0.000 MiB/s",
                   "here blocks 1 to 2", "RRQ image.bin", "image.bin", "goes on, blocks 3 to 4",
                   "5.0 s nothing", "image.bin", "goes on, block 5"}));
}

TEST(PictureTransfers, ARequestThatIsRepeatedWithoutAnAnswerIsFolded) {
  MadeCapture capture;
  for (const unsigned second : {0U, 1U, 2U}) capture.udp(second * 1000, kUnit, kTftp, tftp::rrq("a"));
  capture.udp(2100, kAnswering, kUnit, tftp::error(1, ""));
  RunRecord run = started_run();
  run.fates.of_frame = {{1, kLost}, {2, kLost}};
  EXPECT_EQ(
      words_in(draw(capture.contents(), run)),
      (Lines{"read a", "lost", "read a, again, 2 times until 2.0 s, 1 lost", "error 1, no text, for a"}));
}

TEST(PictureTransfers, AFinishedReadFromTheSamePortIsNoRepetition) {
  MadeCapture capture;
  for (const unsigned second : {0U, 1U}) {
    capture.udp(second * 1000, kUnit, kTftp, tftp::rrq("a"));
    capture.udp(second * 1000 + 1, kAnswering, kUnit, tftp::data(1, ""));
    capture.udp(second * 1000 + 2, kUnit, kAnswering, tftp::ack(1));
  }
  EXPECT_EQ(words_in(draw(capture.contents())).at(3), "read a");
}

TEST(PictureTransfers, TheSecondAnswerToADuplicatedRequestSaysWhatItIsFor) {
  MadeCapture capture;
  capture.udp(0, kUnit, kTftp, tftp::rrq("a"));
  capture.udp(1, kAnswering, kUnit, tftp::data(1, "x"));
  capture.udp(2, {MadeCapture::kStation, 33133}, kUnit, tftp::data(1, "x"));
  RunRecord run = started_run();
  run.fates.of_frame = {{1, kDuplicated}};
  const Drawing drawing = draw(capture.contents(), run);
  EXPECT_EQ(words_in(drawing), (Lines{"read a, duplicated", "data 1, 1 byte", "data 1, 1 byte, for a"}));
  EXPECT_EQ(drawing.rows.size(), 3U);
}

TEST(PictureTransfers, ABlockThatIsSentAgainAndAgainToASilentClientIsFolded) {
  MadeCapture capture;
  capture.udp(0, kUnit, kTftp, tftp::rrq("a"));
  for (const unsigned second : {0U, 5U, 10U, 15U}) {
    capture.udp(second * 1000 + 1, kAnswering, kUnit, tftp::data(1, "x"));
  }
  EXPECT_EQ(words_in(draw(capture.contents())), (Lines{"read a", "data 1, 1 byte", "5.0 s nothing",
                                                       "data 1, 1 byte, again, 3 times until 15.0 s"}));
}

TEST(PictureVerdicts, AVerdictIsEmphasisedAndItsForwardingIsATransferOfTheStation) {
  MadeCapture capture;
  capture.udp(0, kUnit, kTftp, tftp::rrq("F_l_m_01MEMORY_PASSED"));
  capture.udp(1, kAsking, kPpt, tftp::rrq("F_l_m_01CPU_2_MEMORY_PASSED"));
  capture.udp(2, {MadeCapture::kPptServer, 5000}, kAsking, tftp::data(1, ""));
  capture.udp(3, kAsking, {MadeCapture::kPptServer, 5000}, tftp::ack(1));
  const Drawing drawing = draw(capture.contents());
  EXPECT_EQ(words_in(drawing), (Lines{"read F_l_m_01MEMORY_PASSED", "read F_l_m_01CPU_2_MEMORY_PASSED",
                                      "data 1, 0 bytes", "ACK 1"}));
  ASSERT_EQ(drawing.rows.size(), 4U);
  EXPECT_EQ(drawing.rows[0].look, Event::Look::kVerdict);
  EXPECT_EQ(drawing.rows[1].look, Event::Look::kDatagram);
  EXPECT_EQ(drawing.rows[1].source, Lane::kStation);
  EXPECT_EQ(drawing.rows[1].target, Lane::kPptServer);
  EXPECT_EQ(drawing.rows[2].source, Lane::kPptServer);
}

TEST(PictureVerdicts, APptServerMayAnswerFromThePortOfItsRequests) {
  MadeCapture capture;
  for (const unsigned second : {0U, 1U}) {
    capture.udp(second * 1000, kAsking, kPpt, tftp::rrq("F_l_m_01CPU_2_MEMORY_PASSED"));
    capture.udp(second * 1000 + 1, kPpt, kAsking, tftp::data(1, ""));
    capture.udp(second * 1000 + 2, kAsking, kPpt, tftp::ack(1));
  }
  const Lines verdict{"read F_l_m_01CPU_2_MEMORY_PASSED", "data 1, 0 bytes", "ACK 1"};
  Lines both = verdict;
  both.insert(both.end(), verdict.begin(), verdict.end());
  EXPECT_EQ(words_in(draw(capture.contents())), both);
}

TEST(PictureVerdicts, ALongAnswerFromThePortOfTheRequestsIsOneBand) {
  MadeCapture capture;
  capture.udp(0, kAsking, kPpt, tftp::rrq("F_l_m_01CPU_2_MEMORY_PASSED"));
  for (int number = 1; number <= 5; ++number) {
    const auto milliseconds = static_cast<unsigned>(number) * 100;
    capture.udp(milliseconds, kPpt, kAsking, tftp::data(number, block(number == 5 ? 0 : 512)));
    capture.udp(milliseconds + 1, kAsking, kPpt, tftp::ack(number));
  }
  capture.udp(501, kPpt, kAsking, tftp::data(5, ""));
  EXPECT_EQ(
      words_in(draw(capture.contents())),
      (Lines{"read F_l_m_01CPU_2_MEMORY_PASSED", "F_l_m_01CPU_2_MEMORY_PASSED",
             "2048 bytes, 5 blocks of 512 bytes", "0.401 s, 0.005 MiB/s", "in all: 1 block sent again"}));
}

TEST(PictureVerdicts, TheAckToASilentPptServerIsShown) {
  MadeCapture capture;
  capture.udp(0, kAsking, kPpt, tftp::rrq("F_l_m_01CPU_2_MEMORY_PASSED"));
  capture.udp(5000, kAsking, kPpt, tftp::ack(1));
  EXPECT_EQ(words_in(draw(capture.contents())),
            (Lines{"read F_l_m_01CPU_2_MEMORY_PASSED", "5.0 s nothing", "ACK 1"}));
}

TEST(PictureDatagrams, TheBootScriptIsDrawnOnce) {
  MadeCapture capture;
  for (const unsigned second : {0U, 1U, 2U, 3U}) {
    capture.udp(second * 1000 + 200, kCommandPort, {MadeCapture::kBroadcast, 12345}, "script");
  }
  EXPECT_EQ(words_in(draw(capture.contents())), (Lines{"boot script, 4 times until 3.2 s"}));
}

TEST(PictureDatagrams, RelayedTextsAreQuotedWithTheirNul) {
  MadeCapture capture;
  capture.udp(0, kUnit, kCommandPort, "up\n");
  capture.udp(1, kAsking, kPptMessages, std::string("up\n\0", 4));
  EXPECT_EQ(words_in(draw(capture.contents())), (Lines{"datagram \"up\\n\"", "relays \"up\\n\\0\""}));
}

TEST(PictureDatagrams, DifferentTextsInARowEachHaveTheirRow) {
  MadeCapture capture;
  for (const char* const text : {"a", "b", "c", "d"}) capture.udp(0, kUnit, kCommandPort, text);
  EXPECT_EQ(words_in(draw(capture.contents())),
            (Lines{"datagram \"a\"", "datagram \"b\"", "datagram \"c\"", "datagram \"d\""}));
}

TEST(PictureDatagrams, APortWhereNobodyListensIsNamed) {
  MadeCapture capture;
  capture.port_unreachable(0, kUnit, {MadeCapture::kStation, 33333});
  const Drawing drawing = draw(capture.contents());
  EXPECT_EQ(words_in(drawing), (Lines{"port 33333 is closed"}));
  EXPECT_EQ(drawing.rows.at(0).source, Lane::kStation);
}

TEST(PictureDatagrams, EqualOnesInARowAreFoldedFromTheSecondOnEachSideForItself) {
  constexpr MadeCapture::End unit{MadeCapture::kUnit, 5};
  constexpr MadeCapture::End station{MadeCapture::kStation, 5};
  MadeCapture capture;
  for (unsigned milliseconds = 0; milliseconds < 3; ++milliseconds) {
    capture.port_unreachable(milliseconds, unit, station);
  }
  EXPECT_EQ(words_in(draw(capture.contents())),
            (Lines{"port 5 is closed", "port 5 is closed, 2 times until 0.0 s"}));
  MadeCapture alternating;
  for (unsigned milliseconds = 0; milliseconds < 6; milliseconds += 2) {
    alternating.port_unreachable(milliseconds, unit, station);
    alternating.port_unreachable(milliseconds + 1, station, unit);
  }
  EXPECT_EQ(draw(alternating.contents()).rows.size(), 6U);
}

TEST(PictureConnections, TextsOfAConnectionAreQuotedBothWays) {
  constexpr MadeCapture::End client{MadeCapture::kUnit, 4000};
  MadeCapture capture;
  capture.tcp(0, client, kCommandPort, MadeCapture::kSyn, 0xfffffffe);
  capture.tcp(1, kCommandPort, client, MadeCapture::kSyn | MadeCapture::kAck, 500);
  capture.tcp(2, client, kCommandPort, MadeCapture::kAck, 0xffffffff);
  capture.tcp(3, client, kCommandPort, MadeCapture::kAck, 0xffffffff, "DO_PMC_INIT:7");  // frame 4, lost
  capture.tcp(4, client, kCommandPort, MadeCapture::kAck, 0xffffffff, "DO_PMC_INIT:7");
  capture.tcp(5, kCommandPort, client, MadeCapture::kAck, 501, "READY");
  capture.tcp(6, client, kCommandPort, MadeCapture::kAck | MadeCapture::kFin, 12);
  capture.tcp(7, kCommandPort, client, MadeCapture::kRst, 506);
  RunRecord run = started_run();
  run.fates.of_frame = {{4, kLost}};
  EXPECT_EQ(
      words_in(draw(capture.contents(), run)),
      (Lines{"connects to port 12345", "accepts the connection", "\"DO_PMC_INIT:7\"", "lost",
             "\"DO_PMC_INIT:7\", again", "\"READY\"", "closes the connection", "breaks the connection off"}));
}

TEST(PictureConnections, ARefusalAndSilenceAreToldApart) {
  constexpr MadeCapture::End client{MadeCapture::kStationAtPpt, 4000};
  constexpr MadeCapture::End next_client{MadeCapture::kStationAtPpt, 4001};
  MadeCapture capture;
  capture.tcp(0, client, kPptMessages, MadeCapture::kSyn, 1);
  capture.tcp(1, kPptMessages, client, MadeCapture::kRst | MadeCapture::kAck, 0);
  for (const unsigned second : {1U, 2U, 3U}) {
    capture.tcp(second * 1000, next_client, kPptMessages, MadeCapture::kSyn, 1);
  }
  EXPECT_EQ(words_in(draw(capture.contents())),
            (Lines{"connects to port 12345", "refuses the connection", "connects to port 12345",
                   "connects to port 12345, again, 2 times until", "3.0 s"}));
}

TEST(PictureRows, EqualLinesOfTheStationAreFoldedFromTheThirdOn) {
  RunRecord run = started_run();
  run.station_lines = {
      {at(0.1), "twice"}, {at(0.2), "twice"}, {at(0.3), "thrice"}, {at(0.4), "thrice"}, {at(1.5), "thrice"}};
  EXPECT_EQ(words_in(draw("", run)), (Lines{"twice", "twice", "thrice x 3 until 1.5 s"}));
}

TEST(PictureRows, ABoardCommandGoesFromTheStationToTheBoard) {
  RunRecord run = started_run();
  run.board_calls = {{at(0.1), "/mnt/ramdisk/t1-e1 7 -1", 0}};
  const Drawing drawing = draw("", run);
  EXPECT_EQ(words_in(drawing), (Lines{"/mnt/ramdisk/t1-e1 7 -1"}));
  EXPECT_EQ(drawing.rows.at(0).source, Lane::kStation);
  EXPECT_EQ(drawing.rows.at(0).target, Lane::kBoard);
}

TEST(PictureRows, ACutHatchesTheTestNetworkWhileItLasts) {
  MadeCapture capture;
  capture.udp(1000, kUnit, kTftp, tftp::rrq("a"));
  capture.udp(2500, kUnit, kTftp, tftp::rrq("b"));
  RunRecord run = started_run();
  run.fates.of_frame = {{1, kLost}};
  run.fates.cuts = {{at(0.5), at(2)}};
  const Drawing drawing = draw(capture.contents(), run);
  EXPECT_EQ(words_in(drawing), (Lines{"cable pulled, 1.5 s", "read a", "lost", "read b"}));
  const std::vector<Box> hatched = areas_of(Area::Paint::kCut, drawing);
  ASSERT_EQ(hatched.size(), 1U);
  EXPECT_EQ(hatched[0].x, picture::kStationX);
  EXPECT_EQ(hatched[0].x + hatched[0].width, picture::kUnitX);
  EXPECT_EQ(hatched[0].y, drawing.sheet.rows.at(0).y);
  EXPECT_EQ(bottom_of(hatched[0]), drawing.sheet.rows.at(2).y);
}

TEST(PictureRows, APauseIsOneRowAndSaysWhetherSomethingFoldedWentOn) {
  MadeCapture capture;
  for (const unsigned second : {0U, 1U, 2U, 3U}) {
    capture.udp(second * 1000, kCommandPort, {MadeCapture::kBroadcast, 12345}, "script");
  }
  RunRecord run = started_run();
  run.end = at(63);
  run.station_lines = {{at(5), "one"}, {at(60), "two"}, {at(62), "three"}};
  EXPECT_EQ(words_in(draw(capture.contents(), run)),
            (Lines{"boot script, 4 times until 3.0 s", "5.0 s nothing else", "one", "55.0 s nothing", "two",
                   "three", "end of the run"}));
}

TEST(PictureRows, ACutIsNothingThatGoesOn) {
  RunRecord run = started_run();
  run.fates.cuts = {{at(0.5), at(9)}};
  run.station_lines = {{at(5.5), "one"}};
  EXPECT_EQ(words_in(draw("", run)), (Lines{"cable pulled, 8.5 s", "5.0 s nothing", "one"}));
}

TEST(PictureRows, ASlowBandIsNoPause) {
  MadeCapture capture;
  capture.udp(0, kUnit, kTftp, tftp::rrq("image.bin"));
  for (const unsigned second : {1U, 2U, 3U, 4U}) {
    add_blocks(&capture, second * 1000, static_cast<int>(second), static_cast<int>(second),
               second == 4 ? 1 : 512);
  }
  capture.udp(4500, kUnit, kTftp, tftp::rrq("b"));
  EXPECT_EQ(words_in(draw(capture.contents())),
            (Lines{"read image.bin", "image.bin", "1537 bytes, 4 blocks of 512 bytes", "3.001 s, 0.000 MiB/s",
                   "read b"}));
}

TEST(PictureRows, ALostArrowEndsInACrossAndADuplicatedOneHasTwoHeads) {
  MadeCapture capture;
  capture.udp(0, kUnit, kTftp, tftp::rrq("a"));
  RunRecord run = started_run();
  const std::size_t heads = draw(capture.contents(), run).sheet.heads.size();
  run.fates.of_frame = {{1, kDuplicated}};
  EXPECT_EQ(draw(capture.contents(), run).sheet.heads.size(), heads + 1);
  run.fates.of_frame = {{1, kLost}};
  const Drawing lost = draw(capture.contents(), run);
  EXPECT_EQ(lost.sheet.heads.size(), heads - 1);
  EXPECT_EQ(strokes_of(Pen::kLost, lost), 2U);
}

TEST(PictureRows, OfAVeryLongRunTheFirst400RowsAreDrawn) {
  RunRecord run = started_run();
  for (int line = 0; line < 1000; ++line) run.station_lines.push_back({at(1), std::to_string(line)});
  const Drawing drawing = draw("", run);
  EXPECT_EQ(drawing.rows.size(), 401U);
  EXPECT_EQ(words_in(drawing).back(), "600 further rows left out");
}

TEST(PicturePage, TheFootSaysHowTheRunEnded) {
  RunRecord run = started_run();
  run.exit_status = {2, 0};
  run.ppt_flag = "failed";
  run.judged = "as the scenario says";
  run.station_lines = {{at(0.1), "Cmd received: F_l_m_01A"}, {at(0.2), "Cmd received: F_l_m_02PPT_FAILED"}};
  const Drawing drawing = draw("", run);
  EXPECT_TRUE(says(drawing, "F_l_m_02PPT_FAILED"));
  EXPECT_TRUE(says(drawing, "failed"));
  EXPECT_TRUE(says(drawing, "2 (a final verdict or SIGINT ended the run)"));
  EXPECT_TRUE(says(drawing, "as the scenario says"));
}

TEST(PicturePage, AnExitStatusThatMeansNothingStandsAlone) {
  EXPECT_EQ(picture::in_words({2, 0}), "2 (a final verdict or SIGINT ended the run)");
  EXPECT_EQ(picture::in_words({15, 0}), "15 (SIGTERM)");
  EXPECT_EQ(picture::in_words({0, 9}), "137 (SIGKILL)");
  EXPECT_EQ(picture::in_words({0, 13}),
            "141 (SIGPIPE: the unit closed its command connection before its answer was sent)");
  EXPECT_EQ(picture::in_words({0, 11}), "139");
  EXPECT_EQ(picture::in_words({3, 0}), "3");
  EXPECT_TRUE(says(draw(""), "not known"));
}

TEST(PicturePage, NothingOverlapsInAFullRun) {
  EXPECT_EQ(wrong_in_layout(draw(busy_capture().contents(), busy_run()).sheet), "");
}

TEST(PicturePage, TheCountsBesideABandStayInTheirPlace) {
  MadeCapture capture;
  RunRecord run = started_run();
  capture.udp(0, kUnit, kTftp, tftp::rrq("image.bin", {{"blksize", "8"}}));
  for (int number = 1; number <= 20000; ++number) {
    const auto milliseconds = static_cast<unsigned>(number) / 100;
    capture.udp(milliseconds, kAnswering, kUnit, tftp::data(number, "12345678"));
    run.fates.of_frame[capture.frames()] = {true, true, true};
    capture.udp(milliseconds, kAnswering, kUnit, tftp::data(number, "12345678"));
  }
  EXPECT_EQ(wrong_in_layout(draw(capture.contents(), run).sheet), "");
  for (const Text& text : draw(capture.contents(), run).sheet.texts) {
    const bool beside = text.box.x > picture::kUnitX && text.text.find(" again") != std::string::npos;
    if (beside) {
      EXPECT_LT(text.box.x + text.box.width, picture::kPptServerX) << text.text;
    }
  }
}

TEST(PicturePage, WhereNothingIsKnownThePageIsDrawnAllTheSame) {
  const Drawing drawing = draw("", RunRecord());
  EXPECT_EQ(drawing.rows.size(), 0U);
  EXPECT_TRUE(says(drawing, "A run"));
  EXPECT_EQ(wrong_in_layout(drawing.sheet), "");
  EXPECT_EQ(wrong_in_xml(drawing.svg), "");
}

TEST(PictureSvg, NamesAreEscaped) {
  MadeCapture capture;
  capture.udp(0, kUnit, kTftp, tftp::rrq("<a&b>\x01\xff"));
  const Drawing drawing = draw(capture.contents());
  EXPECT_NE(drawing.svg.find(">read &lt;a&amp;b&gt;\\x01\\xff</text>"), std::string::npos);
  EXPECT_EQ(wrong_in_xml(drawing.svg), "");
}

TEST(PictureSvg, AFullRunIsWellFormed) {
  const Drawing drawing = draw(busy_capture().contents(), busy_run());
  EXPECT_GT(drawing.rows.size(), 20U);
  EXPECT_EQ(wrong_in_xml(drawing.svg), "");
}

TEST(PictureSvg, TheCheckOfXmlFindsWhatIsWrong) {
  EXPECT_EQ(wrong_in_xml("<a><b c=\"d\"/>&amp;</a>"), "");
  EXPECT_NE(wrong_in_xml("<a>"), "");
  EXPECT_NE(wrong_in_xml("<a></b>"), "");
  EXPECT_NE(wrong_in_xml("<a>&</a>"), "");
  EXPECT_NE(wrong_in_xml("<a>\x01</a>"), "");
  EXPECT_NE(wrong_in_xml("<a b=\">\"/>"), "");
}

TEST(PictureRobustness, ACaptureWithAnyByteSpoiledOrCutAnywhereIsDrawn) {
  for (const bool big_endian : {false, true}) {
    MadeCapture made(big_endian);
    made.udp(0, kUnit, kTftp, tftp::rrq("a", {{"blksize", "512"}}));
    add_blocks(&made, 1, 1, 4, 20);
    made.udp_in_fragments(20, kAnswering, kUnit, tftp::data(5, block(40)), 16);
    made.tcp(21, kUnit, kCommandPort, MadeCapture::kSyn, 1, "x");
    made.port_unreachable(22, kUnit, kAnswering);
    made.udp(23, kAnswering, kUnit, tftp::error(1, "text"));
    for (std::size_t place = 0; place < made.contents().size(); ++place) {
      std::string spoiled = made.contents();
      spoiled[place] = '\xff';
      ASSERT_EQ(wrong_in_xml(draw(spoiled).svg), "") << place;
      ASSERT_EQ(wrong_in_layout(draw(spoiled).sheet), "") << place;
      ASSERT_EQ(wrong_in_xml(draw(made.contents().substr(0, place)).svg), "") << place;
    }
  }
}

TEST(PictureRobustness, ARecordOfGarbageIsDrawn) {
  RunRecord run;
  run.title = run.name = run.command = run.ppt_flag = run.judged = "\xff\xfe\n" + std::string(5000, '<');
  run.start = -kStart;
  run.end = 99999999999 * 1000000;
  run.exit_status = {-1, -1};
  run.station_lines = {{at(99999999999.0 - 1700000000), run.title}, {-kStart, "\n\r"}, {0, ""}};
  for (const auto& line : run.station_lines) run.board_calls.push_back({line.at, line.text, -1});
  run.fates.of_frame = {{0, kLost}, {999999, kSwapped}};
  run.fates.cuts = {{5, 4}, {-kStart, 2 * kStart}};
  const Drawing drawing = draw(busy_capture().contents(), run);
  EXPECT_EQ(wrong_in_xml(drawing.svg), "");
  EXPECT_EQ(wrong_in_layout(drawing.sheet), "");
}
