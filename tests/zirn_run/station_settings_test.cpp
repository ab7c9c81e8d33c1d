#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "station/child.h"
#include "station/settings.h"
#include "support/scratch_directory.h"

namespace {

using station::Service;
using station::service_of;
using station::Station;
using station::station_of;
using station::Words;

std::string text(const Station& station) {
  return station.address + " " + std::to_string(station.port) + " " + station.ppt_server + " " +
         std::to_string(station.ppt_port) + " " + std::to_string(station.message_port);
}

TEST(StationSettings, HasTheDefaultsOfTheProgram) {
  EXPECT_EQ(text(station_of({})), "127.0.0.1 69 172.30.0.254 69 12345");
}

TEST(StationSettings, TakesNoMoreOfAProgramThatPrintsWithoutEnd) {
  const std::string output = station::output_of({"yes"}, std::chrono::seconds(30));
  EXPECT_GE(output.size(), std::size_t{1} << 20);
  EXPECT_LT(output.size(), std::size_t{2} << 20);
}

TEST(StationSettings, ReadsOptionsInEveryForm) {
  EXPECT_EQ(text(station_of({"-o", "10.0.0.1", "-n70", "-s=10.0.0.2", "--serverport", "71", "--msgport=72"})),
            "10.0.0.1 70 10.0.0.2 71 72");
  EXPECT_EQ(
      text(station_of({"--ipaddr", "10.0.0.1", "--port=70", "--serverip=10.0.0.2", "-p", "71", "-m", "72"})),
      "10.0.0.1 70 10.0.0.2 71 72");
}

TEST(StationSettings, PassesOtherWordsOver) {
  EXPECT_EQ(text(station_of({"-h", "-o", "10.0.0.1", "boot", "-", "--", "-n"})),
            "10.0.0.1 69 172.30.0.254 69 12345");
}

class StationUnit : public testing::Test {
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

TEST_F(StationUnit, HasItsOptionsInAFileOfVariables) {
  std::ofstream("default") << "# TFTP_OPTIONS=\"-n 1\"\nTFTP_OPTIONS=\"-o 10.0.0.1 -m 72\"\nPATH=/bin\n";
  systemd_says(
      "ExecStart={ path=/usr/sbin/TFTP ; argv[]=/usr/sbin/TFTP $TFTP_OPTIONS -n ${PORT} ; ignore_errors=no ; "
      "}\n"
      "EnvironmentFiles=" +
      scratch_.file("default") + " (ignore_errors=no)\n");
  const Service service = service_of("zirn-test-station");
  EXPECT_EQ(service.options, (Words{"-o", "10.0.0.1", "-m", "72", "-n", "${PORT}"}));
  EXPECT_EQ(service.path, "/bin");
  EXPECT_EQ(whole_file("asked").find("show --property=LoadState,ExecStart,EnvironmentFiles,"), 0U);
  EXPECT_NE(whole_file("asked").find(" -- zirn-test-station\n"), std::string::npos);
}

TEST_F(StationUnit, HasFolderStateProcessAndRights) {
  systemd_says(
      "LoadState=loaded\nWorkingDirectory=/srv/units\nActiveState=active\nMainPID=42\nUser=\nDynamicUser=no\n"
      "CapabilityBoundingSet=cap_chown cap_net_raw\nAmbientCapabilities=\n");
  const Service service = service_of("zirn-test-station");
  EXPECT_TRUE(service.is_known);
  EXPECT_EQ(service.folder, "/srv/units");
  EXPECT_EQ(service.state, "active");
  EXPECT_EQ(service.process, 42);
  EXPECT_EQ(service.rights, " cap_chown cap_net_raw ");
}

TEST_F(StationUnit, HasTheRightsGivenToItWhereItIsNotRoot) {
  systemd_says(
      "LoadState=loaded\nActiveState=inactive\nUser=\nDynamicUser=yes\n"
      "CapabilityBoundingSet=cap_chown cap_net_raw\nAmbientCapabilities=cap_net_bind_service\n");
  EXPECT_EQ(service_of("zirn-test-station").rights, " cap_net_bind_service ");
  EXPECT_EQ(service_of("zirn-test-station").state, "");
}

TEST_F(StationUnit, IsNotKnownWhereSystemdDoesNotKnowIt) {
  for (const char* said : {"", "LoadState=not-found\nActiveState=inactive\nMainPID=0\n"}) {
    systemd_says(said);
    EXPECT_FALSE(service_of("zirn-test-station").is_known);
    EXPECT_EQ(service_of("zirn-test-station").options, Words());
    EXPECT_EQ(service_of("zirn-test-station").state, "");
  }
  setenv("PATH", "/nowhere", 1);
  EXPECT_FALSE(service_of("zirn-test-station").is_known);
}

}  // namespace
