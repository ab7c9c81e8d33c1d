#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/emulated.h"
#include "support/sanitized.h"
#include "support/station.h"
#include "support/tcp_listener.h"

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

char process_state(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  std::string number;
  std::string name;
  char state = '?';
  file >> number >> name >> state;
  return name == "(TFTP)" ? state : '?';
}

// Nobody reads what the program prints, so that it stays in its first line until the test lets it go on.
class Stuck {
 public:
  explicit Stuck(const std::string& program) {
    EXPECT_EQ(pipe2(ends_, O_CLOEXEC), 0);
    const std::string page(4096, '.');
    fcntl(ends_[1], F_SETFL, O_NONBLOCK);
    while (write(ends_[1], page.data(), page.size()) > 0) filled_ += page.size();
    fcntl(ends_[1], F_SETFL, 0);
    pid_ = fork();
    if (pid_ == 0) {
      dup2(ends_[1], STDOUT_FILENO);
      execl(program.c_str(), program.c_str(), "-h", nullptr);
      _exit(127);
    }
    close(ends_[1]);
    for (int asleep = 0; asleep < 20; asleep = process_state(pid_) == 'S' ? asleep + 1 : 0) usleep(5000);
  }
  ~Stuck() { close(ends_[0]); }
  Stuck(const Stuck&) = delete;
  Stuck& operator=(const Stuck&) = delete;

  pid_t pid() const { return pid_; }
  // What it printed, all in all; ends when it has ended.
  std::string output() const {
    std::string text;
    char piece[4096];
    ssize_t count;
    while ((count = read(ends_[0], piece, sizeof piece)) > 0)
      text.append(piece, static_cast<std::size_t>(count));
    return text.substr(filled_);
  }
  int status() const {
    int status = 0;
    waitpid(pid_, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }

 private:
  int ends_[2] = {-1, -1};
  std::size_t filled_ = 0;
  pid_t pid_ = -1;
};

TEST_P(Signals, BeforeTheServerExistsEndsIt) {
  LEFT_OUT_UNDER_EMULATION("the process is seen as qemu");
  const Daemon running;
  ASSERT_TRUE(running.serves());
  const std::string program = "/proc/" + std::to_string(running.pid()) + "/exe";
  char path[PATH_MAX] = {};
  ASSERT_GT(readlink(program.c_str(), path, sizeof path - 1), 0);
  const Stuck daemon(path);
  kill(daemon.pid(), GetParam());
  usleep(50000);
  // The line is written to its end, and so are those of the usage; there is no server yet.
  EXPECT_EQ(daemon.output(),
            "\n\nUsage: TFTP [-h] [-p port] [-s server]\n\n -h Prints this help\n"
            " -n Specifies the server port, if none is specified default 69 is used\n"
            " -o Specifies the server ip, if none is specified default 127.0.0.1 is used\n"
            " -p Specifies the PPT server port\n -s Specifies the PPT server ip\n"
            " -m Specifies the PPT message port\n\n\n");
  EXPECT_EQ(daemon.status(), GetParam());
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

TEST_P(Signals, EndsItWithATransferOpen) {
  const OnLoopback station;
  write_whole_file("file", noise(2000));
  UdpPeer client = station.asks(rrq("file"));
  client.expects(data(1, noise(2000).substr(0, 512)));
  station.ends_by(GetParam(), "RRQ file\n");
  client.expects_nothing(milliseconds(300));
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

// A booted station whose command receiver runs.
struct AtCommands {
  AtCommands() {
    station.network.at_ppt_server(
        [&] { listener = std::make_unique<TcpListener>(TestNetwork::kPptServer, station::kMessagePort); });
    UdpPeer ppt = station.ppt_server();
    station.boots();
    station.unit_reads_verdict("F_l_m_01STEP3");
    ppt.expects(rrq("F_l_m_01CPU_2_STEP3"));
    ppt.sends(data(1, ""));
    EXPECT_TRUE(station.daemon->prints(kReceiverReady));
    station.receiver_answers();
  }

  static constexpr char kReceiverReady[] = "Message receiver initialized. IP: 172.30.0.254 Port=12345\n";
  static std::string lines() { return std::string("Cmd received: F_l_m_01STEP3\n") + kReceiverReady; }

  InNetwork station;
  std::unique_ptr<TcpListener> listener;
};

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

// The threads besides the main one that the system may choose to run the handler on.
std::vector<pid_t> threads_that_take(int signal_number, pid_t process) {
  std::vector<pid_t> threads;
  for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/task")) {
    const pid_t thread = std::stoi(task.path().filename());
    std::ifstream status(task.path() / "status");
    std::string word;
    while (status >> word && word != "SigBlk:") {
    }
    unsigned long long blocked = 0;
    status >> std::hex >> blocked;
    if (thread != process && (blocked >> (signal_number - 1) & 1) == 0) threads.push_back(thread);
  }
  return threads;
}

// It does so while the main thread has the signals blocked, as it does for the creation of each client's
// thread.
TEST_P(Signals, OnAnyThreadThatTakesThemEndIt) {
  AtCommands at_commands;
  Daemon& daemon = *at_commands.station.daemon;
  const std::vector<pid_t> threads = threads_that_take(GetParam(), daemon.pid());
  if (threads.empty()) GTEST_SKIP() << "only the main thread takes them";
  for (const pid_t thread : threads) syscall(SYS_tgkill, daemon.pid(), thread, GetParam());
  EXPECT_EQ(daemon.exit_status(), GetParam());
  EXPECT_EQ(daemon.errors(), "");
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
