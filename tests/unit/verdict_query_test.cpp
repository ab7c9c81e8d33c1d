#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/fault.h"
#include "support/outcome.h"
#include "support/played_waits.h"
#include "support/scratch_directory.h"
#include "support/tftp_bytes.h"
#include "support/udp_peer.h"
#include "support/whole_file.h"
#include "tftp_client/tftp_client.h"

using namespace tftp;

namespace {

constexpr char kMarkedOnce[] = "1 ppt_flag=failed\n";
constexpr std::chrono::milliseconds kMoment(50);

// A client of the PPT server, and a board whose envtool writes down how it is called.
class VerdictQuery : public testing::Test {
 protected:
  VerdictQuery() {
    client_.timeout = 0;
    sockaddr_in any_port = {};
    any_port.sin_family = AF_INET;
    any_port.sin_addr.s_addr = inet_addr("127.0.0.1");
    socklen_t length = sizeof any_port;
    auto* const address = reinterpret_cast<sockaddr*>(&any_port);
    EXPECT_EQ(bind(client_.socket_fd, address, length), 0);
    EXPECT_EQ(getsockname(client_.socket_fd, address, &length), 0);
    transfer_.aims_at("127.0.0.1", ntohs(any_port.sin_port));
    setenv("PATH", (board_.path() + ":" + path_before_).c_str(), 1);
    has_envtool("exit 0");
  }
  ~VerdictQuery() override { setenv("PATH", path_before_.c_str(), 1); }

  void has_envtool(const std::string& ending, const std::string& beginning = "") {
    write_whole_file(board_.file("envtool"), "#!/bin/sh\n" + beginning + "\necho \"$# $*\" >>" +
                                                 board_.file("calls") + "\n" + ending + "\n");
    std::filesystem::permissions(board_.file("envtool"), std::filesystem::perms::owner_all);
  }
  // How many arguments each call of envtool had, and which; a line per call.
  std::string envtool_calls() const {
    const std::string file = board_.file("calls");
    return std::filesystem::exists(file) ? whole_file(file) : "";
  }

  Outcome query(const std::string& name) {
    return outcome_of([&] { return client_.sendMagic(name); });
  }
  // With a reply from the server's transfer port. It waits for the client already, and is seen only by a
  // client that has sent its request first: what is sent after it goes to the transfer port.
  Outcome query(const std::string& name, const std::string& reply) {
    transfer_.sends(reply);
    return query(name);
  }

  // The whole exchange of a name that is forwarded and not answered.
  void expects_request_and_ack_for(const std::string& forwarded) {
    ppt_server_.expects(rrq(forwarded));
    ppt_server_.expects(ack(1));
    ppt_server_.expects_nothing(kMoment);
  }
  // The whole exchange of a name that is forwarded and answered from the transfer port.
  void expects_request_for_and_ack_of_transfer(const std::string& forwarded) {
    ppt_server_.expects(rrq(forwarded));
    transfer_.expects(ack(1));
    ppt_server_.expects_nothing(kMoment);
    transfer_.expects_nothing(kMoment);
  }
  // Nothing was sent and the client was left as it was.
  void expects_no_exchange() {
    ppt_server_.expects_nothing(kMoment);
    EXPECT_EQ(client_.received_packet.max_size, 32768);
  }

  const std::string path_before_ = std::getenv("PATH");
  ScratchDirectory board_;
  UdpPeer ppt_server_;
  UdpPeer transfer_;
  TFTPClient client_{"127.0.0.1", ppt_server_.port()};
};

// Final verdicts

TEST_F(VerdictQuery, EndsWithPassedRunAndDoesNothing) {
  EXPECT_EQ(query("F_l_m_01PPT_PASSED"), (Outcome{1, "Cmd received: F_l_m_01PPT_PASSED\n"}));
  EXPECT_EQ(envtool_calls(), "");
  expects_no_exchange();
}

TEST_F(VerdictQuery, EndsWithFailedRunAndMarksTheBoardOnce) {
  EXPECT_EQ(query("F_l_m_01PPT_FAILED"), (Outcome{1, "Cmd received: F_l_m_01PPT_FAILED\n"}));
  EXPECT_EQ(envtool_calls(), kMarkedOnce);
  expects_no_exchange();
}

TEST_F(VerdictQuery, FindsFinalVerdictAnywhereInName) {
  for (const char* name :
       {"PPT_PASSED", "PPT_PASSED_and_more", "xPPT_PASSED", "F_l_m_0PPT_PASSED.txt", "F_l_m_PPT_PPT_PASSED",
        "F_l_m_ at some length PPT_PASSED", "PPT_FAILEPPT_PASSED"}) {
    EXPECT_EQ(query(name), (Outcome{1, std::string("Cmd received: ") + name + "\n"}));
  }
  EXPECT_EQ(envtool_calls(), "");
  std::string calls;
  for (const char* name : {"PPT_FAILED", "PPT_FAILED_and_more", "xPPT_FAILED", "F_l_m_0PPT_FAILED.txt"}) {
    EXPECT_EQ(query(name), (Outcome{1, std::string("Cmd received: ") + name + "\n"}));
    calls += kMarkedOnce;
    EXPECT_EQ(envtool_calls(), calls);
  }
  expects_no_exchange();
}

TEST_F(VerdictQuery, CountsPassedAndFailedTogetherAsFailed) {
  EXPECT_EQ(query("F_l_m_01PPT_PASSED_PPT_FAILED"),
            (Outcome{1, "Cmd received: F_l_m_01PPT_PASSED_PPT_FAILED\n"}));
  EXPECT_EQ(envtool_calls(), kMarkedOnce);
  EXPECT_EQ(query("F_l_m_01PPT_FAILED_PPT_PASSED"),
            (Outcome{1, "Cmd received: F_l_m_01PPT_FAILED_PPT_PASSED\n"}));
  EXPECT_EQ(envtool_calls(), std::string(kMarkedOnce) + kMarkedOnce);
  expects_no_exchange();
}

TEST_F(VerdictQuery, PutsFinalVerdictBeforeFailedStep) {
  EXPECT_EQ(query("F_l_m_01TEST_FAILED_PPT_PASSED"),
            (Outcome{1, "Cmd received: F_l_m_01TEST_FAILED_PPT_PASSED\n"}));
  EXPECT_EQ(envtool_calls(), "");
  EXPECT_EQ(query("F_l_m_01TEST_FAILED_PPT_FAILED"),
            (Outcome{1, "Cmd received: F_l_m_01TEST_FAILED_PPT_FAILED\n"}));
  EXPECT_EQ(envtool_calls(), kMarkedOnce);
  expects_no_exchange();
}

// Steps of a run

TEST_F(VerdictQuery, ForwardsFailedStepAndMarksTheBoardOnce) {
  EXPECT_EQ(query("F_l_m_01TEST_FAILED"), (Outcome{0, "Cmd received: F_l_m_01TEST_FAILED\n"}));
  EXPECT_EQ(envtool_calls(), kMarkedOnce);
  expects_request_and_ack_for("F_l_m_01CPU_2_TEST_FAILED");
}

TEST_F(VerdictQuery, ForwardsAnyOtherStepAndMarksNothing) {
  EXPECT_EQ(query("F_l_m_01STEP3"), (Outcome{0, "Cmd received: F_l_m_01STEP3\n"}));
  expects_request_and_ack_for("F_l_m_01CPU_2_STEP3");
  EXPECT_EQ(query("F_l_m_01TEST_PASSED"), (Outcome{0, "Cmd received: F_l_m_01TEST_PASSED\n"}));
  expects_request_and_ack_for("F_l_m_01CPU_2_TEST_PASSED");
  EXPECT_EQ(envtool_calls(), "");
}

TEST_F(VerdictQuery, KnowsVerdictsInCapitalsAndInFullOnly) {
  for (const std::string verdict : {"PPT_FAILED", "PPT_PASSED", "TEST_FAILED"}) {
    for (std::size_t i = 0; i < verdict.size(); ++i) {
      std::string other_case = verdict;
      other_case[i] = static_cast<char>(other_case[i] ^ 0x20);
      std::string shorter = verdict;
      shorter.erase(i, 1);
      for (const std::string& name : {other_case, shorter}) {
        EXPECT_EQ(query("F_l_m_01" + name), (Outcome{0, "Cmd received: F_l_m_01" + name + "\n"}));
        ppt_server_.expects(rrq("F_l_m_01CPU_2_" + name));
        ppt_server_.expects(ack(1));
      }
    }
  }
  EXPECT_EQ(envtool_calls(), "");
}

TEST_F(VerdictQuery, JudgesTheNameBeforeItIsTagged) {
  EXPECT_EQ(query("F_l_PPT_PASSED"), (Outcome{1, "Cmd received: F_l_PPT_PASSED\n"}));
  EXPECT_EQ(query("F_l_PPT_FAILED"), (Outcome{1, "Cmd received: F_l_PPT_FAILED\n"}));
  EXPECT_EQ(envtool_calls(), kMarkedOnce);
  EXPECT_EQ(query("TEST_FAILED"), (Outcome{0, "Cmd received: TEST_FAILED\n"}));
  expects_request_and_ack_for("TEST_FAICPU_2_LED");
  EXPECT_EQ(envtool_calls(), std::string(kMarkedOnce) + kMarkedOnce);
}

TEST_F(VerdictQuery, TagsTheNameBehindItsEighthCharacter) {
  EXPECT_EQ(query("12345678"), (Outcome{0, "Cmd received: 12345678\n"}));
  expects_request_and_ack_for("12345678CPU_2_");
  EXPECT_EQ(query("123456789"), (Outcome{0, "Cmd received: 123456789\n"}));
  expects_request_and_ack_for("12345678CPU_2_9");
  EXPECT_EQ(query("F_l_m_01CPU_2_again"), (Outcome{0, "Cmd received: F_l_m_01CPU_2_again\n"}));
  expects_request_and_ack_for("F_l_m_01CPU_2_CPU_2_again");
}

TEST_F(VerdictQuery, ThrowsForNameOfFewerThanEightCharacters) {
  for (const std::string name : {"", "F_l_m_", "1234567"}) {
    bool thrown = false;
    const Outcome outcome = outcome_of([&] {
      try {
        return client_.sendMagic(name);
      } catch (const std::out_of_range&) {
        thrown = true;
        return -1;
      }
    });
    EXPECT_TRUE(thrown) << name;
    EXPECT_EQ(outcome, (Outcome{-1, "Cmd received: " + name + "\n"}));
  }
  EXPECT_EQ(envtool_calls(), "");
  expects_no_exchange();
}

TEST_F(VerdictQuery, LeavesTheCallersNameAsItIs) {
  const std::string name = "F_l_m_01STEP3";
  query(name);
  EXPECT_EQ(name, "F_l_m_01STEP3");
}

TEST_F(VerdictQuery, CutsRequestTo1024Bytes) {
  const std::string name = "F_l_m_01" + std::string(1100, 'n');
  EXPECT_EQ(query(name), (Outcome{0, "Cmd received: " + name + "\n"}));
  ppt_server_.expects(rrq("F_l_m_01CPU_2_" + std::string(1100, 'n')).substr(0, 1024));
  ppt_server_.expects(ack(1));
  const std::string fitting = "F_l_m_01" + std::string(1024 - 2 - 14 - 1 - 6, 'n');
  EXPECT_EQ(query(fitting), (Outcome{0, "Cmd received: " + fitting + "\n"}));
  const std::string whole = rrq("F_l_m_01CPU_2_" + fitting.substr(8));
  ASSERT_EQ(whole.size(), 1024U);
  ppt_server_.expects(whole);
  ppt_server_.expects(ack(1));
}

// The board's envtool

TEST_F(VerdictQuery, SaysWhatItReceivedBeforeItMarksTheBoard) {
  has_envtool("echo board marked");
  EXPECT_EQ(query("F_l_m_01PPT_FAILED"), (Outcome{1, "Cmd received: F_l_m_01PPT_FAILED\nboard marked\n"}));
  EXPECT_EQ(query("F_l_m_01TEST_FAILED"), (Outcome{0, "Cmd received: F_l_m_01TEST_FAILED\nboard marked\n"}));
}

TEST_F(VerdictQuery, TakesNoNoticeOfHowEnvtoolEnds) {
  std::string calls;
  for (const char* ending : {"exit 1", "exit 255", "kill -9 $$"}) {
    has_envtool(ending);
    EXPECT_EQ(query("F_l_m_01PPT_FAILED"), (Outcome{1, "Cmd received: F_l_m_01PPT_FAILED\n"}));
    EXPECT_EQ(query("F_l_m_01TEST_FAILED"), (Outcome{0, "Cmd received: F_l_m_01TEST_FAILED\n"}));
    expects_request_and_ack_for("F_l_m_01CPU_2_TEST_FAILED");
    calls += std::string(kMarkedOnce) + kMarkedOnce;
    EXPECT_EQ(envtool_calls(), calls);
  }
}

TEST_F(VerdictQuery, GoesOnWithoutEnvtool) {
  std::filesystem::remove(board_.file("envtool"));
  EXPECT_EQ(query("F_l_m_01PPT_FAILED"), (Outcome{1, "Cmd received: F_l_m_01PPT_FAILED\n"}));
  EXPECT_EQ(query("F_l_m_01TEST_FAILED"), (Outcome{0, "Cmd received: F_l_m_01TEST_FAILED\n"}));
  expects_request_and_ack_for("F_l_m_01CPU_2_TEST_FAILED");
}

TEST_F(VerdictQuery, MarksTheBoardBeforeItSendsTheRequest) {
  has_envtool("exit 0", "sleep 0.5");
  auto running = std::async(std::launch::async, [&] { return query("F_l_m_01TEST_FAILED"); });
  const std::optional<std::string> request = ppt_server_.receives();
  const std::string calls = envtool_calls();
  EXPECT_EQ(running.get(), (Outcome{0, "Cmd received: F_l_m_01TEST_FAILED\n"}));
  EXPECT_EQ(calls, kMarkedOnce);
  EXPECT_EQ(request, rrq("F_l_m_01CPU_2_TEST_FAILED"));
}

TEST_F(VerdictQuery, WaitsForEnvtoolBeforeItEndsTheRun) {
  has_envtool("exit 0", "sleep 0.5");
  EXPECT_EQ(query("F_l_m_01PPT_FAILED"), (Outcome{1, "Cmd received: F_l_m_01PPT_FAILED\n"}));
  EXPECT_EQ(envtool_calls(), kMarkedOnce);
}

// The answer of the PPT server

TEST_F(VerdictQuery, AcknowledgesFirstBlockWhereItCameFrom) {
  EXPECT_EQ(query("F_l_m_01STEP3", data(1, "go on")), (Outcome{0, "Cmd received: F_l_m_01STEP3\n"}));
  expects_request_for_and_ack_of_transfer("F_l_m_01CPU_2_STEP3");
  EXPECT_EQ(client_.received_packet.size, 9);
  EXPECT_EQ(client_.received_packet.max_size, 512);
}

TEST_F(VerdictQuery, AcknowledgesBlockOneWhateverTheAnswerIs) {
  for (const std::string& reply :
       {data(7, "seventh"), ack(3), oack({{"tsize", "5"}}), bytes("\0"), rrq("f")}) {
    client_.server_address.sin_port = htons(static_cast<std::uint16_t>(ppt_server_.port()));
    EXPECT_EQ(query("F_l_m_01STEP3", reply), (Outcome{0, "Cmd received: F_l_m_01STEP3\n"}));
    expects_request_for_and_ack_of_transfer("F_l_m_01CPU_2_STEP3");
  }
}

TEST_F(VerdictQuery, PrintsErrorOfThePptServerAndAcknowledgesIt) {
  EXPECT_EQ(
      query("F_l_m_01STEP3", error(1, "nothing here")),
      (Outcome{0, "Cmd received: F_l_m_01STEP3\nError! Error code: 1\nError message: File not found\n"}));
  expects_request_for_and_ack_of_transfer("F_l_m_01CPU_2_STEP3");
}

TEST_F(VerdictQuery, AcknowledgesEmptyDatagram) {
  EXPECT_EQ(query("F_l_m_01STEP3", ""),
            (Outcome{0, "Cmd received: F_l_m_01STEP3\nConnection was closed by server\n"}));
  expects_request_for_and_ack_of_transfer("F_l_m_01CPU_2_STEP3");
}

TEST_F(VerdictQuery, AcknowledgesFailedReceiveAtTheRequestPort) {
  transfer_.sends(data(1, "go on"));
  const Fault failure(Call::kRecvfrom, ECONNREFUSED);
  EXPECT_EQ(query("F_l_m_01STEP3"),
            (Outcome{0, "Cmd received: F_l_m_01STEP3\nrecv() error in waitForPackage()\n"}));
  expects_request_and_ack_for("F_l_m_01CPU_2_STEP3");
}

TEST_F(VerdictQuery, AcknowledgesFailedWaitAtTheRequestPort) {
  const Fault failure(Call::kSelect, EINTR);
  EXPECT_EQ(query("F_l_m_01STEP3"), (Outcome{0, "Cmd received: F_l_m_01STEP3\nError in select(): \n"}));
  expects_request_and_ack_for("F_l_m_01CPU_2_STEP3");
}

TEST_F(VerdictQuery, TakesNoNoticeOfSendsThatFail) {
  const Fault unreachable(Call::kSendto, ENETUNREACH, 1, 2);
  EXPECT_EQ(query("F_l_m_01STEP3"), (Outcome{0, "Cmd received: F_l_m_01STEP3\n"}));
  EXPECT_EQ(unreachable.struck(), 2);
}

TEST_F(VerdictQuery, KeepsNoMoreThan512BytesOfTheAnswer) {
  EXPECT_EQ(query("F_l_m_01STEP3", data(1, std::string(512, 'd'))),
            (Outcome{0, "Cmd received: F_l_m_01STEP3\n"}));
  EXPECT_EQ(client_.received_packet.size, 512);
  EXPECT_EQ(client_.received_packet.max_size, 512);
  expects_request_for_and_ack_of_transfer("F_l_m_01CPU_2_STEP3");
}

TEST_F(VerdictQuery, AsksOnceAndWaitsForOneBlockOnly) {
  transfer_.sends(data(1, std::string(508, 'd')));
  transfer_.sends(data(2, "more"));
  client_.timeout = 5;
  const double seconds = seconds_of([&] {
    EXPECT_EQ(query("F_l_m_01STEP3"), (Outcome{0, "Cmd received: F_l_m_01STEP3\n"}));
  });
  EXPECT_LT(seconds, 4);
  expects_request_for_and_ack_of_transfer("F_l_m_01CPU_2_STEP3");
  EXPECT_EQ(client_.waitForPacket(&client_.received_packet, 0), 4);
  EXPECT_EQ(client_.received_packet.getNumber(), 2);
}

TEST_F(VerdictQuery, GivesUpAfterFiveSecondsOfSilenceAndAcknowledgesAtTheRequestPort) {
  client_.timeout = TFTPClient("127.0.0.1", 69).timeout;
  const PlayedWaits waits;
  EXPECT_EQ(query("F_l_m_01TEST_FAILED"), (Outcome{0, "Cmd received: F_l_m_01TEST_FAILED\n"}));
  EXPECT_EQ(waits.seconds(), std::vector<long>({5}));
  EXPECT_EQ(client_.received_packet.max_size, 512);
  expects_request_and_ack_for("F_l_m_01CPU_2_TEST_FAILED");
}

TEST_F(VerdictQuery, SendsRequestAtOnceAndAckAfterTheWait) {
  client_.timeout = 2;
  auto running = std::async(std::launch::async, [&] { return client_.sendMagic("F_l_m_01STEP3"); });
  ppt_server_.expects(rrq("F_l_m_01CPU_2_STEP3"), std::chrono::milliseconds(1500));
  ppt_server_.expects_nothing(std::chrono::milliseconds(1500));
  ppt_server_.expects(ack(1), std::chrono::milliseconds(2000));
  EXPECT_EQ(running.get(), 0);
}

TEST_F(VerdictQuery, OfTheSameClientGoesOnAtTheTransferPort) {
  query("F_l_m_01STEP3", data(1, ""));
  expects_request_for_and_ack_of_transfer("F_l_m_01CPU_2_STEP3");
  EXPECT_EQ(query("F_l_m_01STEP4"), (Outcome{0, "Cmd received: F_l_m_01STEP4\n"}));
  transfer_.expects(rrq("F_l_m_01CPU_2_STEP4"));
  transfer_.expects(ack(1));
}

}  // namespace
