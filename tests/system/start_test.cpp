#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "support/emulated.h"
#include "support/sanitized.h"
#include "support/station.h"

// The command line, what the program says at its start, and the status of a start that fails.

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

class Start : public testing::Test {
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

TEST_F(Start, WithoutArgumentsListensOnLoopbackPort69) {
  starts({}, "Starting TFTP server on 127.0.0.1:69 PPT Server: 172.30.0.254\n");
  serves_on({}, "127.0.0.1", 69);
}

TEST_F(Start, OptionsTakeTheNextArgument) {
  starts({"-n", "70", "-s", "10.0.0.1"}, "Starting TFTP server on 127.0.0.1:70 PPT Server: 10.0.0.1\n");
  starts({"--port", "70", "--serverip", "10.0.0.1", "--ipaddr", "127.0.0.9", "--serverport", "71",
          "--msgport", "4000"},
         "Starting TFTP server on 127.0.0.9:70 PPT Server: 10.0.0.1\n");
}

TEST_F(Start, OptionsTakeTheRestOfTheirArgument) {
  starts({"-n70", "-s=10.0.0.1", "-o 127.0.0.9"}, station::starting("127.0.0.9", 70, "10.0.0.1"));
  starts({"--port=70", "--serverip=10.0.0.1", "--ipaddr=127.0.0.9"},
         station::starting("127.0.0.9", 70, "10.0.0.1"));
  starts_on_port({"-n = 70"}, 70);
}

TEST_F(Start, LastValueOfAnOptionCounts) {
  starts_on_port({"-n", "70", "--port=71", "-n", "72"}, 72);
}

TEST_F(Start, ListensWhereItSaysSo) {
  serves_on({"-n", "1069", "-o", "127.0.0.9"}, "127.0.0.9", 1069);
}

TEST_F(Start, FlagAndOptionShareAnArgument) {
  starts({"-hn", "70"}, kUsage + station::starting("127.0.0.1", 70));
  starts({"-hn70"}, kUsage + station::starting("127.0.0.1", 70));
}

TEST_F(Start, HelpPrintsTheUsageAndStartsAllTheSame) {
  starts({"-h"}, kUsage + station::starting("127.0.0.1"));
  starts({"-n", "70", "-h"}, kUsage + station::starting("127.0.0.1", 70));
}

TEST_F(Start, HelpGivenTwicePrintsTheUsageOnce) {
  starts({"-h", "-h"}, kUsage + station::starting("127.0.0.1"));
}

TEST_F(Start, HelpHasNoLongForm) {
  starts_on_port({"--help", "--h"}, 69);
}

TEST_F(Start, EmptyPptServerEndsWithTheUsageAndStatus1) {
  ends_at_once({"-s", ""}, 1, kUsage);
  ends_at_once({"--serverip", ""}, 1, kUsage);
  ends_at_once({"--serverip="}, 1, kUsage);
  ends_at_once({"-s="}, 1, kUsage);
}

TEST_F(Start, EmptyPptServerWithHelpPrintsTheUsageOnce) {
  ends_at_once({"-h", "-s", ""}, 1, kUsage);
  ends_at_once({"-s", "", "-h"}, 1, kUsage);
}

TEST_F(Start, OptionWithoutValueKeepsItsDefault) {
  for (const std::string last : {"-n", "-o", "-p", "-s", "-m", "--port", "--ipaddr", "--serverip"}) {
    starts_on_port({last}, 69);
  }
}

TEST_F(Start, TextForAPortIsZero) {
  starts({"-n", "abc"}, "Starting TFTP server on 127.0.0.1:0 PPT Server: 172.30.0.254\n");
  starts_on_port({"-n", ""}, 0);
  starts_on_port({"--port="}, 0);
}

TEST_F(Start, NumberEndsWithItsLastDecimalDigit) {
  starts_on_port({"-n", "70abc"}, 70);
  starts_on_port({"-n", "0x45"}, 0);
  starts_on_port({"-n", "070"}, 70);
  starts_on_port({"-n", " +70"}, 70);
  starts_on_port({"-n", "70.9"}, 70);
}

TEST_F(Start, PortIsPrintedWholeAndUsedByItsLow16Bits) {
  starts_on_port({"-n", "70000"}, 70000);
  serves_on({"-n", "70000"}, "127.0.0.1", 70000 - 65536);
  starts_on_port({"-n", "-65467"}, -65467);
  serves_on({"-n", "-65467"}, "127.0.0.1", 69);
}

TEST_F(Start, PortBeyond32BitsIsTheSameOnEveryBoard) {
  starts_on_port({"-n", "4294967366"}, 70);
  starts_on_port({"-n", "-4294967226"}, 70);
  starts_on_port({"-n", "2147483648"}, -2147483647 - 1);
  starts_on_port({"-n", "9223372036854775808"}, -1);
  serves_on({"-n", "4294967366"}, "127.0.0.1", 70);
}

TEST_F(Start, ValueMayBeginLikeAnOption) {
  starts({"-s", "-h"}, station::starting("127.0.0.1", 69, "-h"));
}

TEST_F(Start, AddressesAreTakenAsTheyCome) {
  starts({"-s", "ppt server"}, "Starting TFTP server on 127.0.0.1:69 PPT Server: ppt server\n");
  starts({"-o", "127.9"}, "Starting TFTP server on 127.9:69 PPT Server: 172.30.0.254\n");
}

TEST_F(Start, EmptyAddressListensEverywhere) {
  starts({"-o", ""}, "Starting TFTP server on :69 PPT Server: 172.30.0.254\n");
  serves_on({"-o", ""}, "127.0.0.1", 69);
  serves_on({"--ipaddr="}, "172.40.0.1", 69);
}

TEST_F(Start, UnknownOptionsAndStrayArgumentsAreIgnoredWithoutAWord) {
  starts_on_port({"-x", "word", "--unknown", "--unknown=1", "-", "--", "", "-n", "70", "last"}, 70);
}

TEST_F(Start, UnknownLettersBeforeAKnownOneAreSkipped) {
  starts_on_port({"-xyn", "70"}, 70);
}

TEST_F(Start, AddressOfAnotherMachineEndsWithStatus1) {
  ends_at_once({"-o", "10.1.2.3", "-n", "70"}, 1,
               station::starting("10.1.2.3", 70) +
                   "Socket Bind exception: Cannot assign requested address\n"
                   "Message Server was shut down\n"
                   "TFTP Server was shut down\n");
}

TEST_F(Start, NeedsOnlyTheLanguagesLibrariesAndThreads) {
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
