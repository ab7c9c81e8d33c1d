#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "signals/signals.h"
#include "stage/network_namespace.h"
#include "stage/wait_until.h"
#include "support/client_record.h"
#include "support/fault.h"
#include "support/sandbox.h"
#include "support/spoiling_output.h"

using namespace std::chrono_literals;
using namespace tftp;

namespace {

constexpr char kPassed[] = "F_l_m_01PPT_PASSED";
constexpr char kPassedReceived[] = "Cmd received: F_l_m_01PPT_PASSED\n";
constexpr char kStep[] = "F_l_m_01STEP3";
constexpr char kStepReceived[] = "Cmd received: F_l_m_01STEP3\n";
constexpr char kForwardedStep[] = "F_l_m_01CPU_2_STEP3";
// Without the test network the command receiver has no address.
constexpr char kNoReceiver[] =
    "ERROR on binding. Cannot assign requested address\nError: Failed to initialize receiver\n";
constexpr char kServiceDeleted[] = "Message Server was shut down\n";

class Verdict : public ClientRecordTest {
 protected:
  ~Verdict() override {
    alarm(0);
    _bTimeoutFlag = false;
  }

  void has_no_message_service() {
    const CapturedOutput unseen;
    delete std::exchange(server->message_server, nullptr);
  }

  // Processes the name on another thread, so that the test can be the PPT server meanwhile.
  std::future<Outcome> begins(const std::string& request) {
    return std::async(std::launch::async, [this, request] { return processes(request); });
  }

  void ppt_server_answers(const std::string& expected_name) {
    ppt_server.expects(rrq(expected_name));
    ppt_server.sends(data(1, ""));
    ppt_server.expects(ack(1));
  }

  // How the run stands, in words.
  std::string run() const {
    return std::string(server->running ? "running" : "ended") + ", exit code " +
           std::to_string(server->exit_code) +
           (server->message_server != nullptr ? ", message service" : "") +
           (_bTimeoutFlag ? ", timed out" : "");
  }
};

TEST_F(Verdict, FinalVerdictEndsRunAndMessageService) {
  has_been_used();
  EXPECT_EQ(processes(rrq(kPassed)), refused(std::string(kPassedReceived) + kNoReceiver + kServiceDeleted));
  unit.expects(data(1, ""));
  unit.expects_nothing(kShortWhile);
  ppt_server.expects_nothing(0ms);
  EXPECT_EQ(run(), "ended, exit code 2");
  EXPECT_EQ(changes_besides_disconnect(), "");
}

TEST_F(Verdict, FinalVerdictHasItsExitCodeBeforeTheServiceIsDeletedAndEndsTheLoopAfterwards) {
  std::string meanwhile;
  {
    const SpoilingOutput output([&](const std::string& piece) {
      if (kServiceDeleted == piece + "\n") meanwhile = run();
    });
    is_asked(rrq(kPassed));
    EXPECT_EQ(server->ProcessRequest(&record), 0);
  }
  EXPECT_EQ(meanwhile, "running, exit code 2");
  EXPECT_EQ(run(), "ended, exit code 2");
}

TEST_F(Verdict, AlarmDuringTheDeletionOfTheServiceTurnsTheExitCodeInto1) {
  {
    const SpoilingOutput output([&](const std::string& piece) {
      if (kServiceDeleted == piece + "\n") TimeoutHandler(SIGALRM);
    });
    is_asked(rrq(kPassed));
    EXPECT_EQ(server->ProcessRequest(&record), 0);
  }
  EXPECT_EQ(run(), "ended, exit code 1, timed out");
}

TEST_F(Verdict, FinalVerdictEndsRunWithoutMessageService) {
  has_no_message_service();
  alarm(100);
  const int descriptors = open_descriptors();
  EXPECT_EQ(processes(rrq(kPassed)), refused(kPassedReceived));
  EXPECT_EQ(open_descriptors(), descriptors - 1);
  unit.expects(data(1, ""));
  EXPECT_EQ(run(), "ended, exit code 2");
  EXPECT_NE(alarm(0), 0U);
}

TEST_F(Verdict, FinalFailureEndsRunAlike) {
  write_whole_file("envtool", "#!/bin/sh\necho \"$@\" > marked\n");
  chmod("envtool", S_IRWXU);
  setenv("PATH", (directory.path() + ":" + getenv("PATH")).c_str(), 1);
  has_no_message_service();
  EXPECT_EQ(processes(rrq("F_l_m_01PPT_FAILED")), refused("Cmd received: F_l_m_01PPT_FAILED\n"));
  unit.expects(data(1, ""));
  EXPECT_EQ(run(), "ended, exit code 2");
  EXPECT_EQ(whole_file("marked"), "ppt_flag=failed\n");
}

TEST_F(Verdict, ModeOptionsAndFilesDoNotMatter) {
  write_whole_file(kPassed, "contents");
  has_no_message_service();
  EXPECT_EQ(processes(rrq(kPassed, {{"blksize", "1024"}, {"tsize", "0"}}, "netascii")),
            refused(kPassedReceived));
  unit.expects(data(1, ""));
  unit.expects_nothing(kShortWhile);
  EXPECT_EQ(run(), "ended, exit code 2");
}

TEST_F(Verdict, UnitThatCannotBeReachedDoesNotMatter) {
  has_no_message_service();
  Fault no_send(Call::kSendto, EPERM);
  EXPECT_EQ(processes(rrq(kPassed)), refused(kPassedReceived));
  EXPECT_EQ(run(), "ended, exit code 2");
}

TEST_F(Verdict, StepIsForwardedAndTheMessageServiceSwitchedOver) {
  server->message_server->sending = true;
  _bTimeoutFlag = true;
  alarm(100);
  has_been_used();
  std::future<Outcome> outcome = begins(rrq(kStep));
  unit.expects(data(1, ""));
  ppt_server_answers(kForwardedStep);
  EXPECT_EQ(outcome.get(), refused(std::string(kStepReceived) + kNoReceiver));
  EXPECT_EQ(run(), "running, exit code 0, message service");
  ASSERT_NE(server->message_server, nullptr);
  EXPECT_FALSE(server->message_server->sending);
  EXPECT_EQ(alarm(0), 0U);
  EXPECT_EQ(changes_besides_disconnect(), "");
  ppt_server.expects_nothing(kShortWhile);
}

TEST_F(Verdict, StepWithoutMessageServiceLeavesTheAlarm) {
  has_no_message_service();
  alarm(100);
  std::future<Outcome> outcome = begins(rrq(kStep));
  ppt_server_answers(kForwardedStep);
  EXPECT_EQ(outcome.get(), refused(kStepReceived));
  unit.expects(data(1, ""));
  EXPECT_EQ(run(), "running, exit code 0");
  EXPECT_NE(alarm(0), 0U);
}

TEST_F(Verdict, SilentPptServerIsWaitedForOnceAndTheUnitHasItsFileBefore) {
  has_no_message_service();
  const auto start = std::chrono::steady_clock::now();
  std::future<Outcome> outcome = begins(rrq(kStep));
  unit.expects(data(1, ""), 1s);
  ppt_server.expects(rrq(kForwardedStep), 1s);
  ppt_server.expects(ack(1));
  EXPECT_EQ(outcome.get(), refused(kStepReceived));
  const auto time = std::chrono::steady_clock::now() - start;
  EXPECT_GE(time, 5s);
  EXPECT_LT(time, 7s);
  EXPECT_EQ(run(), "running, exit code 0");
  ppt_server.expects_nothing(kShortWhile);
}

TEST_F(Verdict, PptServersErrorIsPrintedAndIgnored) {
  std::future<Outcome> outcome = begins(rrq(kStep));
  ppt_server.expects(rrq(kForwardedStep));
  ppt_server.sends(error(1, "none"));
  ppt_server.expects(ack(1));
  EXPECT_EQ(outcome.get(), refused(std::string(kStepReceived) +
                                   "Error! Error code: 1\nError message: File not found\n" + kNoReceiver));
  EXPECT_EQ(run(), "running, exit code 0, message service");
}

TEST_F(Verdict, NameOfEightCharactersIsForwarded) {
  has_no_message_service();
  std::future<Outcome> outcome = begins(rrq("F_l_m_01"));
  ppt_server_answers("F_l_m_01CPU_2_");
  EXPECT_EQ(outcome.get(), refused("Cmd received: F_l_m_01\n"));
}

TEST_F(Verdict, NameIsCutTo255CharactersBeforeItIsJudged) {
  const std::string filler(247, 'x');
  has_no_message_service();
  std::future<Outcome> outcome = begins(rrq("F_l_m_01" + filler + "PPT_PASSED"));
  ppt_server_answers("F_l_m_01CPU_2_" + filler);
  EXPECT_EQ(outcome.get(), refused("Cmd received: F_l_m_01" + filler + "\n"));
  EXPECT_EQ(run(), "running, exit code 0");
}

TEST_F(Verdict, ShortNameLetsTheErrorOutAfterTheUnitGotItsFile) {
  for (const std::string name : {"F_l_m_", "F_l_m_0"}) {
    server->message_server->sending = true;
    _bTimeoutFlag = true;
    alarm(100);
    has_been_used();
    const int descriptors = open_descriptors();
    const Outcome outcome = outcome_of([this, &name] {
      is_asked(rrq(name));
      EXPECT_THROW(server->ProcessRequest(&record), std::out_of_range);
      return 0;
    });
    EXPECT_EQ(open_descriptors(), descriptors - 1);
    EXPECT_EQ(outcome.printed, "Cmd received: " + name + "\n");
    EXPECT_EQ(changes_besides_disconnect(), "");
    EXPECT_EQ(run(), "running, exit code 0, message service, timed out");
    ASSERT_NE(server->message_server, nullptr);
    EXPECT_TRUE(server->message_server->sending);
    EXPECT_NE(alarm(0), 0U);
    server->message_server->sending = false;
    unit.expects(data(1, ""));
    record.socket_fd = socket(AF_INET, SOCK_DGRAM, 0);
  }
}

TEST_F(Verdict, WithoutSocketForTheQueryEvenAFinalVerdictIsNone) {
  Fault no_socket(Call::kSocket, EMFILE);
  EXPECT_EQ(processes(rrq(kPassed)), refused(kNoReceiver));
  EXPECT_EQ(no_socket.struck(), 1);
  unit.expects(data(1, ""));
  EXPECT_EQ(run(), "running, exit code 0, message service");
}

TEST_F(Verdict, WithoutSocketAndMessageServiceAnEarlierAlarmEndsTheRun) {
  has_no_message_service();
  _bTimeoutFlag = true;
  Fault no_socket(Call::kSocket, EMFILE);
  EXPECT_EQ(processes(rrq(kPassed)), refused(""));
  EXPECT_EQ(run(), "ended, exit code 1, timed out");
}

TEST_F(Verdict, AlarmBeforeFinalVerdictWithoutMessageServiceIsATimeout) {
  has_no_message_service();
  _bTimeoutFlag = true;
  EXPECT_EQ(processes(rrq(kPassed)), refused(kPassedReceived));
  EXPECT_EQ(run(), "ended, exit code 1, timed out");
}

TEST_F(Verdict, AlarmBeforeFinalVerdictIsForgottenWithMessageService) {
  _bTimeoutFlag = true;
  EXPECT_EQ(processes(rrq(kPassed)), refused(std::string(kPassedReceived) + kNoReceiver + kServiceDeleted));
  EXPECT_EQ(run(), "ended, exit code 2");
}

// The alarm interrupts the wait for the PPT server.
class VerdictWithAlarm : public Verdict {
 protected:
  VerdictWithAlarm() {
    struct sigaction action = {};
    action.sa_handler = TimeoutHandler;
    sigaction(SIGALRM, &action, nullptr);
    alarm(1);
  }
};

TEST_F(VerdictWithAlarm, DuringTheQueryEndsTheRunWithoutMessageService) {
  has_no_message_service();
  EXPECT_EQ(processes(rrq(kStep)), refused(std::string(kStepReceived) + "Error in select(): \n"));
  EXPECT_EQ(run(), "ended, exit code 1, timed out");
}

TEST_F(VerdictWithAlarm, DuringTheQueryIsForgottenWithMessageService) {
  EXPECT_EQ(processes(rrq(kStep)),
            refused(std::string(kStepReceived) + "Error in select(): \n" + kNoReceiver));
  EXPECT_EQ(run(), "running, exit code 0, message service");
}

TEST_F(Verdict, StartsTheCommandReceiverOnTheTestNetwork) {
  NEEDS_SANDBOX();
  ip("address add 172.40.0.1/32 dev lo");
  const int ppt_listener = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address = loopback(0);
  socklen_t length = sizeof address;
  ASSERT_EQ(bind(ppt_listener, as_sockaddr(&address), length), 0);
  ASSERT_EQ(listen(ppt_listener, 1), 0);
  getsockname(ppt_listener, as_sockaddr(&address), &length);
  const int port = ntohs(address.sin_port);
  server->message_port = 65536 + port;

  std::future<Outcome> outcome = begins(rrq(kStep));
  ppt_server_answers(kForwardedStep);
  EXPECT_EQ(outcome.get(),
            refused(std::string(kStepReceived) +
                    "Message receiver initialized. IP: 127.0.0.1 Port=" + std::to_string(port) + "\n"));
  ASSERT_NE(server->message_server, nullptr);
  sockaddr_in receives_on = {};
  getsockname(server->message_server->receive_socket, as_sockaddr(&receives_on), &length);
  EXPECT_STREQ(inet_ntoa(receives_on.sin_addr), "172.40.0.1");
  EXPECT_EQ(ntohs(receives_on.sin_port), port);
  EXPECT_EQ(run(), "running, exit code 0, message service");
  close(ppt_listener);
  ip("address del 172.40.0.1/32 dev lo");
}

std::atomic<int> signals_handled{0};
std::atomic<bool> handler_found_service{false};

void note_signal(int /*number*/) {
  if (TFTPServer::self->message_server != nullptr) handler_found_service = true;
  ++signals_handled;
}

// A sender that has not ended yet keeps the message service's deletion waiting, and the program lets signals in.
TEST_F(Verdict, SignalsDuringTheDeletionFindNoServiceToDelete) {
  signal(SIGTERM, note_signal);
  signal(SIGINT, note_signal);
  block_signals();
  MessageServer* const service = server->message_server;
  service->sender_thread = pthread_self();
  int handled_during_deletion = -1;
  std::thread other([this, service, &handled_during_deletion, main_thread = pthread_self()] {
    wait_until([this] { return server->message_server == nullptr; });
    pthread_kill(main_thread, SIGTERM);
    pthread_kill(main_thread, SIGINT);
    wait_until([] { return signals_handled == 2; });
    handled_during_deletion = signals_handled;
    service->sender_thread = 0;
  });
  EXPECT_EQ(processes(rrq(kPassed)), refused(std::string(kPassedReceived) + kNoReceiver + kServiceDeleted));
  other.join();
  EXPECT_EQ(handled_during_deletion, 2);
  EXPECT_FALSE(handler_found_service);
  EXPECT_EQ(run(), "ended, exit code 2");
}

// It fired while the verdict was being read, and is let in only once the service's threads are waited for.
TEST_F(Verdict, AlarmThatIsHeldBackUntilAfterTheVerdictIsForgotten) {
  signal(SIGALRM, TimeoutHandler);
  block_signals();
  MessageServer* const service = server->message_server;
  service->sender_thread = pthread_self();
  std::thread sender([this, service] {
    wait_until([this] { return server->message_server == nullptr; });
    std::this_thread::sleep_for(100ms);
    service->sender_thread = 0;
  });
  raise(SIGALRM);
  EXPECT_EQ(processes(rrq(kPassed)), refused(std::string(kPassedReceived) + kNoReceiver + kServiceDeleted));
  sender.join();
  EXPECT_EQ(run(), "ended, exit code 2");
}

}  // namespace
