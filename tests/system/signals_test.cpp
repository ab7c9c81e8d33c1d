#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/at_commands.h"
#include "support/descriptors.h"
#include "support/emulated.h"
#include "support/fake_board.h"
#include "support/sanitized.h"
#include "support/station.h"
#include "support/threads.h"

namespace {

using namespace station;

// With a sanitizer, the leak check at the exit waits for the lock that the interrupted allocation holds.
constexpr char kCannotExitAnywhere[] = "a sanitizer cannot end the program at any moment";

class Signals : public testing::TestWithParam<int> {
 protected:
  void SetUp() override {
    NEEDS_SANDBOX();
    // A shell that starts its tests in the background has them ignore SIGINT, and the daemon would inherit
    // it.
    signal(SIGINT, SIG_DFL);
  }
};

const std::string kServerAndServiceGone = std::string(station::kMessageServerGone) + station::kServerGone;

INSTANTIATE_TEST_SUITE_P(OfBothKinds, Signals, testing::Values(SIGINT, SIGTERM),
                         [](const auto& kind) { return kind.param == SIGINT ? "Sigint" : "Sigterm"; });

TEST_P(Signals, EndsTheWaitForRequests) {
  const OnLoopback station;
  station.ends_by(GetParam(), "");
}

// Where a program prints and the test takes one line after the other: the program waits in the line after that
// which was not taken yet.
class SlowReader {
 public:
  SlowReader() {
    // Every line is a packet, and there is room for one.
    EXPECT_EQ(pipe2(ends_, O_CLOEXEC | O_DIRECT), 0);
    EXPECT_GT(fcntl(ends_[1], F_SETPIPE_SZ, 1), 0);
  }
  ~SlowReader() {
    closes_its_end();
    close(ends_[0]);
  }
  SlowReader(const SlowReader&) = delete;
  SlowReader& operator=(const SlowReader&) = delete;

  int descriptor() const { return ends_[1]; }
  // All lines before were taken: the program waits in its next one.
  void leaves_no_room() const { EXPECT_EQ(write(ends_[1], &kFiller, 1), 1); }
  bool takes_lines_up_to(const std::string& line) {
    while (text_.find(line) == std::string::npos) {
      pollfd waiting{ends_[0], POLLIN, 0};
      if (poll(&waiting, 1, 10000) != 1 || !takes_line()) return false;
    }
    return true;
  }
  // What was printed, all in all; ends when the program has ended.
  std::string takes_all() {
    closes_its_end();
    while (takes_line()) continue;
    return text_;
  }

 private:
  static constexpr char kFiller = '\0';

  bool takes_line() {
    char line[PIPE_BUF];
    const ssize_t count = read(ends_[0], line, sizeof line);
    if (count > 0 && line[0] != kFiller) text_.append(line, static_cast<std::size_t>(count));
    return count > 0;
  }
  void closes_its_end() {
    if (ends_[1] != -1) close(std::exchange(ends_[1], -1));
  }

  int ends_[2] = {-1, -1};
  std::string text_;
};

// What a thread does, as the system says it in one letter: S sleeps, T is stopped.
char state_of(pid_t process, pid_t thread) {
  std::ifstream file("/proc/" + std::to_string(process) + "/task/" + std::to_string(thread) + "/stat");
  std::string number;
  std::string name;
  char state = '?';
  file >> number >> name >> state;
  return state;
}

// Its main thread sleeps, and does so for some time.
bool is_stuck(pid_t pid) {
  int asleep = 0;
  return wait_until([&] {
    asleep = state_of(pid, pid) == 'S' ? asleep + 1 : 0;
    return asleep == 20;
  });
}

TEST_P(Signals, BeforeTheServerExistsEndsIt) {
  SlowReader reader;
  reader.leaves_no_room();
  Daemon daemon({"-h"}, reader.descriptor());
  ASSERT_TRUE(is_stuck(daemon.pid()));
  daemon.gets_signal(GetParam());
  std::this_thread::sleep_for(milliseconds(50));
  // The line is written to its end, and so are those of the usage; there is no server yet.
  EXPECT_EQ(reader.takes_all(),
            "\n\nUsage: TFTP [-h] [-p port] [-s server]\n\n -h Prints this help\n"
            " -n Specifies the server port, if none is specified default 69 is used\n"
            " -o Specifies the server ip, if none is specified default 127.0.0.1 is used\n"
            " -p Specifies the PPT server port\n -s Specifies the PPT server ip\n"
            " -m Specifies the PPT message port\n\n\n");
  EXPECT_EQ(daemon.exit_status(), GetParam());
}

TEST_P(Signals, AfterTheRunHasEndedLeavesItsStatus) {
  const ScratchDirectory files;
  SlowReader reader;
  Daemon daemon({}, reader.descriptor());
  ASSERT_TRUE(reader.takes_lines_up_to("Error: Failed to initialize sender\n"));
  ASSERT_TRUE(reader.takes_lines_up_to(station::kRelayHasNoAddress));
  UdpPeer unit;
  unit.aims_at("127.0.0.1", station::kTftpPort);
  unit.sends(rrq("F_l_m_01PPT_PASSED"));
  // "Message Server was shut down" has room, the next line has none.
  ASSERT_TRUE(reader.takes_lines_up_to("Error: Failed to initialize receiver\n"));
  ASSERT_TRUE(is_stuck(daemon.pid()));
  daemon.gets_signal(GetParam());
  std::this_thread::sleep_for(milliseconds(50));
  const std::string text = reader.takes_all();
  const std::string end = "Error: Failed to initialize receiver\n" + kServerAndServiceGone;
  EXPECT_EQ(text.substr(text.size() - std::min(text.size(), end.size())), end);
  EXPECT_EQ(daemon.exit_status(), 2);
}

TEST_F(Signals, AlarmWhileALineIsWrittenLosesNoLine) {
  const ScratchDirectory files;
  SlowReader reader;
  Daemon daemon({}, reader.descriptor());
  ASSERT_TRUE(reader.takes_lines_up_to("Error: Failed to initialize sender\n"));
  ASSERT_TRUE(reader.takes_lines_up_to(station::kRelayHasNoAddress));
  reader.leaves_no_room();
  UdpPeer client;
  client.aims_at("127.0.0.1", station::kTftpPort);
  client.sends(rrq("first"));
  ASSERT_TRUE(is_stuck(daemon.pid()));
  daemon.gets_signal(SIGALRM);
  std::this_thread::sleep_for(milliseconds(50));
  EXPECT_TRUE(reader.takes_lines_up_to("RRQ first\n"));
  client.expects(error(1, ""));
  client.aims_at("127.0.0.1", station::kTftpPort);
  client.sends(rrq("second"));
  EXPECT_TRUE(reader.takes_lines_up_to("RRQ second\n"));
  client.expects(error(1, ""));
  daemon.gets_signal(SIGTERM);
  const std::string text = reader.takes_all();
  const std::string end = "RRQ first\nRRQ second\n" + kServerAndServiceGone;
  EXPECT_EQ(text.substr(text.size() - std::min(text.size(), end.size())), end);
  EXPECT_EQ(daemon.exit_status(), SIGTERM);
}

TEST_P(Signals, AtAnyMomentOfTheStartEndsIt) {
  if (kSanitized) GTEST_SKIP() << kCannotExitAnywhere;
  for (int i = 0; i < 40; ++i) {
    Daemon daemon;
    std::this_thread::sleep_for(std::chrono::microseconds(250 * i));
    daemon.gets_signal(GetParam());
    const int status = daemon.exit_status();
    // Too early for the handler, the signal itself ends it.
    EXPECT_TRUE(status == GetParam() || status == -GetParam()) << status << " on round " << i;
    EXPECT_EQ(daemon.errors(), "");
  }
}

TEST_P(Signals, WaitsForTheSenderOfTheBootScript) {
  InNetwork station;
  station.boots();
  station.daemon->gets_signal(GetParam());
  EXPECT_EQ(station.daemon->exit_status(), GetParam());
  station::expect_output(*station.daemon, InNetwork::start_lines(), kServerAndServiceGone,
                         {station::kSenderStopped});
}

TEST_P(Signals, WhileANamedPipeIsWaitedForEndsIt) {
  const OnLoopback station;
  ASSERT_EQ(mkfifo("pipe", S_IRUSR | S_IWUSR), 0);
  station.asks(rrq("pipe"));
  ASSERT_TRUE(station.daemon->prints("RRQ pipe\n"));
  std::this_thread::sleep_for(milliseconds(50));
  station.ends_by(GetParam(), "RRQ pipe\n");
}

TEST_P(Signals, WhileAWriteRequestWaitsForANamedPipeEndsIt) {
  const OnLoopback station;
  ASSERT_EQ(mkfifo("pipe", S_IRUSR | S_IWUSR), 0);
  station.asks(wrq("pipe"));
  ASSERT_TRUE(station.daemon->prints("WRQ \n"));
  std::this_thread::sleep_for(milliseconds(50));
  station.ends_by(GetParam(), "WRQ \n");
}

TEST_P(Signals, EndsItWithATransferOpen) {
  const OnLoopback station;
  write_whole_file("file", noise(2000));
  UdpPeer client = station.asks(rrq("file"));
  client.expects(data(1, noise(2000).substr(0, 512)));
  station.ends_by(GetParam(), "RRQ file\n");
  // LeakSanitizer's look at the end stops every thread: a failed wait, for which the transfer may send an ERROR.
  if (!kSanitized) client.expects_nothing(milliseconds(300));
}

TEST_P(Signals, EndsItWithManyTransfersRunning) {
  LEFT_OUT_UNDER_EMULATION("the transfers are too slow to begin in time");
  const OnLoopback station;
  const std::string contents = noise(1000000);
  write_whole_file("file", contents);
  std::atomic<bool> ends{false};
  std::thread readers([&] {
    std::vector<UdpPeer> peers;
    for (int i = 0; i < 16; ++i) {
      peers.push_back(station.client(0));
      peers.back().sends(rrq("file"));
    }
    // Whatever comes is acknowledged, until the daemon is gone.
    while (!ends) {
      for (UdpPeer& peer : peers) {
        const auto block = peer.receives(milliseconds(1));
        if (block && block->size() >= 4) peer.sends(tftp::bytes("\0\4") + block->substr(2, 2));
      }
    }
  });
  std::this_thread::sleep_for(milliseconds(300));
  std::string requests;
  for (int i = 0; i < 16; ++i) requests += "RRQ file\n";
  station.ends_by(GetParam(), requests);
  ends = true;
  readers.join();
}

TEST_P(Signals, TwoAtOnceEndItOnce) {
  const int other = GetParam() == SIGINT ? SIGTERM : SIGINT;
  for (int i = 0; i < 20; ++i) {
    const OnLoopback station;
    station.daemon->gets_signal(GetParam());
    std::this_thread::sleep_for(std::chrono::microseconds(20 * i));
    station.daemon->gets_signal(other);
    const int status = station.daemon->exit_status();
    EXPECT_TRUE(status == GetParam() || status == other) << status << " on round " << i;
    station.has_printed(kServerAndServiceGone);
  }
}

TEST_P(Signals, MoreOfThemWhileTheFirstWaitsForTheSenderChangeNothing) {
  InNetwork station;
  station.boots();
  station.daemon->gets_signal(GetParam());
  std::this_thread::sleep_for(milliseconds(200));  // it has been taken by then
  for (int i = 0; i < 20; ++i) {
    std::this_thread::sleep_for(milliseconds(5));
    station.daemon->gets_signal(SIGINT);
    station.daemon->gets_signal(SIGTERM);
  }
  EXPECT_EQ(station.daemon->exit_status(), GetParam());
  station::expect_output(*station.daemon, InNetwork::start_lines(), kServerAndServiceGone,
                         {station::kSenderStopped});
}

TEST_P(Signals, WhileAFinalVerdictWaitsForTheSenderEndsItAtOnce) {
  InNetwork station;
  station.boots();
  station.unit_reads_verdict("F_l_m_01PPT_PASSED");
  // The service goes as soon as the sender has slept out its second.
  ASSERT_TRUE(station.daemon->prints("Error: Failed to initialize receiver\n"));
  std::this_thread::sleep_for(milliseconds(20));
  station.daemon->gets_signal(GetParam());
  EXPECT_EQ(station.daemon->exit_status(), GetParam());
  station::expect_output(*station.daemon, InNetwork::start_lines(),
                         "Cmd received: F_l_m_01PPT_PASSED\n"
                         "ERROR on connect() to 172.30.0.254:12345. Connection refused\n"
                         "Error: Failed to initialize receiver\n" +
                             std::string(station::kServerGone),
                         {});
}

TEST_P(Signals, AtAnyMomentOfAFinalVerdictEndsIt) {
  if (kSanitized) GTEST_SKIP() << kCannotExitAnywhere;
  for (int i = 0; i < 20; ++i) {
    const OnLoopback station;
    UdpPeer unit = station.asks(rrq("F_l_m_01PPT_PASSED"));
    std::this_thread::sleep_for(std::chrono::microseconds(50 * i));
    station.daemon->gets_signal(GetParam());
    const int status = station.daemon->exit_status();
    EXPECT_TRUE(status == GetParam() || status == 2) << status << " on round " << i;
    EXPECT_EQ(station.daemon->errors(), "");
  }
}

TEST_P(Signals, DuringTheQueryOfTheSilentPptServerEndsIt) {
  InNetwork station;
  station.boots();
  UdpPeer ppt = station.ppt_server();
  station.unit_reads_verdict("F_l_m_01STEP3");
  ppt.expects(rrq("F_l_m_01CPU_2_STEP3"));
  station.daemon->gets_signal(GetParam());
  EXPECT_EQ(station.daemon->exit_status(milliseconds(3000)), GetParam());
  station::expect_output(*station.daemon, InNetwork::start_lines(),
                         "Cmd received: F_l_m_01STEP3\n" + kServerAndServiceGone, {station::kSenderStopped});
}

TEST_P(Signals, WaitsForTheCommandReceiver) {
  AtCommands at_commands;
  Daemon& daemon = *at_commands.station.daemon;
  daemon.gets_signal(GetParam());
  EXPECT_EQ(daemon.exit_status(), GetParam());
  station::expect_output(daemon, InNetwork::start_lines(), AtCommands::lines() + kServerAndServiceGone,
                         {station::kSenderStopped, station::kReceiverStopped});
}

TEST_P(Signals, WhileAFinalVerdictWaitsForTheCommandReceiverEndsIt) {
  AtCommands at_commands;
  Daemon& daemon = *at_commands.station.daemon;
  at_commands.station.unit_reads_verdict("F_l_m_02PPT_PASSED");
  ASSERT_TRUE(daemon.prints("Cmd received: F_l_m_02PPT_PASSED\n"));
  std::this_thread::sleep_for(milliseconds(20));
  daemon.gets_signal(GetParam());
  EXPECT_EQ(daemon.exit_status(), GetParam());
  EXPECT_EQ(daemon.errors(), "");
}

// What a PPT server takes no more connections does to the connect: no answer comes.
class ConnectionsWithoutAnswer {
 public:
  ConnectionsWithoutAnswer(const std::string& ip, int port) : address_(socket_address(ip, port)) {
    EXPECT_EQ(bind(descriptors_[0], reinterpret_cast<sockaddr*>(&address_), sizeof address_), 0);
    EXPECT_EQ(listen(descriptors_[0], 0), 0);
    for (const int descriptor : {descriptors_[1], descriptors_[2]}) {
      connect(descriptor, reinterpret_cast<sockaddr*>(&address_), sizeof address_);
    }
  }
  ~ConnectionsWithoutAnswer() {
    for (const int descriptor : descriptors_) close(descriptor);
  }
  ConnectionsWithoutAnswer(const ConnectionsWithoutAnswer&) = delete;
  ConnectionsWithoutAnswer& operator=(const ConnectionsWithoutAnswer&) = delete;

 private:
  static int new_socket() { return socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0); }

  sockaddr_in address_;
  const int descriptors_[3] = {new_socket(), new_socket(), new_socket()};
};

TEST_P(Signals, WhileItConnectsToThePptServerEndsIt) {
  InNetwork station;
  std::optional<ConnectionsWithoutAnswer> silent;
  station.network.at_ppt_server([&] { silent.emplace(TestNetwork::kPptServer, station::kMessagePort); });
  UdpPeer ppt = station.ppt_server();
  station.boots();
  station.unit_reads_verdict("F_l_m_01STEP3");
  ppt.expects(rrq("F_l_m_01CPU_2_STEP3"));
  ppt.sends(data(1, ""));
  ppt.expects(ack(1));
  ASSERT_TRUE(is_stuck(station.daemon->pid()));
  const Stopwatch watch;
  station.daemon->gets_signal(GetParam());
  EXPECT_EQ(station.daemon->exit_status(), GetParam());
  EXPECT_LT(watch.elapsed(), milliseconds(2500));
  station::expect_output(*station.daemon, InNetwork::start_lines(),
                         "Cmd received: F_l_m_01STEP3\n" + kServerAndServiceGone, {station::kSenderStopped});
}

TEST_F(Signals, AlarmCutsTheQueryOfTheSilentPptServerShort) {
  InNetwork station;
  station.boots();
  UdpPeer ppt = station.ppt_server();
  station.unit_reads_verdict("F_l_m_01STEP3");
  ppt.expects(rrq("F_l_m_01CPU_2_STEP3"));
  ASSERT_TRUE(is_stuck(station.daemon->pid()));
  station.daemon->gets_signal(SIGALRM);
  ppt.expects(ack(1), milliseconds(2500));
  EXPECT_TRUE(station.daemon->prints("Cmd received: F_l_m_01STEP3\nError in select(): \n"));
}

const SignalMask kOfARun = mask_of({SIGALRM, SIGINT, SIGTERM});

std::vector<pid_t> threads_of(pid_t process) {
  std::vector<pid_t> threads;
  for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/task")) {
    threads.push_back(std::stoi(task.path().filename()));
  }
  return threads;
}

SignalMask blocked_on(pid_t process, pid_t thread) {
  return blocked_signals(std::to_string(process) + "/task/" + std::to_string(thread));
}

// One that is served from now on, and has its first block.
UdpPeer open_transfer(const InNetwork& station) {
  write_whole_file("file", noise(2000));
  UdpPeer reader = station.unit();
  reader.sends(rrq("file"));
  reader.expects(data(1, noise(2000).substr(0, 512)));
  return reader;
}

TEST_F(Signals, AreTakenByTheMainThreadAloneWhileItWaitsForARequest) {
  const AtCommands at_commands;
  const UdpPeer reader = open_transfer(at_commands.station);
  const pid_t daemon = at_commands.station.daemon->pid();
  EXPECT_GE(threads_of(daemon).size(), 4U);  // relay, receiver, client, and the main one; the sender may end
  EXPECT_TRUE(wait_until([&] { return (blocked_on(daemon, daemon) & kOfARun) == 0; }));
  for (const pid_t thread : threads_of(daemon)) {
    if (thread == daemon) continue;
    EXPECT_EQ(blocked_on(daemon, thread) & kOfARun, kOfARun);
  }
}

TEST_F(Signals, SentToAnyThreadDisturbNoWait) {
  constexpr int kRounds = 200;
  const AtCommands at_commands;
  const Daemon& daemon = *at_commands.station.daemon;
  UdpPeer reader = open_transfer(at_commands.station);
  TcpPeer unit = at_commands.unit();
  std::mt19937 random(15);
  for (int round = 0; round < kRounds; ++round) {
    const std::vector<pid_t> threads = threads_of(daemon.pid());
    for (int i = 0; i < 5; ++i) {
      syscall(SYS_tgkill, daemon.pid(), threads[random() % threads.size()], SIGALRM);
      std::this_thread::sleep_for(std::chrono::microseconds(random() % 300));
    }
    if (round % 20 == 0) unit.asks("hello", "hello");
  }
  reader.sends(ack(1));
  reader.expects(data(2, noise(2000).substr(512, 512)));
  at_commands.station.daemon->gets_signal(SIGTERM);
  unit.closes();
  EXPECT_EQ(at_commands.station.daemon->exit_status(), SIGTERM);
  EXPECT_EQ(daemon.output().find("select()"), std::string::npos) << daemon.output();
}

// A stop interrupts a receive with a time limit although no handler runs.
TEST_F(Signals, StopOfTheProcessIsAFailedWaitOfATransfer) {
  const OnLoopback station;
  write_whole_file("file", noise(2000));
  UdpPeer client = station.asks(rrq("file"));
  client.expects(data(1, noise(2000).substr(0, 512)));
  client.sends(ack(1));
  client.expects(data(2, noise(2000).substr(512, 512)));
  ASSERT_TRUE(station.daemon->prints("RRQ file\n"));
  std::this_thread::sleep_for(milliseconds(50));
  const pid_t daemon = station.daemon->pid();
  kill(daemon, SIGSTOP);
  for (const pid_t thread : threads_of(daemon)) {
    ASSERT_TRUE(wait_until([&] { return state_of(daemon, thread) == 'T'; }));
  }
  kill(daemon, SIGCONT);
  // For the ACK before, judged once more, and for the wait.
  client.expects(data(2, noise(2000).substr(512, 512)));
  client.expects(data(2, noise(2000).substr(512, 512)));
  client.sends(ack(2));
  client.expects(data(3, noise(2000).substr(1024, 512)));
  station.printed("RRQ file\nError in select(): \n");
}

// The masks that the board's commands are started with, as they note them. The shell is one that leaves its own
// as it is, which not every one does.
class MasksOfCommands {
 public:
  MasksOfCommands() {
    EXPECT_EQ(mount("/bin/bash", "/bin/sh", nullptr, MS_BIND, nullptr), 0);
    for (const char* command : {FakeBoard::kEnvtool, FakeBoard::kVoice, FakeBoard::kT1E1}) {
      board_.is_script(command, "grep SigBlk /proc/self/status >> " + files_.file("masks") + "\nexit 1\n");
    }
  }
  ~MasksOfCommands() { umount2("/bin/sh", MNT_DETACH); }
  MasksOfCommands(const MasksOfCommands&) = delete;
  MasksOfCommands& operator=(const MasksOfCommands&) = delete;

  std::vector<SignalMask> noted() const {
    std::vector<SignalMask> masks;
    std::ifstream file(files_.file("masks"));
    std::string word;
    for (SignalMask mask; file >> word >> std::hex >> mask;) masks.push_back(mask);
    return masks;
  }

 private:
  const ScratchDirectory files_;
  const FakeBoard board_;
};

TEST_F(Signals, AreBlockedInNoCommandThatTheParentDidNotBlockThemIn) {
  for (const SignalMask blocked : {mask_of({}), mask_of({SIGTERM})}) {
    const MasksOfCommands masks;
    std::optional<BlockedSignal> by_the_parent;
    if (blocked != 0) by_the_parent.emplace(SIGTERM);
    AtCommands at_commands;
    at_commands.unit().asks("ZIRN_ASKS_FOR_HIS_MAC", "02:00:00:00:00:03");
    at_commands.unit().asks("DO_PMC_INIT:7", "READY");
    at_commands.takes_verdict("F_l_m_02TEST_FAILED");
    // envtool, the voice service twice, the T1/E1 tool, envtool
    EXPECT_TRUE(wait_until([&] { return masks.noted().size() == 5; }));
    EXPECT_EQ(masks.noted(), std::vector<SignalMask>(5, blocked));
  }
}

TEST_F(Signals, AlarmOfTheBootDoesNotEndTheProgram) {
  InNetwork station;
  write_whole_file("file", "contents");
  station.boots();
  std::this_thread::sleep_for(milliseconds(10500));
  UdpPeer unit = station.unit();
  EXPECT_EQ(read_by_tftp(unit, rrq("file")), "contents");
  station.unit_reads_verdict("F_l_m_01PPT_PASSED");
  EXPECT_EQ(station.daemon->exit_status(), 2);
}

TEST_F(Signals, AlarmDoesNotEndTheProgramWithoutABroadcastEither) {
  const OnLoopback station;
  station.daemon->gets_signal(SIGALRM);
  station.printed("");
}

}  // namespace
