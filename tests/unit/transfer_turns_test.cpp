#include <gtest/gtest.h>

#include <cerrno>
#include <optional>
#include <ostream>
#include <string>
#include <utility>

#include "support/fault.h"
#include "support/played_waits.h"
#include "support/transfer_record.h"

using namespace tftp;

namespace {

constexpr char kUnexpected[] = "Unexpected packet arrived, you have been disconnected";

class TransferTurn : public TransferTest {};

// ---- Receive ----

TEST_F(TransferTurn, ReceiveEndsTheThreadOfAWriteRequestWithoutWaiting) {
  record.request_type = 2;
  unit.sends(ack(0));
  is_prepared();
  EXPECT_EQ(receives(), (Outcome{0, ""}));
  EXPECT_EQ(changes(), "");
}

TEST_F(TransferTurn, ReceiveDoesNotWaitWithoutReadRequest) {
  unit.sends(ack(0));
  for (int type : {0, 3, -1}) {
    record.request_type = type;
    is_prepared();
    EXPECT_EQ(receives(), (Outcome{1, ""}));
    EXPECT_EQ(changes(), "");
  }
}

TEST_F(TransferTurn, ReceiveJudgesNothingAfterATimeout) {
  has_sent_first_block_of(noise(600));
  has_received(data(1, "x"));
  EXPECT_EQ(receives(), (Outcome{1, kTimeoutLine}));
  EXPECT_EQ(status_and_retries(), "status 0, retries 1");
  EXPECT_EQ(record.transfer_state, 2);
  unit.expects_nothing(kShortWhile);
}

TEST_F(TransferTurn, ReceiveJudgesNothingInAnyOtherState) {
  for (int state : {0, 3, -1}) {
    has_sent_first_block_of("contents");
    record.transfer_state = state;
    record.block_number = 1;
    for (const std::string& datagram : {ack(1), ack(9), data(1, "")}) {
      unit.sends(datagram);
      EXPECT_EQ(receives(), (Outcome{1, ""}));
      EXPECT_EQ(contents_of(record.received_packet), datagram);
      EXPECT_EQ(record.transfer_state, state);
    }
    delete std::exchange(record.input_file, nullptr);
  }
  unit.expects_nothing(kShortWhile);
}

TEST_F(TransferTurn, ReceiveOfTheRightAckLetsTheNextBlockGo) {
  has_sent_first_block_of(noise(600));
  unit.sends(ack(1));
  EXPECT_EQ(receives(), (Outcome{1, ""}));
  EXPECT_EQ(changes(), "block_number 1, receive_status 4, received_packet 4/516, sent_packet 516/516");
  unit.expects_nothing(kShortWhile);
}

TEST_F(TransferTurn, ReceiveOfTheLastAckEndsTheTransfer) {
  has_sent_first_block_of("contents");
  unit.sends(ack(1));
  EXPECT_EQ(receives(), (Outcome{0, ""}));
  EXPECT_EQ(changes_besides_disconnect(), "");
  unit.expects_nothing(kShortWhile);
}

TEST_F(TransferTurn, ReceiveTakesAnAckWithMoreBytesThanItNeeds) {
  has_sent_first_block_of("contents");
  unit.sends(ack(1) + "more");
  EXPECT_EQ(receives(), (Outcome{0, ""}));
}

TEST_F(TransferTurn, ReceiveOfAnotherAckSendsTheBlockAgainAtOnce) {
  const std::string contents = noise(1200);
  has_sent_first_block_of(contents);
  unit.sends(ack(1));
  turns(1, 1);
  unit.expects(data(2, contents.substr(512, 512)));
  for (int number : {1, 0, 3, 65535}) {
    unit.sends(ack(number));
    EXPECT_EQ(receives(), (Outcome{1, ""}));
    unit.expects(data(2, contents.substr(512, 512)));
    EXPECT_EQ(record.transfer_state, 2);
    EXPECT_EQ(sends(), (Outcome{1, ""}));
  }
  unit.expects_nothing(kShortWhile);
  EXPECT_EQ(record.block_number, 2);
}

TEST_F(TransferTurn, AnotherAckWhileTheOptionsAreOutBringsThemAgainAndTheFirstBlock) {
  serves("contents");
  unit.sends(ack(5));
  turns(1, 1);
  unit.expects(oack({{"blksize", "512"}}));
  unit.expects(data(1, "contents"));
  unit.expects_nothing(kShortWhile);
  EXPECT_EQ(record.transfer_state, 2);
}

TEST_F(TransferTurn, ReceiveGoesOnWhenTheBlockCannotBeSentAgain) {
  has_sent_first_block_of("contents");
  unit.sends(ack(9));
  Fault no_send(Call::kSendto, EPERM);
  EXPECT_EQ(receives(), (Outcome{1, ""}));
  EXPECT_EQ(no_send.struck(), 1);
  EXPECT_EQ(record.transfer_state, 2);
}

struct Unexpected {
  const char* kind;
  std::string datagram;
};

void PrintTo(const Unexpected& unexpected, std::ostream* stream) {
  *stream << unexpected.kind;
}

const Unexpected kUnexpectedDatagrams[] = {
    {"Data", data(1, "contents")},  {"Error", error(0, "stop")},       {"ReadRequest", rrq("boot.img")},
    {"WriteRequest", wrq("x")},     {"Oack", oack({{"a", "b"}})},      {"Opcode0", bytes("\0\0\0\1")},
    {"Opcode7", bytes("\0\7\0\1")}, {"Opcode1024", bytes("\4\0\0\1")}, {"OneByte", bytes("\1")},
};

class UnexpectedDatagram : public TransferTest, public testing::WithParamInterface<Unexpected> {};

TEST_P(UnexpectedDatagram, EndsTheTransferWhileABlockIsOut) {
  has_sent_first_block_of(noise(600));
  unit.sends(GetParam().datagram);
  EXPECT_EQ(receives(), (Outcome{0, ""}));
  unit.expects(error(4, kUnexpected));
  unit.expects_nothing(kShortWhile);
  EXPECT_EQ(changes_besides_disconnect(), "transfer_state 2");
}

TEST_P(UnexpectedDatagram, EndsTheTransferWhileTheOptionsAreOut) {
  serves(noise(600));
  unit.sends(GetParam().datagram);
  EXPECT_EQ(receives(), (Outcome{0, ""}));
  unit.expects(error(4, kUnexpected));
  unit.expects_nothing(kShortWhile);
  EXPECT_EQ(changes_besides_disconnect(), "");
}

INSTANTIATE_TEST_SUITE_P(Turn, UnexpectedDatagram, testing::ValuesIn(kUnexpectedDatagrams),
                         testing::PrintToStringParamName());

TEST_F(TransferTurn, EmptyDatagramEndsTheThreadAndItsErrorIsLost) {
  has_sent_first_block_of(noise(600));
  unit.sends("");
  EXPECT_EQ(receives(), (Outcome{0, ""}));
  EXPECT_EQ(changes_besides_disconnect(), "transfer_state 2");
  unit.expects_nothing(kShortWhile);
}

// A short datagram covers only the beginning of the one before it.
TEST_F(TransferTurn, ShortDatagramIsJudgedWithTheBytesBehindIt) {
  has_sent_first_block_of(noise(600));
  has_received(ack(1));
  unit.sends(bytes("\0"));
  EXPECT_EQ(receives(), (Outcome{1, ""}));
  EXPECT_EQ(record.transfer_state, 1);
  EXPECT_EQ(record.received_packet.size, 1);
}

enum class Failure { kWait, kReceive };

void PrintTo(Failure failure, std::ostream* stream) {
  static const char* const names[] = {"Wait", "Receive"};
  *stream << names[static_cast<int>(failure)];
}

// After a wait or receive that brought nothing, but no time-out, the datagram before is judged once more.
class FailedWait : public TransferTest, public testing::WithParamInterface<Failure> {
 protected:
  FailedWait() {
    has_sent_first_block_of(noise(1200));
    unit.sends(ack(1));
    record.timeout = 1;
    turns(1, 1);
    unit.receives();
    unit.sends(data(9, "not received"));
  }

  // Receive, with the failure, and what it returned.
  int receive() {
    const Fault failure(Call::kRecvfrom, GetParam() == Failure::kReceive ? ECONNREFUSED : EBADF);
    const Outcome outcome = receives();
    EXPECT_EQ(outcome.printed, GetParam() == Failure::kWait ? kSelectLine : "");
    EXPECT_EQ(failure.struck(), 1);
    return outcome.result;
  }
};

TEST_P(FailedWait, JudgesAnEarlierAck) {
  EXPECT_EQ(receive(), 1);
  unit.expects(data(2, noise(1200).substr(512, 512)));
  EXPECT_EQ(record.transfer_state, 2);
  EXPECT_EQ(record.retries, GetParam() == Failure::kWait ? 1 : 0);
}

TEST_P(FailedWait, TakesAnEarlierAckThatFits) {
  has_received(ack(2));
  EXPECT_EQ(receive(), 1);
  EXPECT_EQ(record.transfer_state, 1);
}

TEST_P(FailedWait, EndsTheTransferByAnEarlierAckThatFits) {
  has_received(ack(2));
  record.last_block = true;
  EXPECT_EQ(receive(), 0);
  EXPECT_EQ(record.connected, 0);
}

TEST_P(FailedWait, DisconnectsWhenThereWasNoAckBefore) {
  has_received(rrq("boot.img"));
  EXPECT_EQ(receive(), 0);
  unit.expects(error(4, kUnexpected));
  EXPECT_EQ(record.connected, 0);
}

INSTANTIATE_TEST_SUITE_P(Turn, FailedWait, testing::Values(Failure::kWait, Failure::kReceive),
                         testing::PrintToStringParamName());

// ---- Send ----

TEST_F(TransferTurn, SendDoesNothingWithoutReadRequest) {
  serves("contents");
  for (int type : {0, 2, 3}) {
    for (int retries : {0, 1, 11}) {
      record.request_type = type;
      record.retries = retries;
      EXPECT_EQ(sends(), (Outcome{1, ""}));
    }
  }
  EXPECT_EQ(record.connected, 1);
  unit.expects_nothing(kShortWhile);
}

TEST_F(TransferTurn, SendSendsTheNextBlockAndAwaitsItsAck) {
  for (int retries : {0, -1}) {
    serves("contents");
    record.retries = retries;
    record.block_number = 0;
    EXPECT_EQ(sends(), (Outcome{1, ""}));
    unit.expects(data(1, "contents"));
    EXPECT_EQ(record.transfer_state, 2);
    EXPECT_EQ(record.retries, retries);
    delete std::exchange(record.input_file, nullptr);
  }
}

TEST_F(TransferTurn, SendSendsNothingInAnyOtherState) {
  serves("contents");
  for (int state : {0, 2, 3}) {
    record.transfer_state = state;
    EXPECT_EQ(sends(), (Outcome{1, ""}));
    EXPECT_EQ(record.transfer_state, state);
  }
  unit.expects_nothing(kShortWhile);
}

TEST_F(TransferTurn, SendRepeatsTheLastPacketAfterOneToTenRetries) {
  serves("contents");
  for (int retries = 1; retries <= 10; ++retries) {
    for (int state : {0, 1, 2}) {
      record.retries = retries;
      record.transfer_state = state;
      EXPECT_EQ(sends(), (Outcome{1, ""}));
      unit.expects(oack({{"blksize", "512"}}));
      EXPECT_EQ(record.transfer_state, state);
      EXPECT_EQ(record.retries, retries);
    }
  }
  EXPECT_EQ(record.block_number, 0);
}

TEST_F(TransferTurn, SendGoesOnWhenItCannotRepeat) {
  serves("contents");
  record.retries = 1;
  Fault no_send(Call::kSendto, EPERM);
  EXPECT_EQ(sends(), (Outcome{1, ""}));
  EXPECT_EQ(no_send.struck(), 1);
}

TEST_F(TransferTurn, SendDropsTheClientAfterElevenRetries) {
  serves("contents");
  record.retries = 11;
  EXPECT_EQ(sends(), (Outcome{0, ""}));
  EXPECT_EQ(changes_besides_disconnect(), "retries 11");
  unit.expects_nothing(kShortWhile);
}

TEST_F(TransferTurn, BlockThatCouldNotBeSentGoesOutAfterTheNextTimeout) {
  serves("contents");
  {
    Fault no_send(Call::kSendto, EPERM);
    EXPECT_EQ(sends(), (Outcome{1, ""}));
  }
  EXPECT_EQ(record.transfer_state, 1);
  EXPECT_EQ(record.block_number, 1);
  turns(1, 1, kTimeoutLine);
  unit.expects(data(1, "contents"));
  unit.sends(ack(1));
  EXPECT_EQ(receives(), (Outcome{0, ""}));
}

TEST_F(TransferTurn, NegativeBlockSizeNeverGetsABlockOut) {
  serves("contents", -5);
  record.received_packet.reSize(kRequestCapacity);
  for (int block : {1, 2}) {
    unit.sends(ack(block - 1));
    turns(1, 1);
    unit.expects("");
    EXPECT_EQ(record.transfer_state, 1);
    EXPECT_EQ(record.block_number, block);
  }
}

// The acknowledgement finds the state before any block, so that it does not move the transfer on.
TEST_F(TransferTurn, ReadWhoseFirstBlockWasNeverSentOnlyRepeatsIt) {
  serves(noise(600));
  record.transfer_state = 0;
  {
    Fault no_send(Call::kSendto, EPERM);
    server->sendPacketData(&record);
  }
  turns(1, 1, kTimeoutLine);
  unit.expects(data(1, noise(600).substr(0, 512)));
  unit.sends(ack(1));
  turns(1, 1);
  unit.expects_nothing(kShortWhile);
  turns(1, 1, kTimeoutLine);
  unit.expects(data(1, noise(600).substr(0, 512)));
}

// ---- The client's thread ----

TEST_F(TransferTurn, SilentClientGetsTheBlockTenMoreTimesAndIsDropped) {
  has_sent_first_block_of("contents");
  std::string printed;
  for (int wait = 1; wait <= 11; ++wait) printed += kTimeoutLine;
  EXPECT_EQ(runs_to_its_end(), (Outcome{0, printed}));
  for (int copy = 1; copy <= 10; ++copy) unit.expects(data(1, "contents"));
  unit.expects_nothing(kShortWhile);
  EXPECT_EQ(changes_besides_disconnect(), "transfer_state 2, retries 11");
}

TEST_F(TransferTurn, SilentClientGetsTheOptionsTenMoreTimesAndIsDroppedAfterElevenWaits) {
  serves("contents");
  record.timeout = 60;
  const PlayedWaits waits;
  EXPECT_EQ(runs_to_its_end().result, 0);
  EXPECT_EQ(waits.seconds(), std::vector<long>(11, 60));
  for (int copy = 1; copy <= 10; ++copy) unit.expects(oack({{"blksize", "512"}}));
  unit.expects_nothing(kShortWhile);
  EXPECT_EQ(changes_besides_disconnect(), "retries 11");
}

TEST_F(TransferTurn, AnyDatagramStartsTheCountOfRetriesAgain) {
  has_sent_first_block_of(noise(600));
  for (int round = 0; round < 2; ++round) {
    for (int wait = 1; wait <= 10; ++wait) {
      turns(1, 1, kTimeoutLine);
      unit.expects(data(1, noise(600).substr(0, 512)));
    }
    UdpPeer stranger;
    stranger.aims_at(kLoopback, unit.their_port());
    stranger.sends(ack(9));
    turns(1, 1);
    unit.expects(data(1, noise(600).substr(0, 512)));
  }
  unit.sends(ack(1));
  turns(1, 1);
  unit.expects(data(2, noise(600).substr(512)));
}

TEST_F(TransferTurn, NextBlockGoesToTheRequesterWhoeverAcknowledged) {
  has_sent_first_block_of(noise(600));
  UdpPeer stranger("127.0.0.2");
  stranger.aims_at(kLoopback, unit.their_port());
  stranger.sends(ack(1));
  turns(1, 1);
  unit.expects(data(2, noise(600).substr(512)));
  stranger.expects_nothing(kShortWhile);
}

TEST_F(TransferTurn, ThreadEndsAfterADisconnectThoughReceiveAndSendGoOn) {
  serves("contents");
  record.transfer_state = 0;
  unit.sends("");
  EXPECT_EQ(runs_to_its_end(), (Outcome{0, ""}));
  EXPECT_EQ(changes_besides_disconnect(), "transfer_state 0");
}

TEST_F(TransferTurn, ThreadOfADisconnectedClientEndsAtOnce) {
  serves("contents");
  record.connected = 0;
  unit.sends(ack(0));
  EXPECT_EQ(runs_to_its_end(), (Outcome{0, ""}));
  EXPECT_EQ(record.block_number, 0);
}

TEST_F(TransferTurn, ErrorOfTheUnitEndsTheThread) {
  has_sent_first_block_of(noise(1200));
  unit.sends(ack(1));
  unit.sends(error(3, "Disk full"));
  record.timeout = 5;
  EXPECT_EQ(runs_to_its_end(), (Outcome{0, ""}));
  unit.expects(data(2, noise(1200).substr(512, 512)));
  unit.expects(error(4, kUnexpected));
  unit.expects_nothing(kShortWhile);
}

class WholeFile : public TransferTest, public testing::WithParamInterface<int> {};

TEST_P(WholeFile, IsReadWithoutOptions) {
  const std::string contents = noise(static_cast<std::size_t>(GetParam()));
  write_whole_file("boot.img", contents);
  const std::optional<std::string> received = reads(rrq("boot.img"));
  ASSERT_TRUE(received.has_value()) << unit.log();
  EXPECT_TRUE(*received == contents) << unit.log();
  EXPECT_EQ(printed_in_reading, "RRQ boot.img\n");
  EXPECT_EQ(changes_besides_disconnect(), "transfer_state 1, received_packet 0/516, sent_packet 0/516");
}

INSTANTIATE_TEST_SUITE_P(Length, WholeFile, testing::Values(0, 1, 511, 512, 513, 1000, 1024, 3 << 20),
                         testing::PrintToStringParamName());

TEST_F(TransferTurn, FileOfMoreThan65536BlocksIsReadWhole) {
  const std::string contents = noise(8 * 65540 + 5);
  write_whole_file("boot.img", contents);
  const std::optional<std::string> received = reads(rrq("boot.img", {{"blksize", "8"}}));
  ASSERT_TRUE(received.has_value());
  EXPECT_TRUE(*received == contents);
}

TEST_F(TransferTurn, LargeFileIsReadWholeInLargeBlocks) {
  const std::string contents = noise(24 << 20);
  write_whole_file("boot.img", contents);
  const std::optional<std::string> received =
      reads(rrq("boot.img", {{"blksize", "65464"}, {"timeout", "9"}, {"tsize", "0"}}));
  ASSERT_TRUE(received.has_value());
  EXPECT_TRUE(*received == contents);
  EXPECT_EQ(printed_in_reading, "RRQ boot.img\nRequested blksize=65464 we support 32768\n");
}

}  // namespace
