#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/select.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <fstream>
#include <string>
#include <utility>

#include "support/fault.h"
#include "support/flush_recorder.h"
#include "support/occupied_descriptors.h"
#include "support/played_waits.h"
#include "support/transfer_record.h"

using namespace tftp;

namespace {

class Transfer : public TransferTest {};

// ---- Sending ----

TEST_F(Transfer, SendPacketSendsTheBytesThatCount) {
  record.sent_packet.createData(7, "contents", 8);
  EXPECT_EQ(server->sendPacket(&record.sent_packet, &record), 1);
  unit.expects(data(7, "contents"));
  record.sent_packet.setSize(5);
  EXPECT_EQ(server->sendPacket(&record.sent_packet, &record), 1);
  unit.expects(data(7, "c"));
}

TEST_F(Transfer, SendPacketComesFromTheClientsOwnSocket) {
  const int own_port = unit.their_port();
  record.sent_packet.createData(1, "", 0);
  EXPECT_EQ(server->sendPacket(&record.sent_packet, &record), 1);
  unit.expects(data(1, ""));
  EXPECT_EQ(unit.their_port(), own_port);
}

TEST_F(Transfer, SendPacketReportsADatagramWithoutBytesAsNotSent) {
  EXPECT_EQ(server->sendPacket(&record.sent_packet, &record), 0);
  unit.expects("");
}

TEST_F(Transfer, SendPacketReportsFailureWithoutPrinting) {
  record.sent_packet.createData(1, "", 0);
  Fault no_send(Call::kSendto, EPERM);
  EXPECT_EQ(outcome_of([this] { return server->sendPacket(&record.sent_packet, &record); }),
            (Outcome{0, ""}));
}

TEST_F(Transfer, SendPacketWithoutSocketReportsFailure) {
  record.sent_packet.createData(1, "", 0);
  close(record.socket_fd);
  record.socket_fd = -1;
  EXPECT_EQ(server->sendPacket(&record.sent_packet, &record), 0);
}

TEST_F(Transfer, SendErrorLeavesTheSentPacket) {
  record.sent_packet.createData(7, "contents", 8);
  EXPECT_EQ(server->sendError(&record, 3, "Disk full"), 1);
  unit.expects(error(3, "Disk full"));
  EXPECT_EQ(server->sendError(&record, 65536 + 258, ""), 1);
  unit.expects(bytes("\0\5\1\2\0\0"));
  EXPECT_EQ(contents_of(record.sent_packet), data(7, "contents"));
}

TEST_F(Transfer, SendErrorReportsFailure) {
  Fault no_send(Call::kSendto, EPERM);
  EXPECT_EQ(server->sendError(&record, 1, ""), 0);
}

TEST_F(Transfer, StatusTextsAreNotPrinted) {
  EXPECT_EQ(outcome_of([this] {
              server->clientStatus(&record, "Connected");
              server->clientStatus(nullptr, "Disconnected");
              return 0;
            }),
            (Outcome{0, ""}));
  EXPECT_EQ(changes(), "");
}

TEST_F(Transfer, DisconnectOfNoClientIsReported) {
  EXPECT_EQ(outcome_of([this] { return server->disconnectClient(nullptr); }), (Outcome{0, ""}));
}

TEST_F(Transfer, DisconnectResetsTheRecordButStateAndRetries) {
  has_sent_first_block_of("contents");
  const int descriptor = record.socket_fd;
  has_been_used();
  has_received(ack(1));
  record.output_file = new std::ofstream("new.log");
  EXPECT_EQ(outcome_of([this] { return server->disconnectClient(&record); }), (Outcome{1, ""}));
  EXPECT_EQ(changes_besides_disconnect(), "");
  EXPECT_EQ(record.received_packet.getWord(0), 0);
  EXPECT_EQ(record.sent_packet.getWord(0), 0);
  EXPECT_EQ(fcntl(descriptor, F_GETFD), -1);
  EXPECT_EQ(server->disconnectClient(&record), 1);
  EXPECT_EQ(changes_besides_disconnect(), "");
}

// ---- Blocks ----

TEST_F(Transfer, LastBlockIsTheOneThatReachesTheEndOfTheFile) {
  const std::string contents = noise(1000);
  serves(contents);
  EXPECT_EQ(server->sendPacketData(&record), 1);
  unit.expects(data(1, contents.substr(0, 512)));
  EXPECT_EQ(changes(), "block_number 1, sent_packet 516/516");
  EXPECT_EQ(server->sendPacketData(&record), 1);
  unit.expects(data(2, contents.substr(512)));
  EXPECT_EQ(changes(), "block_number 2, last_block 1, sent_packet 492/516");
}

TEST_F(Transfer, FileOfWholeBlocksEndsWithAnEmptyBlock) {
  const std::string contents = noise(1024);
  serves(contents);
  for (int block : {1, 2}) {
    EXPECT_EQ(server->sendPacketData(&record), 1);
    unit.expects(data(block, contents.substr(512 * static_cast<std::size_t>(block - 1), 512)));
    EXPECT_FALSE(record.last_block);
  }
  EXPECT_EQ(server->sendPacketData(&record), 1);
  unit.expects(data(3, ""));
  EXPECT_TRUE(record.last_block);
}

TEST_F(Transfer, EmptyFileIsOneEmptyBlock) {
  serves("");
  EXPECT_EQ(server->sendPacketData(&record), 1);
  unit.expects(data(1, ""));
  EXPECT_TRUE(record.last_block);
}

TEST_F(Transfer, BlocksMayHave32768Bytes) {
  const std::string contents = noise(32769);
  serves(contents, 32768);
  EXPECT_EQ(outcome_of([this] { return server->sendPacketData(&record); }), (Outcome{1, ""}));
  unit.expects(data(1, contents.substr(0, 32768)));
  EXPECT_EQ(server->sendPacketData(&record), 1);
  unit.expects(data(2, contents.substr(32768)));
}

TEST_F(Transfer, BlockNumberWrapsFrom65535To0) {
  serves("abcd", 1);
  record.block_number = 65533;
  const std::pair<int, const char*> blocks[] = {{65534, "a"}, {65535, "b"}, {0, "c"}, {1, "d"}, {2, ""}};
  for (const auto& [number, contents] : blocks) {
    EXPECT_EQ(server->sendPacketData(&record), 1);
    unit.expects(data(number, contents));
    EXPECT_EQ(record.block_number, number);
  }
}

TEST_F(Transfer, BlockThatCannotBeSentCountsAndIsReported) {
  serves("contents");
  Fault no_send(Call::kSendto, EPERM);
  EXPECT_EQ(outcome_of([this] { return server->sendPacketData(&record); }), (Outcome{0, ""}));
  EXPECT_EQ(record.block_number, 1);
  EXPECT_EQ(contents_of(record.sent_packet), data(1, "contents"));
}

TEST_F(Transfer, BlockThatDoesNotFitIsSentWithoutItsData) {
  serves(noise(600));
  record.sent_packet.reSize(515);
  EXPECT_EQ(outcome_of([this] { return server->sendPacketData(&record); }),
            (Outcome{1, "Packet max size exceeded\n"}));
  unit.expects(data(1, ""));
}

TEST_F(Transfer, BlockSize0SendsEmptyBlocksWithoutEnd) {
  serves("contents", 0);
  for (int block : {1, 2, 3}) {
    EXPECT_EQ(outcome_of([this] { return server->sendPacketData(&record); }), (Outcome{1, ""}));
    unit.expects(data(block, ""));
  }
  EXPECT_FALSE(record.last_block);
}

// What is left of the 4-byte header; a datagram without bytes counts as not sent.
TEST_F(Transfer, NegativeBlockSizesSendWhatFitsTheCapacity) {
  const std::pair<int, std::string> cases[] = {
      {-1, bytes("\0\3\0")}, {-3, bytes("\0")}, {-4, ""}, {-5, ""}, {INT_MIN, ""}};
  for (const auto& [block_size, datagram] : cases) {
    delete std::exchange(record.input_file, nullptr);
    serves("contents", block_size);
    record.block_number = 0;
    EXPECT_EQ(outcome_of([this] { return server->sendPacketData(&record); }),
              (Outcome{datagram.empty() ? 0 : 1, ""}));
    unit.expects(datagram);
    EXPECT_EQ(record.block_number, 1);
    EXPECT_FALSE(record.last_block);
  }
}

// ---- Waiting ----

TEST_F(Transfer, WaitEndsAfterTheTimeoutOfTheRecord) {
  record.timeout = 1;
  record.retries = 6;
  record.receive_status = 4;
  has_received(ack(7));
  const double seconds = seconds_of([this] { EXPECT_EQ(receives_packet(), (Outcome{0, kTimeoutLine})); });
  EXPECT_GE(seconds, 1.0);
  EXPECT_LT(seconds, 1.9);
  EXPECT_EQ(status_and_retries(), "status 0, retries 7");
  EXPECT_EQ(contents_of(record.received_packet), ack(7));
}

TEST_F(Transfer, WaitIs5SecondsUnlessNegotiated) {
  const double seconds = seconds_of([this] { EXPECT_EQ(receives_packet(), (Outcome{0, kTimeoutLine})); });
  EXPECT_GE(seconds, 5.0);
  EXPECT_LT(seconds, 5.9);
}

TEST_F(Transfer, WaitThatFailsCountsAsRetry) {
  unit.sends(ack(1));
  record.retries = 6;
  Fault interrupted(Call::kRecvfrom, EINTR);
  EXPECT_EQ(receives_packet(), (Outcome{1, kSelectLine}));
  EXPECT_EQ(status_and_retries(), "status 1, retries 7");
}

TEST_F(Transfer, WaitWithNegativeTimeoutFails) {
  unit.sends(ack(1));
  record.timeout = -1;
  EXPECT_EQ(receives_packet(), (Outcome{1, kSelectLine}));
  EXPECT_EQ(status_and_retries(), "status 1, retries 1");
}

TEST_F(Transfer, WaitWithoutSocketFails) {
  close(record.socket_fd);
  record.socket_fd = -1;
  EXPECT_EQ(receives_packet(), (Outcome{1, kSelectLine}));
  EXPECT_EQ(status_and_retries(), "status 1, retries 1");
}

TEST_F(Transfer, WaitWithDescriptorBeyondADescriptorSetFails) {
  const OccupiedDescriptors occupied(FD_SETSIZE);
  if (!occupied.possible()) GTEST_SKIP() << "needs more than 1024 descriptors";
  const int low = record.socket_fd;
  record.socket_fd = fcntl(low, F_DUPFD, FD_SETSIZE);
  ASSERT_GE(record.socket_fd, FD_SETSIZE);
  close(low);
  unit.sends(ack(1));
  EXPECT_EQ(receives_packet(), (Outcome{1, kSelectLine}));
  EXPECT_EQ(status_and_retries(), "status 1, retries 1");
}

// What a caller finds in the set is what select would have left there.
TEST_F(Transfer, WaitLeavesTheDescriptorInItsSetUnlessItTimedOut) {
  FD_ZERO(&record.read_set);
  FD_SET(0, &record.read_set);
  unit.sends(ack(1));
  EXPECT_EQ(receives_packet(), (Outcome{4, ""}));
  EXPECT_TRUE(FD_ISSET(record.socket_fd, &record.read_set));
  EXPECT_FALSE(FD_ISSET(0, &record.read_set));
  {
    const Fault interrupted(Call::kRecvfrom, EINTR);
    EXPECT_EQ(receives_packet(), (Outcome{1, kSelectLine}));
    EXPECT_TRUE(FD_ISSET(record.socket_fd, &record.read_set));
  }
  record.timeout = 0;
  EXPECT_EQ(receives_packet(), (Outcome{0, kTimeoutLine}));
  EXPECT_FALSE(FD_ISSET(record.socket_fd, &record.read_set));
}

TEST_F(Transfer, WaitLastsAsLongAsTheRecordSaysEachTime) {
  const PlayedWaits waits;
  for (const int seconds : {5, 7, 7, 3}) {
    record.timeout = seconds;
    EXPECT_EQ(receives_packet(), (Outcome{0, kTimeoutLine}));
  }
  EXPECT_EQ(waits.seconds(), (std::vector<long>{5, 7, 7, 3}));
}

TEST_F(Transfer, WaitSetsItsLimitOnceForASocket) {
  const Fault counted(Call::kSetsockopt, ENOPROTOOPT, 2);
  record.timeout = 60;
  for (int block = 1; block <= 3; ++block) {
    unit.sends(ack(block));
    EXPECT_EQ(receives_packet(), (Outcome{4, ""}));
  }
  EXPECT_EQ(counted.struck(), 0);
  record.timeout = 61;
  EXPECT_EQ(receives_packet(), (Outcome{1, kSelectLine}));
}

TEST_F(Transfer, WaitOnAnotherSocketHasItsLimitToo) {
  const PlayedWaits waits;
  EXPECT_EQ(receives_packet(), (Outcome{0, kTimeoutLine}));
  const int first = record.socket_fd;
  record.socket_fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  EXPECT_EQ(receives_packet(), (Outcome{0, kTimeoutLine}));
  close(first);
  EXPECT_EQ(waits.seconds(), (std::vector<long>{5, 5}));
}

TEST_F(Transfer, ReceiveThatFailsIsATimeoutAFailedWaitOrAFailedReceive) {
  const struct {
    int error;
    Outcome outcome;
  } cases[] = {{EAGAIN, {0, kTimeoutLine}},  {EINTR, {1, kSelectLine}}, {EBADF, {1, kSelectLine}},
               {ENOTSOCK, {1, kSelectLine}}, {ECONNREFUSED, {3, ""}},   {ENOMEM, {3, ""}},
               {EHOSTUNREACH, {3, ""}}};
  for (const auto& failing : cases) {
    const Fault failure(Call::kRecvfrom, failing.error);
    EXPECT_EQ(receives_packet(), failing.outcome) << failing.error;
  }
}

TEST_F(Transfer, LinesOfTheWaitAreFlushed) {
  record.timeout = 0;
  const FlushRecorder output;
  server->receivePacket(&record);
  record.timeout = -1;
  server->receivePacket(&record);
  EXPECT_EQ(output.text(), with_flushes(std::string(kTimeoutLine) + kSelectLine));
}

TEST_F(Transfer, DatagramIsReceivedAndEndsTheRetries) {
  has_been_used();
  unit.sends(ack(1));
  EXPECT_EQ(receives_packet(), (Outcome{4, ""}));
  EXPECT_EQ(status_and_retries(), "status 4, retries 0");
  EXPECT_EQ(contents_of(record.received_packet), ack(1));
}

TEST_F(Transfer, OneDatagramIsReceivedAtATime) {
  unit.sends(ack(1));
  unit.sends(ack(2));
  EXPECT_EQ(receives_packet(), (Outcome{4, ""}));
  EXPECT_EQ(contents_of(record.received_packet), ack(1));
  EXPECT_EQ(receives_packet(), (Outcome{4, ""}));
  EXPECT_EQ(contents_of(record.received_packet), ack(2));
}

TEST_F(Transfer, DatagramIsCutToTheCapacity) {
  serves("contents");
  unit.sends(data(1, noise(600)));
  EXPECT_EQ(receives_packet(), (Outcome{4, ""}));
  EXPECT_EQ(contents_of(record.received_packet), data(1, noise(600).substr(0, 512)));
}

TEST_F(Transfer, DatagramFromAnyAddressAndPortIsTheClients) {
  for (const char* address : {"127.0.0.1", "127.0.0.2"}) {
    UdpPeer stranger(address);
    stranger.aims_at(kLoopback, unit.their_port());
    stranger.sends(ack(3));
    EXPECT_EQ(receives_packet(), (Outcome{4, ""}));
    EXPECT_EQ(contents_of(record.received_packet), ack(3));
  }
}

TEST_F(Transfer, EmptyDatagramDisconnects) {
  has_sent_first_block_of("contents");
  has_been_used();
  has_received(ack(1));
  unit.sends("");
  EXPECT_EQ(receives_packet(), (Outcome{2, ""}));
  EXPECT_EQ(changes_besides_disconnect(), "");
}

TEST_F(Transfer, ReceiveThatFailsKeepsRetriesAndPacket) {
  has_received(ack(7));
  record.retries = 6;
  unit.sends(ack(1));
  Fault no_receive(Call::kRecvfrom, ECONNREFUSED);
  EXPECT_EQ(receives_packet(), (Outcome{3, ""}));
  EXPECT_EQ(status_and_retries(), "status 3, retries 6");
  EXPECT_EQ(contents_of(record.received_packet), ack(7));
}

}  // namespace
