#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "record/run_entry.h"
#include "story/story.h"
#include "zirn_run/made_run.h"

namespace {

using story::Reading;
using story::Step;
using story::Transfer;
using tftp::ack;
using tftp::data;
using tftp::error;
using tftp::oack;
using tftp::rrq;
using tftp::wrq;

constexpr made::Endpoint kUnit{made::kUnit, 2000};
constexpr made::Endpoint kTftp{made::kStation, 69};

std::string block(std::size_t size) {
  return std::string(size, 'x');
}

std::vector<Step::Kind> kinds(const Reading& reading) {
  std::vector<Step::Kind> result;
  for (const std::size_t place : reading.order) result.push_back(reading.steps[place].kind);
  return result;
}

class Transfers : public testing::Test {
 protected:
  MadeRun run;
  Exchange unit{&run, kUnit, made::kStation};
  const Transfer& first() { return run.reading().transfers.at(0); }
  // "block 3 2 times, ACK 5 (inferred)", of the first transfer.
  std::string losses() {
    constexpr const char* kWhats[] = {"request", "answer", "block", "ACK"};
    std::string text;
    for (const story::Loss& loss : first().losses) {
      const bool has_number = loss.what == story::Loss::What::kBlock || loss.what == story::Loss::What::kAck;
      text += (text.empty() ? "" : ", ") + std::string(kWhats[static_cast<int>(loss.what)]) +
              (has_number ? " " + std::to_string(loss.number) : "") +
              (loss.times == 1 ? "" : " " + std::to_string(loss.times) + " times") +
              (loss.is_inferred ? " (inferred)" : "");
    }
    return text;
  }
};

TEST_F(Transfers, AreReadWithTheirOptions) {
  unit.asks(rrq("boot.img", {{"blksize", "1428"}, {"tsize", "0"}}));
  unit.answers(oack({{"blksize", "1428"}, {"tsize", "3000"}}));
  unit.sends(ack(0));
  unit.blocks(1, 2, 1428);
  unit.blocks(3, 3, 144);
  const Reading& reading = run.ends();
  ASSERT_EQ(reading.transfers.size(), 1U);
  const Transfer& read = first();
  EXPECT_EQ(read.kind, Transfer::Kind::kRead);
  EXPECT_EQ(read.name, "boot.img");
  EXPECT_EQ(read.mode, "octet");
  EXPECT_EQ(read.asked, (Transfer::Options{{"blksize", "1428"}, {"tsize", "0"}}));
  EXPECT_EQ(read.acknowledged, (Transfer::Options{{"blksize", "1428"}, {"tsize", "3000"}}));
  EXPECT_EQ(read.block_size, 1428U);
  EXPECT_EQ(read.blocks, 3U);
  EXPECT_EQ(read.acknowledged_blocks, 3U);
  EXPECT_EQ(read.bytes, 3000U);
  EXPECT_EQ(read.client_port, 2000);
  EXPECT_EQ(read.server_port, 33133);
  EXPECT_EQ(read.requests, 1U);
  EXPECT_EQ(read.end, Transfer::End::kFinished);
  EXPECT_FALSE(read.is_end_inferred);
  EXPECT_EQ(read.server, story::kStation);
  EXPECT_EQ(reading.parties[read.client].role, story::Role::kUnit);
  EXPECT_EQ(read.frames.first, 1U);
  EXPECT_EQ(read.frames.last, 9U);
  EXPECT_EQ(read.frames.count, 9U);
  EXPECT_EQ(read.inferred_lost, 0U);
  EXPECT_EQ(kinds(reading),
            (std::vector<Step::Kind>{Step::Kind::kRequest, Step::Kind::kOack, Step::Kind::kBlocks}));
  EXPECT_EQ(reading.steps[2].count, 7U);
}

TEST_F(Transfers, FinishOnlyWithTheAckOfTheShortBlock) {
  unit.asks(rrq("boot.img"));
  unit.blocks(1, 1, 512);
  unit.answers(data(2, "end"));
  EXPECT_EQ(first().end, Transfer::End::kOpen);
  EXPECT_TRUE(first().is_last_sent);
  run.next_is(record::kLostByChance);
  unit.sends(ack(2));
  EXPECT_EQ(first().end, Transfer::End::kOpen);
  unit.sends(ack(2));
  EXPECT_EQ(first().end, Transfer::End::kFinished);
  EXPECT_EQ(first().acks.lost, 1U);
}

TEST_F(Transfers, GoOnAfterTheirNumbersWrap) {
  unit.asks(rrq("big.img"));
  unit.blocks(1, 70000, 512);
  unit.blocks(70001, 70001, 0);
  EXPECT_EQ(first().blocks, 70001U);
  EXPECT_EQ(first().acknowledged_blocks, 70001U);
  EXPECT_EQ(first().bytes, 70000U * 512);
  EXPECT_EQ(first().data.again, 0U);
  EXPECT_EQ(first().blocks_missing, 0U);
  EXPECT_EQ(first().end, Transfer::End::kFinished);
}

TEST_F(Transfers, CountAMillionBlocksInNoMoreRoomThanTen) {
  unit.asks(rrq("big.img"));
  unit.blocks(1, 1000000, 512);
  const Transfer& read = first();
  EXPECT_EQ(read.blocks, 1000000U);
  EXPECT_LE(read.marks.size(), Transfer::kMaxMarks);
  EXPECT_GE(read.marks.size(), Transfer::kMaxMarks / 2 - 1);
  EXPECT_EQ(read.marks.back().blocks, 1000000U);
  EXPECT_EQ(run.reading().steps.size(), 2U);
  for (std::size_t i = 1; i < read.marks.size(); ++i) {
    EXPECT_LT(read.marks[i - 1].at, read.marks[i].at);
    EXPECT_LE(read.marks[i - 1].blocks, read.marks[i].blocks);
  }
  EXPECT_LE(sizeof(Transfer) + read.marks.capacity() * sizeof(story::Mark) +
                read.silences.capacity() * sizeof(story::Silence),
            6144U);
}

TEST_F(Transfers, EndWithAnErrorOfEitherSide) {
  unit.asks(rrq("missing.img"));
  unit.answers(error(1, ""));
  EXPECT_EQ(first().end, Transfer::End::kError);
  EXPECT_EQ(first().ended_by, story::kStation);
  EXPECT_EQ(first().error_code, 1);
  Exchange other(&run, {made::kUnit, 2001}, made::kStation, 33233);
  other.asks(rrq("boot.img"));
  other.blocks(1, 3, 512);
  other.sends(error(3, "full"));
  const Transfer& second = run.reading().transfers.at(1);
  EXPECT_EQ(second.end, Transfer::End::kError);
  EXPECT_EQ(second.ended_by, second.client);
  EXPECT_EQ(second.error.text, "full");
}

TEST_F(Transfers, AreAbandonedByWhoWasSilentLast) {
  unit.asks(rrq("boot.img"));
  unit.blocks(1, 3, 512);
  for (int i = 0; i < 3; ++i) {
    unit.answers(data(4, block(512)));
    run.rests(5000);
  }
  EXPECT_EQ(first().end, Transfer::End::kOpen);
  for (int i = 0; i < 8; ++i) {
    unit.answers(data(4, block(512)));
    run.rests(5000);
  }
  EXPECT_EQ(first().end, Transfer::End::kAbandoned);
  EXPECT_EQ(first().ended_by, first().client);
  EXPECT_EQ(first().sent_in_vain, 11U);
  EXPECT_EQ(first().inferred_lost, 0U);  // a unit that is gone is no loss
  unit.sends(ack(4));
  EXPECT_EQ(first().end, Transfer::End::kOpen);
}

TEST_F(Transfers, AreAbandonedByWhoClosedThePort) {
  unit.asks(rrq("boot.img"));
  unit.blocks(1, 3, 512);
  unit.answers(data(4, block(512)));
  run.closed({made::kStation, 33133}, kUnit);
  EXPECT_EQ(first().end, Transfer::End::kAbandoned);
  EXPECT_EQ(first().ended_by, first().client);
}

TEST_F(Transfers, AreAbandonedByTheStation) {
  unit.asks(rrq("boot.img"));
  unit.blocks(1, 3, 512);
  run.rests(5000);
  unit.sends(ack(3));
  run.rests(20000).line("something else");
  EXPECT_EQ(first().end, Transfer::End::kAbandoned);
  EXPECT_EQ(first().ended_by, story::kStation);
}

TEST_F(Transfers, WaitForAsLongAsTheirTimeOutSays) {
  unit.asks(rrq("boot.img", {{"timeout", "60"}}));
  unit.answers(oack({{"timeout", "60"}}));
  run.rests(170000).line("still");
  EXPECT_EQ(first().end, Transfer::End::kOpen);
  run.rests(20000).line("and now");
  EXPECT_EQ(first().end, Transfer::End::kAbandoned);
}

TEST_F(Transfers, AreNotCalledUnfinishedWhereTheRecordEnds) {
  unit.asks(rrq("boot.img"));
  unit.blocks(1, 3, 512);
  run.ends(true);
  EXPECT_EQ(first().end, Transfer::End::kUnknown);
  EXPECT_TRUE(run.reading().is_cut_short);
}

TEST_F(Transfers, EndWithTheStation) {
  unit.asks(rrq("boot.img"));
  unit.blocks(1, 3, 512);
  run.says(record::StationEnds{15, 0});
  unit.sends(ack(3));
  run.ends();
  EXPECT_EQ(first().end, Transfer::End::kStationEnds);
}

TEST_F(Transfers, AreUnanswered) {
  unit.asks(rrq("boot.img"));
  run.rests(5000);
  unit.asks(rrq("boot.img"));
  run.rests(20000).line("later");
  EXPECT_EQ(run.reading().transfers.size(), 1U);
  EXPECT_EQ(first().end, Transfer::End::kUnanswered);
  EXPECT_EQ(first().requests, 2U);
  EXPECT_EQ(first().sent_in_vain, 2U);
}

TEST_F(Transfers, FoldRepeatedRequestsAndTellSecondAnswers) {
  unit.asks(rrq("boot.img"));
  run.rests(5000);
  unit.asks(rrq("boot.img"));
  Exchange second(&run, kUnit, made::kStation, 33233);
  unit.answers(data(1, "all"));
  second.answers(data(1, "all"));
  unit.sends(ack(1));
  run.rests(5000);
  second.answers(data(1, "all"));
  const Reading& reading = run.reading();
  ASSERT_EQ(reading.transfers.size(), 2U);
  EXPECT_EQ(first().requests, 2U);
  EXPECT_EQ(first().end, Transfer::End::kFinished);
  EXPECT_EQ(first().data.sent, 1U);
  EXPECT_EQ(reading.transfers[1].second_answer_of, 0U);
  EXPECT_EQ(reading.transfers[1].data.again, 1U);
  EXPECT_EQ(reading.steps[0].kind, Step::Kind::kRequest);
  EXPECT_EQ(reading.steps[0].count, 2U);
}

TEST_F(Transfers, AnswerARequestThatWasLostOnlyOnce) {
  run.next_is(record::kLostByChance);
  unit.asks(rrq("boot.img"));
  run.rests(5000);
  unit.asks(rrq("boot.img"));
  unit.blocks(1, 1, 3);
  EXPECT_EQ(run.reading().transfers.size(), 1U);
  EXPECT_EQ(run.reading().steps[0].lost, 1U);
  EXPECT_EQ(first().end, Transfer::End::kFinished);
}

TEST_F(Transfers, GiveLateAnswersToTheRequestThatWasFirst) {
  unit.asks(rrq("one.img"));
  run.rests(6000);
  unit.asks(rrq("two.img"));
  unit.answers(error(1, ""));  // the first answer is the first request's
  Exchange second(&run, kUnit, made::kStation, 33233);
  second.blocks(1, 1, 3);
  ASSERT_EQ(run.reading().transfers.size(), 2U);
  EXPECT_EQ(first().name, "one.img");
  EXPECT_EQ(first().end, Transfer::End::kError);
  EXPECT_EQ(run.reading().transfers[1].name, "two.img");
  EXPECT_EQ(run.reading().transfers[1].end, Transfer::End::kFinished);
}

TEST_F(Transfers, AreNewOnesWhereAPortIsUsedAgain) {
  for (int i = 0; i < 3; ++i) {
    unit.asks(rrq("boot.img"));
    unit.blocks(1, 2, 512);
    unit.blocks(3, 3, 0);
  }
  ASSERT_EQ(run.reading().transfers.size(), 3U);
  for (const Transfer& transfer : run.reading().transfers) {
    EXPECT_EQ(transfer.blocks, 3U);
    EXPECT_EQ(transfer.end, Transfer::End::kFinished);
    EXPECT_EQ(transfer.second_answer_of, story::kNone);
  }
}

TEST_F(Transfers, OfTwoUnitsAreToldApart) {
  Exchange other(&run, {made::kUnitB, 2000}, made::kStation, 33233);
  unit.asks(rrq("boot.img"));
  other.asks(rrq("boot.img"));
  for (int number = 1; number <= 5; ++number) {
    other.answers(data(number, block(512)));
    unit.answers(data(number, block(512)));
    unit.sends(ack(number));
    other.sends(ack(number));
  }
  unit.blocks(6, 6, 1);
  const Reading& reading = run.ends();
  ASSERT_EQ(reading.transfers.size(), 2U);
  EXPECT_NE(reading.transfers[0].client, reading.transfers[1].client);
  EXPECT_EQ(reading.transfers[0].end, Transfer::End::kFinished);
  EXPECT_EQ(reading.transfers[1].end, Transfer::End::kUnknown);
  EXPECT_EQ(reading.transfers[1].blocks, 5U);
  for (const Transfer& transfer : reading.transfers) EXPECT_EQ(transfer.data.again, 0U);
  for (std::size_t i = 1; i < reading.order.size(); ++i) {
    EXPECT_LE(reading.steps[reading.order[i - 1]].from, reading.steps[reading.order[i]].from);
  }
}

TEST_F(Transfers, TellSeenLossesFromInferredOnes) {
  unit.asks(rrq("boot.img"));
  unit.blocks(1, 1, 512);
  run.next_is(record::kLostByChance);
  unit.answers(data(2, block(512)));
  run.rests(5000);
  unit.blocks(2, 3, 512);
  EXPECT_EQ(first().data.lost, 1U);
  EXPECT_EQ(first().data.again, 1U);
  EXPECT_EQ(first().inferred_lost, 0U);
  EXPECT_EQ(run.reading().steps[1].lost, 1U);
  unit.answers(data(4, block(512)));
  run.next_is(record::kLostByChance);
  unit.sends(ack(4));
  run.rests(5000);
  unit.blocks(4, 4, 512);
  EXPECT_EQ(first().acks.lost, 1U);
  EXPECT_EQ(first().inferred_lost, 0U);
  // Without a word of the wire: block 5, or its ACK, was lost.
  unit.answers(data(5, block(512)));
  run.rests(5000);
  unit.blocks(5, 6, 512);
  EXPECT_EQ(first().data.lost, 1U);
  EXPECT_EQ(first().inferred_lost, 1U);
  EXPECT_EQ(losses(), "block 2, ACK 4, block 5 (inferred)");
}

TEST_F(Transfers, TellWhichDatagramsWereLost) {
  const auto loses = [&](int times, const auto& send) {
    for (int i = 0; i < times; ++i) {
      run.next_is(record::kLostAsOrdered);
      send();
      run.rests(1000);
    }
  };
  loses(2, [&] { unit.asks(rrq("boot.img")); });
  unit.asks(rrq("boot.img"));
  loses(1, [&] { unit.answers(oack({{"blksize", "512"}})); });
  unit.answers(oack({{"blksize", "512"}}));
  loses(1, [&] { unit.sends(ack(0)); });
  unit.sends(ack(0));
  unit.blocks(1, 65537, 512);
  loses(3, [&] { unit.answers(data(2, block(512))); });
  unit.answers(data(2, block(512)));
  loses(1, [&] { unit.sends(ack(2)); });
  unit.sends(ack(2));
  EXPECT_EQ(losses(), "request 2 times, answer, ACK 0, block 65538 3 times, ACK 65538");
  loses(25, [&] { unit.sends(ack(2)); });
  EXPECT_EQ(first().losses.size(), 5U);
}

TEST_F(Transfers, TellTheLossOfABlockThatIsTheAnswerAsThatOfTheAnswer) {
  unit.asks(rrq("boot.img"));
  run.next_is(record::kLostAsOrdered);
  unit.answers(data(1, ""));
  EXPECT_EQ(losses(), "answer");
}

TEST_F(Transfers, KeepTheFirstLossesAndCountTheOthers) {
  unit.asks(rrq("boot.img"));
  for (int number = 1; number <= 30; ++number) {
    run.next_is(record::kLostByChance);
    unit.answers(data(number, block(512)));
    unit.blocks(number, number, 512);
  }
  EXPECT_EQ(first().losses.size(), Transfer::kMaxLosses);
  EXPECT_EQ(first().losses_left_out, 10U);
}

// Both sides wait for five seconds, and the repeated ACK makes the block go out once more.
TEST_F(Transfers, InferOneLossWhereBothSidesRepeat) {
  unit.asks(rrq("boot.img"));
  unit.blocks(1, 2, 512);
  unit.answers(data(3, block(512)));
  run.rests(5000);
  unit.answers(data(3, block(512)));
  unit.sends(ack(2));
  unit.answers(data(3, block(512)));
  unit.sends(ack(3));
  unit.sends(ack(3));
  unit.blocks(4, 4, 512);
  EXPECT_EQ(first().inferred_lost, 1U);
}

// So it looks where the record was made on the unit's side of the loss.
TEST_F(Transfers, InferTheLossOfAnAckFromTheBlockThatFollowsIt) {
  unit.asks(rrq("boot.img"));
  unit.blocks(1, 3, 512);
  run.rests(5000);
  unit.blocks(3, 4, 512);
  EXPECT_EQ(first().inferred_lost, 1U);
}

TEST_F(Transfers, InferNoLossFromALateAck) {
  unit.asks(rrq("boot.img"));
  unit.blocks(1, 2, 512);
  unit.answers(data(3, block(512)));
  run.rests(5000);
  unit.answers(data(3, block(512)));
  unit.sends(ack(3));
  unit.answers(data(4, block(512)));
  EXPECT_EQ(first().inferred_lost, 1U);
  unit.sends(ack(3));
  EXPECT_EQ(first().inferred_lost, 0U);
}

// The unit's own client takes a block once and does not answer the second one.
TEST_F(Transfers, InferNoLossFromBlocksThatTheUnitPassesOver) {
  unit.asks(rrq("boot.img"));
  for (int number = 1; number <= 9; ++number) {
    unit.answers(data(number, block(512)));
    unit.answers(data(number, block(512)));
    unit.sends(ack(number));
  }
  EXPECT_EQ(first().data.again, 9U);
  EXPECT_EQ(first().inferred_lost, 0U);
}

TEST_F(Transfers, InferALossFromARepeatedAck) {
  unit.asks(rrq("boot.img"));
  unit.blocks(1, 2, 512);
  run.rests(5000);
  unit.sends(ack(2));
  EXPECT_EQ(first().inferred_lost, 0U);
  unit.blocks(3, 3, 512);
  EXPECT_EQ(first().inferred_lost, 1U);
}

TEST_F(Transfers, InferNoLossFromDoubledFrames) {
  unit.asks(rrq("boot.img"));
  unit.blocks(1, 1, 512);
  unit.sends(ack(1));  // the network doubled it; from here on all is sent twice
  for (int number = 2; number <= 9; ++number) {
    for (int i = 0; i < 2; ++i) unit.answers(data(number, block(512)));
    unit.sends(ack(number));
    if (number == 5) {
      unit.answers(data(6, block(512)));  // a late ACK: it crossed the next block
      unit.sends(ack(5));
      unit.answers(data(6, block(512)));
      unit.sends(ack(6));
      number = 6;
    }
    unit.sends(ack(number));
  }
  EXPECT_EQ(first().inferred_lost, 0U);
  EXPECT_GT(first().data.again, 5U);
}

TEST_F(Transfers, KeepTheLongestSilences) {
  unit.asks(rrq("boot.img"));
  unit.blocks(1, 1, 512);
  for (int i = 1; i <= 20; ++i) {
    run.rests(100 * i);
    unit.blocks(i + 1, i + 1, 512);
  }
  const std::vector<story::Silence>& silences = first().silences;
  ASSERT_EQ(silences.size(), Transfer::kMaxSilences);
  for (std::size_t i = 0; i < silences.size(); ++i) {
    EXPECT_GT(silences[i].until - silences[i].from, 1200 * MadeRun::kMillisecond);
    EXPECT_EQ(silences[i].ended_by, story::kStation);
    EXPECT_EQ(silences[i].frames.last - silences[i].frames.first, 1U);
  }
}

TEST_F(Transfers, ThatAreOldKeepTheirPlaceInTheMiddleOfThings) {
  unit.blocks(500, 520, 1428);
  ASSERT_EQ(run.reading().transfers.size(), 1U);
  EXPECT_EQ(first().kind, Transfer::Kind::kMidway);
  EXPECT_EQ(first().blocks, 21U);
  EXPECT_EQ(first().acknowledged_blocks, 21U);
  EXPECT_EQ(first().blocks_missing, 0U);
  EXPECT_EQ(run.reading().parties[first().server].role, story::Role::kOther);
  unit.blocks(521, 521, 7);
  EXPECT_EQ(first().end, Transfer::End::kFinished);
  // Who it was with comes out later.
  Exchange(&run, {made::kUnit, 2001}, made::kStation).asks(rrq("F_l_m_01MEMORY_PASSED"));
  EXPECT_EQ(first().server, story::kStation);
  EXPECT_EQ(run.reading().parties[first().client].role, story::Role::kUnit);
}

TEST_F(Transfers, ThatShowOnlyTheirLastBlockAreUnknown) {
  unit.blocks(521, 521, 7);
  run.rests(60000).line("later");
  EXPECT_EQ(run.ends().transfers.at(0).end, Transfer::End::kUnknown);
}

TEST_F(Transfers, WithoutTheUnitsSideAreKnownByTheirBlocks) {
  unit.asks(rrq("boot.img"));
  for (int number = 1; number <= 5; ++number) unit.answers(data(number, block(512)));
  unit.answers(data(6, "end"));
  run.ends();
  EXPECT_EQ(first().blocks, 6U);
  EXPECT_EQ(first().end, Transfer::End::kFinished);
  EXPECT_TRUE(first().is_end_inferred);
  EXPECT_EQ(first().inferred_lost, 0U);
}

TEST_F(Transfers, WithoutTheStationsSideAreKnownByTheirAcks) {
  unit.asks(rrq("boot.img"));
  for (int number = 0; number <= 5; ++number) unit.sends(ack(number));
  run.ends();
  ASSERT_EQ(run.reading().transfers.size(), 2U);  // the port that answered is not known
  const Transfer& acks = run.reading().transfers[1];
  EXPECT_EQ(acks.acknowledged_blocks, 6U);
  EXPECT_EQ(acks.end, Transfer::End::kUnknown);
  EXPECT_EQ(first().end, Transfer::End::kUnknown);
}

TEST_F(Transfers, CountBlocksThatTheRecordLacks) {
  unit.asks(rrq("boot.img"));
  unit.blocks(1, 3, 512);
  unit.blocks(7, 9, 512);
  EXPECT_EQ(first().blocks, 6U);
  EXPECT_EQ(first().blocks_missing, 3U);
  EXPECT_EQ(first().inferred_lost, 0U);
}

TEST_F(Transfers, OfLargeBlocksAreNumberedByAllTheirFragments) {
  unit.asks(rrq("big.img", {{"blksize", "32768"}}));
  unit.answers(oack({{"blksize", "32768"}}));
  unit.sends(ack(0));
  const auto send = [this](int number, int lost, const char* comment) {
    const auto packets = made::fragments({made::kStation, 33133}, kUnit, data(number, block(32768)),
                                         static_cast<unsigned>(number));
    for (int i = 0; i < static_cast<int>(packets.size()); ++i) {
      if (i == lost && comment == nullptr) continue;
      if (i == lost) run.next_is(comment);
      run.frame(made::ethernet(packets[static_cast<std::size_t>(i)]));
    }
  };
  send(1, 7, record::kLostByChance);
  EXPECT_EQ(first().data.lost, 1U);
  run.rests(5000);
  send(1, -1, nullptr);
  unit.sends(ack(1));
  EXPECT_EQ(first().blocks, 1U);
  EXPECT_EQ(first().bytes, 32768U);
  EXPECT_EQ(first().frames.count, 3U + 23 + 23 + 1);
  // Of this one a fragment is missing in the record.
  send(2, 3, nullptr);
  run.rests(5000);
  send(2, -1, nullptr);
  unit.sends(ack(2));
  EXPECT_EQ(first().blocks, 2U);
  EXPECT_EQ(first().data.again, 2U);
  EXPECT_EQ(first().bytes, 65536U);
}

TEST_F(Transfers, WritesAreAcknowledgedByTheServer) {
  unit.asks(wrq("up.bin"));
  unit.answers(ack(0));
  unit.sends(data(1, block(512)));
  unit.answers(ack(1));
  unit.sends(data(2, ""));
  unit.answers(ack(2));
  EXPECT_EQ(first().kind, Transfer::Kind::kWrite);
  EXPECT_EQ(first().blocks, 2U);
  EXPECT_EQ(first().end, Transfer::End::kFinished);
  EXPECT_EQ(run.reading().steps[1].source, first().client);
}

TEST_F(Transfers, BeginWithWhateverComesToTheTftpPort) {
  run.broadcasts_boot_script();
  run.udp(kUnit, kTftp, "hello");
  unit.answers(error(4, ""));
  EXPECT_EQ(first().kind, Transfer::Kind::kOther);
  EXPECT_EQ(first().end, Transfer::End::kError);
}

TEST_F(Transfers, KeepClosedPortsThatAnswerThem) {
  unit.asks(rrq("boot.img"));
  for (int i = 0; i < 86; ++i) {
    run.closed(kUnit, kTftp);
    run.rests(100);
    unit.asks(rrq("boot.img"));
  }
  const Reading& reading = run.reading();
  ASSERT_EQ(reading.steps.size(), 2U);
  EXPECT_EQ(reading.steps[1].kind, Step::Kind::kClosedPort);
  EXPECT_EQ(reading.steps[1].count, 86U);
  EXPECT_EQ(reading.steps[1].port, 69);
  EXPECT_EQ(first().closed_ports, 86U);
  EXPECT_EQ(first().requests, 87U);
}

TEST_F(Transfers, TellTheClosedPortsOfTheirTwoSidesApart) {
  unit.asks(rrq("F_l_m_01MEMORY_PASSED"));
  unit.blocks(1, 1, 0);
  run.closed(kUnit, {made::kStation, 33133});
  run.closed({made::kStation, 33133}, kUnit);
  const Reading& reading = run.reading();
  ASSERT_EQ(reading.steps.size(), 4U);
  EXPECT_EQ(reading.steps[2].port, 33133);
  EXPECT_EQ(reading.steps[3].port, 2000);
  EXPECT_EQ(reading.steps[3].source, first().client);
}

TEST_F(Transfers, AreFollowedUpToANumber) {
  for (std::uint16_t i = 0; i < story::Transfers::kMaxFollowed + 100; ++i) {
    Exchange(&run, {made::kUnit, static_cast<std::uint16_t>(3000 + i)}, made::kStation).asks(rrq("boot.img"));
  }
  EXPECT_EQ(first().end, Transfer::End::kUnknown);
  EXPECT_EQ(run.reading().transfers.back().end, Transfer::End::kOpen);
}

}  // namespace
