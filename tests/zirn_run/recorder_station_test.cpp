#include <gtest/gtest.h>

#include <set>

#include "recorder/station.h"
#include "support/sandbox.h"
#include "support/test_network.h"

namespace {

using recorder::expression_for;
using recorder::ports_without_files;
using station::station_of;
using station::Words;

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

}  // namespace
