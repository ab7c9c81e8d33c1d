#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "recorder/station.h"
#include "support/sandbox.h"
#include "support/scratch_directory.h"
#include "support/test_network.h"

namespace {

using recorder::expression_for;
using recorder::ports_without_files;
using recorder::Station;
using recorder::station_of;
using recorder::Words;

std::string text(const Station& station) {
  return station.address + " " + std::to_string(station.port) + " " + station.ppt_server + " " +
         std::to_string(station.ppt_port) + " " + std::to_string(station.message_port);
}

TEST(RecorderStation, HasTheDefaultsOfTheProgram) {
  EXPECT_EQ(text(station_of({})), "127.0.0.1 69 172.30.0.254 69 12345");
}

TEST(RecorderStation, ReadsOptionsInEveryForm) {
  EXPECT_EQ(text(station_of({"-o", "10.0.0.1", "-n70", "-s=10.0.0.2", "--serverport", "71", "--msgport=72"})),
            "10.0.0.1 70 10.0.0.2 71 72");
  EXPECT_EQ(
      text(station_of({"--ipaddr", "10.0.0.1", "--port=70", "--serverip=10.0.0.2", "-p", "71", "-m", "72"})),
      "10.0.0.1 70 10.0.0.2 71 72");
}

TEST(RecorderStation, PassesOtherWordsOver) {
  EXPECT_EQ(text(station_of({"-h", "-o", "10.0.0.1", "boot", "-", "--", "-n"})),
            "10.0.0.1 69 172.30.0.254 69 12345");
}

TEST(RecorderStation, TakesTheFramesOfItsAddresses) {
  EXPECT_EQ(expression_for(station_of({"-o", "10.0.0.1", "-s", "10.0.0.2", "-m", "72"}), {"10.0.0.3"}),
            "(udp or icmp or tcp port 72) and (udp dst port 72 or host 10.0.0.1 or host 10.0.0.2 or host "
            "172.40.0.1)");
}

TEST(RecorderStation, ServesAtAllItsAddressesWhereNoneIsNamed) {
  EXPECT_EQ(expression_for(station_of({"-o", "", "-s", "10.0.0.2"}), {"10.0.0.3"}),
            "(udp or icmp or tcp port 12345) and (udp dst port 12345 or host 10.0.0.2 or host 10.0.0.3 or "
            "host 172.40.0.1)");
}

TEST(RecorderStation, LeavesOutWhatIsNoAddress) {
  EXPECT_EQ(expression_for(station_of({"-o", "10.0.0.1", "-s", "ppt or port 22"}), {}),
            "(udp or icmp or tcp port 12345) and (udp dst port 12345 or host 10.0.0.1 or host 172.40.0.1)");
}

TEST(RecorderStation, KnowsThePortsWithoutFiles) {
  EXPECT_EQ(ports_without_files(station_of({"-n", "70", "-m", "72"})),
            (std::set<std::uint16_t>{69, 70, 72, 12345}));
}

TEST(RecorderStation, FindsTheAddressesOfItsLinks) {
  NEEDS_SANDBOX();
  const TestNetwork network;
  EXPECT_EQ(recorder::addresses_of({"lan0", "none"}), Words{"172.40.0.1"});
  EXPECT_EQ(recorder::addresses_of({"lan0", "ppt0"}), (Words{"172.40.0.1", "172.30.0.1"}));
  EXPECT_EQ(recorder::addresses_of({"any"}), (Words{"127.0.0.1", "172.40.0.1", "172.30.0.1"}));
}

class RecorderUnit : public testing::Test {
 protected:
  // What systemd says of a unit.
  void systemd_says(const std::string& said) {
    std::ofstream("said") << said;
    std::ofstream("systemctl") << "#!/bin/sh\necho \"$@\" > asked\ncat said\n";
    chmod("systemctl", 0755);
    setenv("PATH", (scratch_.path() + ":/usr/bin:/bin").c_str(), 1);
  }
  const ScratchDirectory scratch_;
};

TEST_F(RecorderUnit, HasItsOptionsInAFileOfVariables) {
  std::ofstream("default") << "# TFTP_OPTIONS=\"-n 1\"\nTFTP_OPTIONS=\"-o 10.0.0.1 -m 72\"\nPATH=/bin\n";
  systemd_says(
      "ExecStart={ path=/usr/sbin/TFTP ; argv[]=/usr/sbin/TFTP $TFTP_OPTIONS -n ${PORT} ; ignore_errors=no ; "
      "}\n"
      "EnvironmentFiles=" +
      scratch_.file("default") + " (ignore_errors=no)\n");
  EXPECT_EQ(recorder::options_of_unit("zirn-test-station"),
            (Words{"-o", "10.0.0.1", "-m", "72", "-n", "${PORT}"}));
  EXPECT_EQ(whole_file("asked"), "show --property=ExecStart,EnvironmentFiles -- zirn-test-station\n");
}

TEST_F(RecorderUnit, HasNoneWhereSystemdDoesNotKnowIt) {
  systemd_says("");
  EXPECT_EQ(recorder::options_of_unit("zirn-test-station"), Words());
  setenv("PATH", "/nowhere", 1);
  EXPECT_EQ(recorder::options_of_unit("zirn-test-station"), Words());
}

}  // namespace
