#include <gtest/gtest.h>
#include <signal.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "faults/faulty_station.h"

// Each test makes one call of the program fail, and sees from outside what becomes of it.

namespace {

using namespace station;

constexpr char kRequested[] = "RRQ file\n";
constexpr milliseconds kBeyondOneWait(7500);

std::string fault(const std::string& call, int number, int error_number) {
  return call + " " + std::to_string(number) + " " + std::to_string(error_number);
}

class FailingCall : public testing::Test {
 protected:
  void SetUp() override { NEEDS_PRELOADING(); }
  // What struck clients are told: their request, which was the last datagram, is judged once more.
  static constexpr char kDisconnected[] = "Unexpected packet arrived, you have been disconnected";
};

// The program's start, up to the moment when it serves or ends.
class FailingStart : public FailingCall {
 protected:
  void starts(const std::string& planned) {
    const Preloaded library("FAIL", planned);
    daemon.emplace();
  }
  void serves_and_printed(const std::string& main_thread, const std::vector<std::string>& relay) {
    ASSERT_TRUE(daemon->serves());
    write_whole_file("file", "contents");
    UdpPeer client("127.0.0.1", 2001);
    client.aims_at("127.0.0.1", station::kTftpPort);
    EXPECT_EQ(read_by_tftp(client, rrq("file")), "contents");
    daemon->gets_signal(SIGTERM);
    EXPECT_EQ(daemon->exit_status(), SIGTERM);
    station::expect_output(*daemon, station::starting("127.0.0.1") + station::kServing,
                           main_thread + kRequested + station::kMessageServerGone + station::kServerGone,
                           relay);
  }

  ScratchDirectory files;
  std::optional<Daemon> daemon;
};

TEST_F(FailingStart, WithoutTheServersSocketTheProgramIsAborted) {
  starts(fault("socket.dgram", 1, EMFILE));
  EXPECT_EQ(daemon->exit_status(), -SIGABRT);
  EXPECT_EQ(daemon->output(), station::starting("127.0.0.1"));
}

TEST_F(FailingStart, BindThatFailsEndsTheProgramWithStatus1) {
  starts(fault("bind", 1, EACCES));
  EXPECT_EQ(daemon->exit_status(), 1);
  EXPECT_EQ(daemon->output(), station::starting("127.0.0.1") + "Socket Bind exception: Permission denied\n" +
                                  station::kMessageServerGone + "TFTP Server was shut down\n");
}

TEST_F(FailingStart, WithoutTheRelaysSocketFilesAreServed) {
  starts(fault("socket.dgram", 2, ENFILE));
  serves_and_printed(station::kNoSender, {"ERROR opening socket\n"});
}

TEST_F(FailingStart, WithoutTheRelaysThreadFilesAreServedAndNothingIsSaid) {
  starts(fault("pthread_create", 1, EAGAIN));
  serves_and_printed(station::kNoSender, {});
}

TEST_F(FailingStart, WithoutTheRightToARawSocketTheBootScriptIsNotSentAndFilesAreServed) {
  starts(fault("socket.raw", 1, EPERM));
  serves_and_printed(
      "Can't create socket for ioctl calls  because of : Operation not permitted\n"
      "Error: Failed to initialize sender\n",
      {station::kRelayHasNoAddress});
}

TEST_F(FailingCall, FirstReceiveIsOnlyRepeated) {
  for (const int error_number : {EINTR, ECONNREFUSED, ENOMEM}) {
    FaultyStation(fault("recvfrom", 1, error_number)).survives("");
  }
}

TEST_F(FailingCall, WithoutASocketARequestHasNoAnswer) {
  FaultyStation station(fault("socket.dgram", 4, EMFILE));
  UdpPeer client = station.asks(rrq("file"));
  FaultyStation::is_left_alone(client);
  station.survives("");
}

TEST_F(FailingCall, SocketThatIsNotBoundServesFromAnotherPort) {
  FaultyStation station(fault("bind", 4, EADDRINUSE));
  UdpPeer client = station.asks(rrq("file"));
  client.expects(data(1, FaultyStation::block(1)));
  EXPECT_NE(client.their_port(), 33033 + 100 * 2);
  FaultyStation::goes_on(client);
  station.survives(kRequested);
}

TEST_F(FailingCall, FirstBlockThatIsNotSentComesAfterTheWaitAndIsTheLast) {
  FaultyStation station(fault("sendto", 2, ENETUNREACH));
  UdpPeer client = station.asks(rrq("file"));
  FaultyStation::is_left_alone(client);
  station.first_client_goes_on();
  client.expects(data(1, FaultyStation::block(1)), kBeyondOneWait);
  client.sends(ack(1));
  FaultyStation::is_left_alone(client);
  station.survives(std::string(kRequested) + "Client timeout\n");
}

TEST_F(FailingCall, OptionsThatAreNotSentComeAfterTheWaitAndTheTransferGoesOn) {
  FaultyStation station(fault("sendto", 2, ENOBUFS));
  UdpPeer client = station.asks(rrq("file", {{"blksize", "512"}}));
  FaultyStation::is_left_alone(client);
  station.first_client_goes_on();
  client.expects(tftp::oack({{"blksize", "512"}}), kBeyondOneWait);
  client.sends(ack(0));
  client.expects(data(1, FaultyStation::block(1)));
  FaultyStation::goes_on(client);
  station.survives(std::string(kRequested) + "Client timeout\n");
}

TEST_F(FailingCall, RefusalThatIsNotSentIsNotRepeated) {
  FaultyStation station(fault("sendto", 2, EPERM));
  UdpPeer client = station.asks(rrq("missing"));
  FaultyStation::is_left_alone(client);
  station.first_client_goes_on();
  client.expects_nothing(kBeyondOneWait);
  station.survives("RRQ missing\n");
}

TEST_F(FailingCall, VerdictWhoseFileIsNotSentCountsAllTheSame) {
  FaultyStation station(fault("sendto", 2, EPERM));
  UdpPeer client = station.asks(rrq("F_l_m_01PPT_PASSED"));
  EXPECT_EQ(station.daemon().exit_status(), 2);
  FaultyStation::is_left_alone(client);
}

TEST_F(FailingCall, ReceiveOfAnAcknowledgementDisconnectsTheClient) {
  FaultyStation station(fault("recvfrom.limited", 2, ECONNREFUSED));
  UdpPeer client = station.asks(rrq("file"));
  client.expects(data(1, FaultyStation::block(1)));
  client.expects(error(4, kDisconnected));
  station.survives(kRequested);
}

TEST_F(FailingCall, WaitForAnAcknowledgementDisconnectsTheClient) {
  FaultyStation station(fault("recvfrom.limited", 2, EINTR));
  UdpPeer client = station.asks(rrq("file"));
  client.expects(data(1, FaultyStation::block(1)));
  client.expects(error(4, kDisconnected));
  station.survives(std::string(kRequested) + "Error in select(): \n");
}

TEST_F(FailingCall, FileThatCannotBeOpenedIsRefusedLikeAMissingOne) {
  for (const int error_number : {EMFILE, EACCES, EIO}) {
    FaultyStation station(fault("open", 2, error_number));
    UdpPeer client = station.asks(rrq("file"));
    client.expects(error(1, ""));
    station.survives(kRequested);
  }
}

TEST_F(FailingCall, FileThatCannotBeCreatedIsAcknowledgedLikeOneThatCan) {
  // The look for the file is the call before.
  FaultyStation station(fault("open", 3, ENOSPC));
  UdpPeer client = station.asks(wrq("new"));
  client.expects(ack(0));
  EXPECT_FALSE(std::filesystem::exists("new"));
  station.survives("WRQ \n");
}

TEST_F(FailingCall, LookForAWrittenFileLeavesTheOneThatIsThereAsItIs) {
  for (const int error_number : {EMFILE, EACCES}) {
    FaultyStation station(fault("open", 2, error_number));
    UdpPeer client = station.asks(wrq("file"));
    client.expects(ack(0));
    station.survives("WRQ \n");
    EXPECT_EQ(whole_file("file"), FaultyStation::contents());
  }
}

TEST_F(FailingCall, WithoutAThreadAReadStopsBehindItsFirstBlock) {
  FaultyStation station(fault("pthread_create", 3, EAGAIN));
  UdpPeer client = station.asks(rrq("file"));
  client.expects(data(1, FaultyStation::block(1)));
  client.sends(ack(1));
  FaultyStation::is_left_alone(client);
  station.survives(kRequested);
}

}  // namespace
