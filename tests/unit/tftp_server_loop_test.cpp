#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "support/fault.h"
#include "support/flush_recorder.h"
#include "support/server_under_test.h"
#include "support/test_network.h"
#include "tftp_server/tftp_server.h"

using namespace tftp;

TEST_F(TftpServerLoop, SaysThatItStartedAndRunsUntilToldToEnd) {
  const std::string printed = printed_by([&] {
    starts();
    EXPECT_FALSE(started->returns(std::chrono::milliseconds(100)));
    EXPECT_TRUE(server->running);
    EXPECT_EQ(server->bind_result, 0);
    started->ends();
  });
  EXPECT_EQ(printed, kStarted);
  EXPECT_EQ(server->exit_code, 0);
  EXPECT_EQ(ServerClient::sClientID, 0);
}

TEST_F(TftpServerLoop, FlushesItsLine) {
  const FlushRecorder output;
  starts();
  started->ends();
  EXPECT_EQ(output.text(), "Server started , waiting for connections\n<flush>");
}

TEST_F(TftpServerLoop, ListensOnItsOwnAddressOnly) {
  starts();
  asks(*unit, rrq("file"), "127.0.0.2");
  unit->expects_nothing(std::chrono::milliseconds(200));
  serves_client(1);
}

TEST_F(TftpServerLoop, ListensOnEveryLocalAddressWhenItHasNone) {
  const TestNetwork network;
  starts(server_without_messages(""));
  serves_client(1);
  asks(*unit, rrq("file"), "127.0.0.2");
  EXPECT_TRUE(unit->expects(data(1, "contents")));
  std::optional<UdpPeer> distant;
  network.at_unit([&] { distant.emplace(TestNetwork::kUnit); });
  asks(*distant, rrq("file"), TestNetwork::kStation);
  EXPECT_TRUE(distant->expects(data(1, "contents")));
}

TEST_F(TftpServerLoop, HandlesTheAlarmWithAnEmptyMaskAndNoFlags) {
  struct sigaction before = {};
  before.sa_handler = SIG_IGN;
  before.sa_flags = SA_RESTART | SA_NODEFER;
  sigfillset(&before.sa_mask);
  sigaction(SIGALRM, &before, nullptr);
  starts();
  serves_client(1);
  struct sigaction installed = {};
  sigaction(SIGALRM, nullptr, &installed);
  constexpr int kRestorer = 0x04000000;  // the C library's own
  EXPECT_EQ(installed.sa_handler, &TimeoutHandler);
  EXPECT_EQ(installed.sa_flags & ~kRestorer, 0);
  for (int number = 1; number < SIGRTMIN; ++number) EXPECT_EQ(sigismember(&installed.sa_mask, number), 0);
}

TEST_F(TftpServerLoop, StartsRelayAndBroadcastAndArmsTheAlarm) {
  const TestNetwork network;
  const std::string printed = printed_by([&] {
    const Stopwatch since_start;
    starts(new_server("127.0.0.1", "172.30.0.254"));
    ASSERT_TRUE(wait_until([] { return seconds_until_alarm() > 0; }));
    const double rest = seconds_until_alarm();
    const std::chrono::duration<double> elapsed = since_start.elapsed() + std::chrono::milliseconds(1);
    EXPECT_LE(rest, 10);
    EXPECT_GE(rest + elapsed.count(), 10);
    EXPECT_TRUE(server->message_server->udp_running);
    EXPECT_EQ(server->message_server->udp_local_ip, "172.40.0.1");
    EXPECT_EQ(server->message_server->udp_remote_ip, "172.30.0.254");
    EXPECT_TRUE(server->message_server->sending);
    EXPECT_FALSE(_bTimeoutFlag);
    started->ends();
  });
  EXPECT_EQ(printed, std::string(kStarted) + kSenderInitialized);
}

TEST_F(TftpServerLoop, SetsTheTimeoutFlagTenSecondsAfterTheBroadcastStartedAndServesOn) {
  const TestNetwork network;
  const Stopwatch since_start;
  starts(new_server());
  EXPECT_TRUE(wait_until([] { return seconds_until_alarm() > 0; }));
  EXPECT_FALSE(_bTimeoutFlag);
  EXPECT_TRUE(wait_until([] { return _bTimeoutFlag; }, std::chrono::seconds(20)));
  EXPECT_GE(since_start.elapsed(), std::chrono::seconds(10));
  serves_client(1);
}

TEST_F(TftpServerLoop, StartsTheRelayBeforeTheBroadcast) {
  const TestNetwork network;
  const Fault no_relay(Call::kThread, -1, 2);  // the first thread is Start's own
  const std::string printed = printed_by([&] {
    starts(new_server());
    EXPECT_TRUE(wait_until([] { return seconds_until_alarm() > 0; }));
    started->ends();
  });
  EXPECT_EQ(printed, std::string(kStarted) + " Can't create UDP receiver thread\n" + kSenderInitialized);
}

TEST_F(TftpServerLoop, ArmsNoAlarmWhenTheBroadcastCannotBePrepared) {
  // The relay has its address, the broadcast has no interface.
  ip("address add 172.40.0.1/24 dev lo");
  const std::string printed = printed_by([&] {
    starts(new_server());
    serves_client(1);
    started->ends();
  });
  EXPECT_EQ(printed,
            "Server started , waiting for connections\n"
            "Can't get ioctl answer because of : No such device\n"
            "Error: Failed to initialize sender\n"
            "RRQ file\n");
  EXPECT_TRUE(server->message_server->udp_running);
  EXPECT_EQ(seconds_until_alarm(), 0);
  EXPECT_FALSE(_bTimeoutFlag);
}

TEST_F(TftpServerLoop, ArmsNoAlarmWhenTheSenderThreadCannotBeMade) {
  const TestNetwork network;
  const std::string printed = printed_by([&] {
    const Fault no_sender(Call::kThread, -1, 3);  // behind Start's own and the relay
    starts(new_server());
    serves_client(1);
    started->ends();
  });
  EXPECT_EQ(printed, std::string(kStarted) + kSenderInitialized + " Can't create sender thread\nRRQ file\n");
  EXPECT_EQ(seconds_until_alarm(), 0);
  EXPECT_FALSE(_bTimeoutFlag);
}

TEST_F(TftpServerLoop, HasNeitherBroadcastNorAlarmWithoutItsMessageService) {
  const TestNetwork network;
  std::optional<UdpPeer> distant;
  network.at_unit([&] { distant.emplace("172.40.0.255", kMessagePort); });
  const std::string printed = printed_by([&] {
    starts();
    serves_client(1);
    started->ends();
  });
  EXPECT_EQ(printed, std::string(kStarted) + "RRQ file\n");
  EXPECT_EQ(seconds_until_alarm(), 0);
  EXPECT_FALSE(_bTimeoutFlag);
  distant->expects_nothing(std::chrono::milliseconds(1200));
}

TEST_F(TftpServerLoop, ReturnsBeforeTheFirstReceiveWhenRunningWasCleared) {
  const TestNetwork network;
  server = new_server();
  // The boot script and its copy are blocks of this size.
  StorageWatch scripts(230);
  bool was_running = false;
  scripts.before_each = [&] {
    was_running = was_running || server->running;
    server->running = false;
  };
  started = std::make_unique<StartedServer>(*server);
  EXPECT_TRUE(started->returns());
  EXPECT_TRUE(was_running);
}

TEST_F(TftpServerLoop, IgnoresAFailedReceive) {
  const Fault no_datagrams(Call::kRecvfrom, ECONNREFUSED, 1, 3);
  const std::string printed = printed_by([&] {
    starts();
    EXPECT_TRUE(wait_until([&] { return no_datagrams.struck() == 3; }));
    EXPECT_EQ(ServerClient::sClientID, 0);
    serves_client(1);
    started->ends();
  });
  EXPECT_EQ(printed, std::string(kStarted) + "RRQ file\n");
}

TEST_F(TftpServerLoop, ReturnsAfterTheFinalVerdict) {
  const std::string printed = printed_by([&] {
    starts();
    asks(rrq("F_l_m_01PPT_PASSED"));
    unit->expects(data(1, ""));
    EXPECT_TRUE(started->returns());
  });
  EXPECT_EQ(printed, std::string(kStarted) + "Cmd received: F_l_m_01PPT_PASSED\n");
  EXPECT_FALSE(server->running);
  EXPECT_EQ(server->exit_code, 2);
  EXPECT_EQ(records.alive(), 0);
}

TEST_F(TftpServerLoop, DeletesTheMessageServiceOnceThroughVerdictStopAndDeletion) {
  ip("address add 172.40.0.1/24 dev lo");
  const std::string printed = printed_by([&] {
    starts(new_server());
    asks(rrq("F_l_m_01PPT_PASSED"));
    EXPECT_TRUE(started->returns());
    server->Stop();
    started.reset();
    server.reset();
  });
  EXPECT_EQ(printed,
            "Server started , waiting for connections\n"
            "Can't get ioctl answer because of : No such device\n"
            "Error: Failed to initialize sender\n"
            "Cmd received: F_l_m_01PPT_PASSED\n"
            "ERROR on connect() to 127.0.0.1:4000. Connection refused\n"
            "Error: Failed to initialize receiver\n"
            "Message Server was shut down\n"
            "Stopping server. Active 0 connections\n"
            "TFTP Server was shut down\n");
}

TEST_F(TftpServerLoop, ReturnsAfterTheDatagramDuringWhichRunningWasCleared) {
  UdpPeer ppt_server("127.0.0.1", 7069);
  starts();
  asks(rrq("F_l_m_01STEP"));
  unit->expects(data(1, ""));
  ppt_server.expects(rrq("F_l_m_01CPU_2_STEP"));
  server->running = false;
  EXPECT_FALSE(started->returns(std::chrono::milliseconds(100)));
  ppt_server.sends(data(1, ""));
  ppt_server.expects(ack(1));
  EXPECT_TRUE(started->returns());
}

TEST_F(TftpServerLoop, PassesTheExceptionOfATooShortVerdictNameOn) {
  starts();
  asks(rrq("F_l_m_1"));
  EXPECT_THROW(started->returns(), std::out_of_range);
}

TEST_F(TftpServerLoop, StopLeavesTheLoopTheSocketAndTheTransfersAlone) {
  starts();
  asks(rrq("three blocks"));
  unit->expects(data(1, noise(512)));
  EXPECT_TRUE(server->clients.empty());
  EXPECT_EQ(printed_by([&] { server->Stop(); }), kNoConnections);
  unit->sends(ack(1));
  reads_on(2);
  EXPECT_TRUE(server->running);
  serves_client(2);
}

TEST_F(TftpServerLoop, ATransferOutlivesTheServer) {
  starts();
  asks(rrq("three blocks"));
  unit->expects(data(1, noise(512)));
  started->ends();
  started.reset();
  server.reset();
  unit->sends(ack(1));
  reads_on(2);
  EXPECT_TRUE(thread_ends(1));
}

TEST_F(TftpServerLoop, GivesEachClientThePortOfItsNumberAlsoWhenRefused) {
  starts();
  serves_client(1);
  asks(ack(1));
  unit->expects(error(4, ""));
  EXPECT_EQ(unit->their_port(), 33233);
  asks(rrq("no such file"));
  unit->expects(error(1, ""));
  EXPECT_EQ(unit->their_port(), 33333);
  serves_client(4);
  EXPECT_EQ(ServerClient::sClientID, 4);
}

TEST_F(TftpServerLoop, CountsAnEmptyDatagramAsAClient) {
  starts();
  asks("");
  unit->expects(error(4, ""));
  EXPECT_EQ(unit->their_port(), 33133);
  serves_client(2);
}

TEST_F(TftpServerLoop, TakesTheLowSixteenBitsOfTheClientPort) {
  ServerClient::sClientID = 325;
  starts();
  asks(rrq("file"));
  unit->expects(data(1, "contents"));
  EXPECT_EQ(unit->their_port(), 97);
  EXPECT_EQ(ServerClient::sClientID, 326);
  EXPECT_EQ(record(1)->local_port, 65633);
  unit->sends(ack(1));
  EXPECT_TRUE(thread_ends(1));
}
