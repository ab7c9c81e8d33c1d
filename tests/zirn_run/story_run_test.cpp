#include <gtest/gtest.h>
#include <malloc.h>

#include <cstdlib>
#include <new>
#include <string>
#include <vector>

#include "story/story.h"
#include "zirn_run/made_run.h"

namespace {

std::size_t held_bytes = 0;  // by all that was allocated with new

}  // namespace

void* operator new(std::size_t size) {
  void* const memory = std::malloc(size);
  if (memory == nullptr) throw std::bad_alloc();
  held_bytes += malloc_usable_size(memory);
  return memory;
}

void operator delete(void* memory) noexcept {
  held_bytes -= malloc_usable_size(memory);
  std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept {
  operator delete(memory);
}

namespace {

using story::Reading;
using story::Step;
using tftp::rrq;

constexpr made::Endpoint kUnit{made::kUnit, 2000};
constexpr made::Endpoint kRelay{made::kStation, 12345};
constexpr made::Endpoint kPassing{made::kStationAtPpt, 41000};
constexpr made::Endpoint kPptRelay{made::kPptServer, 12345};

class Run : public testing::Test {
 protected:
  const Step& step(std::size_t place) { return run.reading().steps.at(place); }
  MadeRun run;
};

TEST_F(Run, FoldsTheBootScript) {
  for (int i = 0; i < 5; ++i) {
    if (i == 2) run.next_is(record::kLostByChance);
    run.broadcasts_boot_script();
    run.rests(1000).line("a line");
  }
  ASSERT_TRUE(run.reading().boot_script);
  EXPECT_EQ(run.reading().boot_script->count, 5U);
  EXPECT_EQ(run.reading().boot_script->lost, 1U);
  EXPECT_FALSE(run.reading().boot_script->answered);
  EXPECT_EQ(step(0).kind, Step::Kind::kBootScript);
  EXPECT_EQ(step(0).count, 5U);
  EXPECT_EQ(step(0).target, story::kEveryone);
  Exchange(&run, kUnit, made::kStation).asks(rrq("bootscript.txt"));
  EXPECT_EQ(run.reading().boot_script->answered, run.now);
  EXPECT_EQ(run.reading().boot_script->answered_by, run.reading().transfers[0].client);
}

TEST_F(Run, FollowsDatagramsThroughTheRelay) {
  run.says(record::RunBegins{"", "", "TFTP -o 172.40.0.1"});
  run.udp(kUnit, kRelay, "line 1 is up");
  run.udp(kUnit, kRelay, "line 2 is up");
  run.udp(kPassing, kPptRelay, std::string("line 1 is up\0", 13));
  const auto& relayed = run.reading().relayed;
  ASSERT_EQ(relayed.size(), 2U);
  EXPECT_EQ(relayed[0].passed_on, 1U);
  EXPECT_EQ(relayed[0].frames.count, 2U);
  EXPECT_EQ(relayed[1].passed_on, 0U);
  EXPECT_EQ(step(3).kind, Step::Kind::kRelayed);
  EXPECT_EQ(step(3).thread, 0U);
}

TEST_F(Run, KnowsDatagramsThatWereCutAtTheRelay) {
  run.says(record::RunBegins{"", "", "TFTP -o 172.40.0.1"});
  run.udp(kUnit, kRelay, std::string("before\0after", 12));
  run.udp(kUnit, kRelay, std::string(400, 'x'));
  run.udp(kPassing, kPptRelay, std::string("before\0", 7));
  run.udp(kPassing, kPptRelay, std::string(255, 'x') + '\0');
  EXPECT_EQ(run.reading().relayed.at(0).passed_on, 1U);
  EXPECT_EQ(run.reading().relayed.at(1).passed_on, 1U);
}

TEST_F(Run, PassesNothingOnThatWasLost) {
  run.says(record::RunBegins{"", "", "TFTP -o 172.40.0.1"});
  run.next_is(record::kLostByChance);
  run.udp(kUnit, kRelay, "line 1 is up");
  run.udp(kPassing, kPptRelay, "line 1 is up");
  EXPECT_EQ(run.reading().relayed.at(0).passed_on, 0U);
  EXPECT_EQ(run.reading().relayed.at(0).received_lost, 1U);
}

TEST_F(Run, FoldsEqualDatagrams) {
  run.says(record::RunBegins{"", "", "TFTP -o 172.40.0.1"});
  for (int i = 0; i < 50; ++i) {
    run.udp(kUnit, kRelay, "up");
    run.udp(kPassing, kPptRelay, std::string("up\0", 3));
  }
  run.rests(5000).udp(kUnit, kRelay, "up");
  ASSERT_EQ(run.reading().relayed.size(), 2U);
  EXPECT_EQ(run.reading().relayed[0].received, 50U);
  EXPECT_EQ(run.reading().relayed[0].passed_on, 50U);
  EXPECT_EQ(run.reading().steps.size(), 4U);
}

TEST_F(Run, FoldsClosedPortsThatNobodyAskedFor) {
  for (int i = 0; i < 86; ++i) run.rests(5000).closed({made::kUnit, 5000}, {made::kStation, 4444});
  ASSERT_EQ(run.reading().steps.size(), 1U);
  EXPECT_EQ(step(0).kind, Step::Kind::kOtherClosedPort);
  EXPECT_EQ(step(0).count, 86U);
  EXPECT_EQ(run.reading().closed_ports.at(0).port, 4444);
  EXPECT_EQ(run.reading().closed_ports.at(0).count, 86U);
}

TEST_F(Run, FoldsEqualLinesInARow) {
  for (int i = 0; i < 11; ++i) run.rests(5000).line("Client timeout");
  run.line("RRQ boot.img");
  run.line("Client timeout");
  ASSERT_EQ(run.reading().steps.size(), 3U);
  EXPECT_EQ(step(0).count, 11U);
  EXPECT_EQ(step(0).lines.first, 1U);
  EXPECT_EQ(step(0).lines.last, 11U);
  EXPECT_EQ(step(0).frames.count, 0U);
  EXPECT_EQ(step(2).count, 1U);
}

TEST_F(Run, KeepsLinesWithoutATimeAtTheSide) {
  run.story.take(record::Line{"Starting TFTP server on 172.40.0.1:69 PPT Server: 172.30.0.254"}, 0, 1);
  EXPECT_TRUE(run.reading().steps.empty());
  ASSERT_EQ(run.reading().untimed_lines.size(), 1U);
  EXPECT_EQ(run.reading().untimed_lines[0].lines.first, 1U);
  EXPECT_EQ(run.reading().parties[story::kStation].addresses, (std::vector<std::uint32_t>{made::kStation}));
}

TEST_F(Run, TellsOfBoardCutsDropsAndEnds) {
  run.story.take(record::Interface{"lan0", "udp", record::kEthernet, 0});
  run.says(record::BoardCall{"envtool ppt_flag=failed", 3});
  run.says(record::Cut{2000000000});
  run.story.take(record::Statistics{0, run.now, 100, 0});
  run.story.take(record::Statistics{0, run.now, 200, 7});
  run.story.take(record::Statistics{5, run.now, 200, 7});
  run.says(record::StationEnds{0, 9});
  run.says(record::RunEnds{"failed", "as expected"});
  const Reading& reading = run.ends();
  ASSERT_EQ(reading.steps.size(), 5U);
  EXPECT_EQ(step(0).target, story::kBoard);
  EXPECT_EQ(step(0).status, 3);
  EXPECT_EQ(step(1).until - step(1).from, 2000000000);
  EXPECT_EQ(step(2).kind, Step::Kind::kDrops);
  EXPECT_EQ(step(2).count, 7U);
  EXPECT_EQ(reading.networks.at(0).received, 200U);
  EXPECT_EQ(reading.station_end->signal, 9);
  EXPECT_EQ(reading.run_end->ppt_flag, "failed");
  EXPECT_TRUE(reading.has_ended);
  EXPECT_FALSE(reading.is_cut_short);
  EXPECT_FALSE(reading.has_frames);
}

TEST_F(Run, TellsTheStationsEndOnceWithTheStatusThatFollows) {
  run.says(record::StationEnds{});
  run.says(record::StationEnds{2, 0});
  const Reading& reading = run.ends();
  ASSERT_EQ(reading.steps.size(), 1U);
  EXPECT_EQ(step(0).status, 2);
  EXPECT_EQ(reading.station_end->status, 2);
}

TEST_F(Run, TellsWhatTheRecorderSaysThatTheRecordLacks) {
  run.says(record::Gap{"frames are missing from here on: lan0 is gone or down"});
  ASSERT_EQ(run.reading().gaps.size(), 1U);
  EXPECT_EQ(run.reading().gaps[0].text, "frames are missing from here on: lan0 is gone or down");
  EXPECT_EQ(run.reading().gaps[0].at, run.now);
  EXPECT_TRUE(run.reading().steps.empty());
}

TEST_F(Run, TakesTheItemsOfARecord) {
  run.story.take(record::Item(record::Interface{"lan0", "", record::kEthernet, 0}));
  record::Entry entry = record::entry_of(record::Line{"RRQ boot.img"}, MadeRun::kStart);
  entry.number = 4;
  run.story.take(record::Item(entry));
  entry.fields = {{"MESSAGE", "of another program"}};
  run.story.take(record::Item(entry));
  run.story.take(record::Item(record::Statistics{0, MadeRun::kStart, 5, 2}));
  const std::string bytes = made::ethernet(
      made::ip(made::kUnit, made::kStation, 17, made::udp(kUnit, {made::kStation, 69}, rrq("a"))));
  record::Frame frame;
  frame.at = MadeRun::kStart + 1;
  frame.bytes = bytes;
  run.story.take(record::Item(frame));
  ASSERT_EQ(run.reading().steps.size(), 3U);
  EXPECT_EQ(step(0).said.text, "RRQ boot.img");
  EXPECT_EQ(step(0).lines.first, 4U);
  EXPECT_EQ(step(1).kind, Step::Kind::kDrops);
  EXPECT_EQ(step(2).kind, Step::Kind::kRequest);
}

TEST_F(Run, PutsInOrderWhatComesLate) {
  run.line("first");
  run.rests(100).line("third");
  run.story.take(record::Line{"second"}, run.now - 50 * MadeRun::kMillisecond, 9);
  EXPECT_EQ(run.reading().order, (std::vector<std::size_t>{0, 2, 1}));
}

TEST_F(Run, ReordersNoMoreThanItsWindow) {
  for (int i = 0; i < 1000; ++i) run.line(std::to_string(i));
  run.story.take(record::Line{"late"}, MadeRun::kStart - 1, 9);
  EXPECT_EQ(run.reading().order[1000 - story::Book::kOrderWindow], 1000U);
  EXPECT_EQ(run.reading().first, MadeRun::kStart - 1);
}

TEST_F(Run, SaysWhatHasChanged) {
  run.line("one");
  Exchange unit(&run, kUnit, made::kStation);
  unit.asks(rrq("boot.img"));
  const std::uint64_t seen = run.reading().revision;
  unit.blocks(1, 1, 512);
  EXPECT_GT(run.reading().revision, seen);
  EXPECT_LE(step(0).revision, seen);
  EXPECT_LE(step(1).revision, seen);
  EXPECT_GT(step(2).revision, seen);
  EXPECT_GT(run.reading().transfers[0].revision, seen);
}

TEST_F(Run, TakesAnyTimes) {
  constexpr record::Nanoseconds kLate = INT64_MAX - 10 * MadeRun::kMillisecond;
  for (const record::Nanoseconds at : {INT64_MIN, kLate, record::Nanoseconds{-1}, record::Nanoseconds{1}}) {
    run.now = at;
    run.line("x");
    run.says(record::Cut{INT64_MAX});
    Exchange unit(&run, kUnit, made::kStation);
    unit.asks(rrq("boot.img", {{"timeout", "999999999"}}));
    run.now = at;
    unit.answers(tftp::oack({{"timeout", "999999999"}}));
  }
  run.story.pass_time(INT64_MAX);
  run.ends();
  EXPECT_EQ(run.reading().first, 0);
}

TEST_F(Run, NeedsNoMoreRoomForALongTransferThanForAShortOne) {
  Exchange unit(&run, kUnit, made::kStation);
  unit.asks(rrq("boot.img"));
  unit.blocks(1, 10, 512);
  const std::size_t before = held_bytes;
  unit.blocks(11, 500000, 512);
  EXPECT_LT(held_bytes, before + 8192);
}

TEST_F(Run, IsBoundedAgainstAnything) {
  const std::size_t before = held_bytes;
  for (std::uint32_t i = 0; i < 300000; ++i) {
    const made::Endpoint from{made::kUnit + i % 1000, static_cast<std::uint16_t>(i)};
    run.udp(from, {made::kStation, 69}, rrq("F_l_m_" + std::to_string(i)));
    if (i % 3 == 0) run.line(std::to_string(i));
  }
  EXPECT_GT(run.reading().left_out, 0U);
  EXPECT_EQ(run.reading().transfers.size(), story::Book::kMaxThreads);
  EXPECT_EQ(run.reading().steps.size(), story::Book::kMaxSteps);
  EXPECT_LT(held_bytes, before + 128 * 1024 * 1024);
}

TEST_F(Run, HoldsAnHourOfProductionInLittleRoom) {
  const std::size_t before = held_bytes;
  for (int i = 0; i < 100; ++i) {
    Exchange unit(&run, {made::kUnit, static_cast<std::uint16_t>(2000 + i)}, made::kStation);
    unit.asks(rrq("kernel.img"));
    unit.blocks(1, 2000, 512);
    unit.blocks(2001, 2001, 1);
  }
  EXPECT_LT(held_bytes, before + 1024 * 1024);
  EXPECT_EQ(run.reading().transfers.size(), 100U);
}

}  // namespace
