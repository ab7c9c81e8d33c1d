#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "story/story.h"
#include "zirn_run/made_run.h"

namespace {

using made::kAck;
using made::kFin;
using made::kRst;
using made::kSyn;
using story::Connection;
using story::Step;

constexpr made::Endpoint kUnit{made::kUnit, 3000};
constexpr made::Endpoint kCommands{made::kStation, 12345};

class Connections : public testing::Test {
 protected:
  Connections() { run.broadcasts_boot_script(); }

  void opens(std::uint16_t port = 3000) {
    const made::Endpoint from{made::kUnit, port};
    run.tcp(from, kCommands, kSyn, 100);
    run.tcp(kCommands, from, kSyn | kAck, 500);
    run.tcp(from, kCommands, kAck, 101);
  }
  const Connection& first() { return run.reading().connections.at(0); }
  std::size_t steps() { return run.reading().steps.size() - 1; }  // beside the boot script

  MadeRun run;
};

TEST_F(Connections, AreOpenedUsedAndClosed) {
  opens();
  run.tcp(kUnit, kCommands, kAck, 101, "DO_PMC_INIT:7");
  run.tcp(kCommands, kUnit, kAck, 501, "READY");
  run.tcp(kUnit, kCommands, kFin | kAck, 114);
  run.tcp(kCommands, kUnit, kFin | kAck, 506);
  run.tcp(kUnit, kCommands, kAck, 115);
  ASSERT_EQ(run.reading().connections.size(), 1U);
  EXPECT_EQ(first().state, Connection::State::kClosed);
  EXPECT_EQ(first().ended_by, first().client);
  EXPECT_EQ(first().server, story::kStation);
  EXPECT_EQ(first().attempts, 1U);
  ASSERT_EQ(first().texts.size(), 2U);
  EXPECT_EQ(first().texts[0].said.text, "DO_PMC_INIT:7");
  EXPECT_TRUE(first().texts[0].is_from_client);
  EXPECT_EQ(first().texts[1].said.text, "READY");
  EXPECT_EQ(first().bytes_from_client, 13U);
  EXPECT_EQ(first().frames.count, 8U);
  EXPECT_EQ(steps(), 5U);  // connects, says, says, closes, closes
}

TEST_F(Connections, ThatAreRefusedAreOne) {
  for (std::uint16_t i = 0; i < 100; ++i) {
    const made::Endpoint from{made::kUnit, static_cast<std::uint16_t>(3000 + i)};
    run.tcp(from, kCommands, kSyn, 100U * i);
    run.tcp(kCommands, from, kRst | kAck, 0);
    run.rests(100);
  }
  ASSERT_EQ(run.reading().connections.size(), 1U);
  EXPECT_EQ(first().state, Connection::State::kRefused);
  EXPECT_EQ(first().attempts, 100U);
  EXPECT_EQ(steps(), 2U);
  EXPECT_EQ(run.reading().steps[1].count, 100U);
  EXPECT_EQ(run.reading().steps[2].kind, Step::Kind::kRefused);
  EXPECT_EQ(run.reading().steps[2].count, 100U);
}

TEST_F(Connections, AreTakenAtLast) {
  run.tcp(kUnit, kCommands, kSyn, 100);
  run.tcp(kCommands, kUnit, kRst | kAck, 0);
  opens(3001);
  ASSERT_EQ(run.reading().connections.size(), 1U);
  EXPECT_EQ(first().state, Connection::State::kOpen);
  EXPECT_EQ(first().attempts, 2U);
  opens(3002);
  EXPECT_EQ(run.reading().connections.size(), 2U);
}

TEST_F(Connections, AreNeverAnswered) {
  for (int i = 0; i < 5; ++i) {
    run.tcp(kUnit, kCommands, kSyn, 100);
    run.rests(1000);
  }
  EXPECT_EQ(run.ends().connections.at(0).state, Connection::State::kConnecting);
  EXPECT_EQ(first().attempts, 5U);
  EXPECT_EQ(steps(), 1U);
}

TEST_F(Connections, StayOpenAtTheEnd) {
  opens();
  run.tcp(kUnit, kCommands, kAck, 101, "hello");
  EXPECT_EQ(run.ends().connections.at(0).state, Connection::State::kOpen);
  EXPECT_FALSE(first().ended);
}

TEST_F(Connections, AreBrokenOff) {
  opens();
  run.tcp(kCommands, kUnit, kRst, 501);
  EXPECT_EQ(first().state, Connection::State::kBrokenOff);
  EXPECT_EQ(first().ended_by, story::kStation);
  EXPECT_EQ(run.reading().steps.back().kind, Step::Kind::kBreaksOff);
}

TEST_F(Connections, ThatAreOverKeepTheirEndWhenAnRstComes) {
  opens();
  run.tcp(kUnit, kCommands, kFin | kAck, 101);
  run.tcp(kCommands, kUnit, kFin | kAck, 501);
  run.rests(500);
  run.tcp(kUnit, kCommands, kRst, 102);
  run.tcp(kUnit, kCommands, kRst, 102);
  ASSERT_EQ(run.reading().connections.size(), 1U);
  EXPECT_EQ(first().state, Connection::State::kClosed);
  EXPECT_EQ(first().resets, 2U);
  EXPECT_EQ(first().reset_by, first().client);
  EXPECT_EQ(steps(), 4U);
  EXPECT_EQ(run.reading().steps.back().kind, Step::Kind::kResets);
  EXPECT_EQ(run.reading().steps.back().count, 2U);
}

TEST_F(Connections, TellNothingTwice) {
  opens();
  for (int i = 0; i < 3; ++i) run.tcp(kUnit, kCommands, kAck, 101, "hello");
  EXPECT_EQ(first().texts.size(), 1U);
  EXPECT_EQ(first().texts[0].count, 1U);
  EXPECT_EQ(first().again, 2U);
  EXPECT_EQ(steps(), 2U);
}

TEST_F(Connections, FoldEqualTextsInARow) {
  opens();
  for (unsigned i = 0; i < 40; ++i) run.tcp(kUnit, kCommands, kAck, 101 + 5 * i, "hello");
  ASSERT_EQ(first().texts.size(), 1U);
  EXPECT_EQ(first().texts[0].count, 40U);
  EXPECT_EQ(steps(), 2U);
  EXPECT_EQ(run.reading().steps.back().count, 40U);
}

TEST_F(Connections, KeepTheFirstOfManyTexts) {
  opens();
  for (unsigned i = 0; i < 10000; ++i) {
    run.tcp(kUnit, kCommands, kAck, 101 + 1000 * i, std::to_string(i) + std::string(995, ' ').substr(0, 999));
  }
  EXPECT_EQ(first().texts.size(), Connection::kMaxTexts);
  EXPECT_EQ(first().texts[0].said.text.size(), story::kMaxText);
  EXPECT_GT(first().texts[0].said.size, story::kMaxText);
  EXPECT_EQ(first().text_count, 10000U);
  EXPECT_LE(steps(), Connection::kMaxTexts + 2);
}

TEST_F(Connections, BeginInTheMiddle) {
  run.tcp(kUnit, kCommands, kAck, 101, "hello");
  ASSERT_EQ(run.reading().connections.size(), 1U);
  EXPECT_TRUE(first().is_midway);
  EXPECT_EQ(first().state, Connection::State::kOpen);
  EXPECT_EQ(first().server_port, 12345);
  EXPECT_EQ(first().texts.size(), 1U);
}

TEST_F(Connections, WithoutTheStationsSideAreTold) {
  run.tcp(kUnit, kCommands, kSyn, 100);
  run.tcp(kUnit, kCommands, kAck, 101);
  run.tcp(kUnit, kCommands, kAck, 101, "hello");
  run.tcp(kUnit, kCommands, kFin | kAck, 106);
  EXPECT_EQ(first().state, Connection::State::kClosed);
  EXPECT_EQ(first().texts.size(), 1U);
}

TEST_F(Connections, OnPortsThatAreUsedAgainAreNewOnes) {
  for (unsigned i = 0; i < 3; ++i) {
    run.tcp(kUnit, kCommands, kSyn, 1000 + 5000 * i);
    run.tcp(kCommands, kUnit, kSyn | kAck, 500 + 5000 * i);
    run.tcp(kUnit, kCommands, kFin | kAck, 1001 + 5000 * i);
  }
  ASSERT_EQ(run.reading().connections.size(), 3U);
  for (const Connection& one : run.reading().connections) {
    EXPECT_EQ(one.state, Connection::State::kClosed);
    EXPECT_TRUE(one.opened);
  }
}

TEST_F(Connections, AreKeptFromAllUnits) {
  for (std::uint32_t i = 0; i < 2; ++i) {
    run.tcp({made::kUnit + i, 3000}, kCommands, kSyn, 100);
    run.tcp(kCommands, {made::kUnit + i, 3000}, kRst | kAck, 0);
  }
  ASSERT_EQ(run.reading().connections.size(), 2U);
  EXPECT_NE(run.reading().connections[0].client, run.reading().connections[1].client);
}

}  // namespace
