#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/emulated.h"
#include "support/sanitized.h"
#include "support/station.h"

// The process entry, by its own text and by the program that it makes.

namespace {

constexpr char kUsage[] =
    "\n"
    "\n"
    "Usage: TFTP [-h] [-p port] [-s server]\n"
    "\n"
    " -h Prints this help\n"
    " -n Specifies the server port, if none is specified default 69 is used\n"
    " -o Specifies the server ip, if none is specified default 127.0.0.1 is used\n"
    " -p Specifies the PPT server port\n"
    " -s Specifies the PPT server ip\n"
    " -m Specifies the PPT message port\n"
    "\n"
    "\n";

using Arguments = std::vector<std::string>;

class Main : public testing::Test {
 protected:
  void SetUp() override { NEEDS_SANDBOX(); }
};

std::string in_words(const Arguments& arguments) {
  std::string words = "with";
  for (const std::string& argument : arguments) words += " '" + argument + "'";
  return words;
}

std::string after_start() {
  return std::string(station::kServing) + station::kNoSender;
}

// It starts with these lines, and serves until SIGTERM.
void starts(const Arguments& arguments, const std::string& lines) {
  SCOPED_TRACE(in_words(arguments));
  const station::OnLoopback station(arguments);
  station.daemon->gets_signal(SIGTERM);
  EXPECT_EQ(station.daemon->exit_status(), SIGTERM);
  EXPECT_EQ(station.daemon->output(),
            lines + after_start() + station::kMessageServerGone + station::kServerGone);
  EXPECT_EQ(station.daemon->errors(), "");
}

void starts_on_port(const Arguments& arguments, int port) {
  starts(arguments, station::starting("127.0.0.1", port));
}

void ends_at_once(const Arguments& arguments, int status, const std::string& lines) {
  SCOPED_TRACE(in_words(arguments));
  Daemon daemon(arguments);
  EXPECT_EQ(daemon.exit_status(), status);
  EXPECT_EQ(daemon.output(), lines);
  EXPECT_EQ(daemon.errors(), "");
}

void serves_on(const Arguments& arguments, const std::string& ip, int port) {
  SCOPED_TRACE(in_words(arguments));
  const station::OnLoopback station(arguments);
  write_whole_file("file", "contents");
  UdpPeer client(ip, 2001);
  client.aims_at(ip, port);
  EXPECT_EQ(read_by_tftp(client, tftp::rrq("file")), "contents");
}

TEST_F(Main, WithoutArgumentsListensOnLoopbackPort69) {
  starts({}, "Starting TFTP server on 127.0.0.1:69 PPT Server: 172.30.0.254\n");
  serves_on({}, "127.0.0.1", 69);
}

TEST_F(Main, OptionsTakeTheNextArgument) {
  starts({"-n", "70", "-s", "10.0.0.1"}, "Starting TFTP server on 127.0.0.1:70 PPT Server: 10.0.0.1\n");
  starts({"--port", "70", "--serverip", "10.0.0.1", "--ipaddr", "127.0.0.9", "--serverport", "71",
          "--msgport", "4000"},
         "Starting TFTP server on 127.0.0.9:70 PPT Server: 10.0.0.1\n");
}

TEST_F(Main, OptionsTakeTheRestOfTheirArgument) {
  starts({"-n70", "-s=10.0.0.1", "-o 127.0.0.9"}, station::starting("127.0.0.9", 70, "10.0.0.1"));
  starts({"--port=70", "--serverip=10.0.0.1", "--ipaddr=127.0.0.9"},
         station::starting("127.0.0.9", 70, "10.0.0.1"));
  starts_on_port({"-n = 70"}, 70);
}

TEST_F(Main, LastValueOfAnOptionCounts) {
  starts_on_port({"-n", "70", "--port=71", "-n", "72"}, 72);
}

TEST_F(Main, ListensWhereItSaysSo) {
  serves_on({"-n", "1069", "-o", "127.0.0.9"}, "127.0.0.9", 1069);
}

TEST_F(Main, FlagAndOptionShareAnArgument) {
  starts({"-hn", "70"}, kUsage + station::starting("127.0.0.1", 70));
  starts({"-hn70"}, kUsage + station::starting("127.0.0.1", 70));
}

TEST_F(Main, HelpPrintsTheUsageAndStartsAllTheSame) {
  starts({"-h"}, kUsage + station::starting("127.0.0.1"));
  starts({"-n", "70", "-h"}, kUsage + station::starting("127.0.0.1", 70));
}

TEST_F(Main, HelpGivenTwicePrintsTheUsageOnce) {
  starts({"-h", "-h"}, kUsage + station::starting("127.0.0.1"));
}

TEST_F(Main, HelpHasNoLongForm) {
  starts_on_port({"--help", "--h"}, 69);
}

TEST_F(Main, EmptyPptServerEndsWithTheUsageAndStatus1) {
  ends_at_once({"-s", ""}, 1, kUsage);
  ends_at_once({"--serverip", ""}, 1, kUsage);
  ends_at_once({"--serverip="}, 1, kUsage);
  ends_at_once({"-s="}, 1, kUsage);
}

TEST_F(Main, EmptyPptServerWithHelpPrintsTheUsageOnce) {
  ends_at_once({"-h", "-s", ""}, 1, kUsage);
  ends_at_once({"-s", "", "-h"}, 1, kUsage);
}

TEST_F(Main, OptionWithoutValueKeepsItsDefault) {
  for (const std::string last : {"-n", "-o", "-p", "-s", "-m", "--port", "--ipaddr", "--serverip"}) {
    starts_on_port({last}, 69);
  }
}

TEST_F(Main, TextForAPortIsZero) {
  starts({"-n", "abc"}, "Starting TFTP server on 127.0.0.1:0 PPT Server: 172.30.0.254\n");
  starts_on_port({"-n", ""}, 0);
  starts_on_port({"--port="}, 0);
}

TEST_F(Main, NumberEndsWithItsLastDecimalDigit) {
  starts_on_port({"-n", "70abc"}, 70);
  starts_on_port({"-n", "0x45"}, 0);
  starts_on_port({"-n", "070"}, 70);
  starts_on_port({"-n", " +70"}, 70);
  starts_on_port({"-n", "70.9"}, 70);
}

TEST_F(Main, PortIsPrintedWholeAndUsedByItsLow16Bits) {
  starts_on_port({"-n", "70000"}, 70000);
  serves_on({"-n", "70000"}, "127.0.0.1", 70000 - 65536);
  starts_on_port({"-n", "-65467"}, -65467);
  serves_on({"-n", "-65467"}, "127.0.0.1", 69);
  starts_on_port({"-n", "4294967366"}, static_cast<int>(std::strtol("4294967366", nullptr, 10)));
}

TEST_F(Main, ValueMayBeginLikeAnOption) {
  starts({"-s", "-h"}, station::starting("127.0.0.1", 69, "-h"));
}

TEST_F(Main, AddressesAreTakenAsTheyCome) {
  starts({"-s", "ppt server"}, "Starting TFTP server on 127.0.0.1:69 PPT Server: ppt server\n");
  starts({"-o", "127.9"}, "Starting TFTP server on 127.9:69 PPT Server: 172.30.0.254\n");
}

TEST_F(Main, EmptyAddressListensEverywhere) {
  starts({"-o", ""}, "Starting TFTP server on :69 PPT Server: 172.30.0.254\n");
  serves_on({"-o", ""}, "127.0.0.1", 69);
  serves_on({"--ipaddr="}, "172.40.0.1", 69);
}

TEST_F(Main, UnknownOptionsAndStrayArgumentsAreIgnoredWithoutAWord) {
  starts_on_port({"-x", "word", "--unknown", "--unknown=1", "-", "--", "", "-n", "70", "last"}, 70);
}

TEST_F(Main, UnknownLettersBeforeAKnownOneAreSkipped) {
  starts_on_port({"-xyn", "70"}, 70);
}

TEST_F(Main, AddressOfAnotherMachineEndsWithStatus1) {
  ends_at_once({"-o", "10.1.2.3", "-n", "70"}, 1,
               station::starting("10.1.2.3", 70) +
                   "Socket Bind exception: Cannot assign requested address\n"
                   "Message Server was shut down\n"
                   "TFTP Server was shut down\n");
}

TEST_F(Main, SignalsEndItWithTheirNumbers) {
  for (const int signal_number : {SIGINT, SIGTERM}) {
    const station::OnLoopback station;
    station.daemon->gets_signal(signal_number);
    EXPECT_EQ(station.daemon->exit_status(), signal_number);
  }
}

// From now on no UDP socket can be made by this thread, nor by what it starts.
void loses_udp_sockets() {
  sock_filter steps[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_socket, 0, 3),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[1])),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SOCK_DGRAM, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EMFILE),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  sock_fprog filter = {sizeof steps / sizeof steps[0], steps};
  prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
  ASSERT_EQ(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter), 0);
}

TEST_F(Main, WithoutASocketTheRuntimeAbortsTheProgram) {
  LEFT_OUT_UNDER_EMULATION("the filter is for the system calls of this machine");
  std::unique_ptr<Daemon> daemon;
  std::thread([&] {
    loses_udp_sockets();
    daemon = std::make_unique<Daemon>();
  }).join();
  EXPECT_EQ(daemon->exit_status(), -SIGABRT);
  EXPECT_EQ(daemon->output(), station::starting("127.0.0.1"));
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

TEST_F(Main, SignalBeforeTheServerExistsEndsTheProgramByItsNumber) {
  LEFT_OUT_UNDER_EMULATION("the process is seen as qemu");
  const Daemon running;
  ASSERT_TRUE(running.serves());
  const std::string program = "/proc/" + std::to_string(running.pid()) + "/exe";
  char path[PATH_MAX] = {};
  ASSERT_GT(readlink(program.c_str(), path, sizeof path - 1), 0);
  for (const int signal_number : {SIGINT, SIGTERM}) {
    const Stuck daemon(path);
    kill(daemon.pid(), signal_number);
    usleep(50000);
    EXPECT_EQ(daemon.output(), "\n");
    EXPECT_EQ(daemon.status(), signal_number);
  }
}

TEST_F(Main, NeedsOnlyTheLanguagesLibrariesAndThreads) {
  LEFT_OUT_UNDER_EMULATION("the process is seen as qemu");
  if (kSanitized) GTEST_SKIP() << "a sanitizer brings libraries of its own";
  const Daemon daemon;
  ASSERT_TRUE(daemon.serves());
  FILE* const ldd = popen(("ldd /proc/" + std::to_string(daemon.pid()) + "/exe").c_str(), "r");
  ASSERT_NE(ldd, nullptr);
  std::vector<std::string> others;
  char line[1024];
  int libraries = 0;
  while (std::fgets(line, sizeof line, ldd) != nullptr) {
    std::string name = line;
    name.erase(0, name.find_first_not_of("\t "));
    name.erase(name.find_first_of(" \n"));
    name.erase(0, name.rfind('/') + 1);
    name.erase(std::min(name.find(".so"), name.size()));
    ++libraries;
    bool allowed = false;
    for (const char* known : {"linux-vdso", "linux-vdso64", "linux-vdso32", "libstdc++", "libm", "libgcc_s",
                              "libc", "libpthread"}) {
      allowed = allowed || name == known;
    }
    if (!allowed && name.rfind("ld", 0) != 0) others.push_back(name);
  }
  EXPECT_EQ(pclose(ldd), 0);
  EXPECT_GE(libraries, 2);
  EXPECT_EQ(others, std::vector<std::string>());
}

}  // namespace
