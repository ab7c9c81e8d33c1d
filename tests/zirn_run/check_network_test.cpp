// The points about links, addresses, and the way to the PPT server.
#include <sys/mount.h>

#include <fstream>

#include "stage/wait_until.h"
#include "zirn_run/checked_station.h"

namespace {

class CheckNetwork : public CheckedStation {
 protected:
  static constexpr char kGiveAddress[] =
      "address add 172.40.0.1/24 broadcast 172.40.0.255 label lan0:0 dev lan0";
};

TEST_F(CheckNetwork, FindsAStationReady) {
  expect_ready();
}

TEST_F(CheckNetwork, FindsThatThereIsNoLink) {
  ip("link set lan0 down");
  ip("link set lan0 name eth7");
  ip("address flush dev eth7");
  expect_wrong({"link"}, {"link up", "carrier", "label", "address", "broadcast address", "served address",
                          "boot script port"});
  EXPECT_EQ(text("link"), "there is no lan0");
  ip("link set eth7 name lan0");
  ip("link set lan0 up");
  ip(kGiveAddress);
  EXPECT_EQ(points_that_are(check::State::kWrong), Words());
}

TEST_F(CheckNetwork, FindsTheLinkDown) {
  ip("link set lan0 down");
  expect_wrong({"link up"}, {"carrier"});
  ip("link set lan0 up");
  EXPECT_EQ(found("link up").state, check::State::kOk);
}

TEST_F(CheckNetwork, FindsNoCarrier) {
  network->at_unit([] { ip("link set lan0 down"); });
  EXPECT_TRUE(wait_until([this] { return found("carrier").state == check::State::kWrong; }));
  expect_wrong({"carrier"});
  network->at_unit([] { ip("link set lan0 up"); });
  EXPECT_TRUE(wait_until([this] { return found("carrier").state == check::State::kOk; }));
}

TEST_F(CheckNetwork, FindsNoLabel) {
  ip("address del 172.40.0.1/24 dev lan0");
  ip("address add 172.40.0.1/24 broadcast 172.40.0.255 dev lan0");
  expect_wrong({"label"}, {"broadcast address", "boot script port"});
  EXPECT_EQ(text("label"), "nothing has the label lan0:0; 172.40.0.1 is on lan0");
  ip("address del 172.40.0.1/24 dev lan0");
  ip(kGiveAddress);
  expect_ready();
}

TEST_F(CheckNetwork, FindsNoAddress) {
  ip("address del 172.40.0.1/24 dev lan0");
  EXPECT_EQ(found("address").state, check::State::kWrong);
  EXPECT_EQ(text("label"), "nothing has the label lan0:0");
  ip("address add 172.40.0.9/24 broadcast 172.40.0.255 label lan0:0 dev lan0");
  expect_wrong({"address"}, {"served address"});
  EXPECT_EQ(text("address"), "the board has no address 172.40.0.1");
  ip("address add 172.40.0.1/24 dev lan0");
  expect_ready();
}

TEST_F(CheckNetwork, FindsNoBroadcastAddress) {
  ip("address del 172.40.0.1/24 dev lan0");
  ip("address add 172.40.0.1/24 label lan0:0 dev lan0");
  expect_wrong({"broadcast address"}, {"boot script port"});
  EXPECT_EQ(text("broadcast address"), "lan0:0 has no broadcast address");
}

TEST_F(CheckNetwork, FindsAnotherNetworksBroadcastAddress) {
  ip("address del 172.40.0.1/24 dev lan0");
  ip("address add 172.40.0.1/24 broadcast 172.40.255.255 label lan0:0 dev lan0");
  expect_wrong({"broadcast address"});
  EXPECT_EQ(text("broadcast address"), "lan0:0 has 172.40.255.255, expected 172.40.0.255");
  ip("address del 172.40.0.1/24 dev lan0");
  ip(kGiveAddress);
  expect_ready();
}

TEST_F(CheckNetwork, FindsNoUdpAmongTheProtocols) {
  write_whole_file("protocols", "tcp 6 TCP\n");
  ASSERT_EQ(mount("protocols", "/etc/protocols", nullptr, MS_BIND, nullptr), 0);
  expect_wrong({"protocols"});
  ASSERT_EQ(umount2("/etc/protocols", MNT_DETACH), 0);
  expect_ready();
}

TEST_F(CheckNetwork, FindsAnAddressThatUnitsDoNotReach) {
  setup.station.address = "127.0.0.1";
  expect_wrong({"served address"});
  EXPECT_EQ(text("served address"), "it serves on 127.0.0.1");
  setup.station.address = "";
  expect_ready();
}

TEST_F(CheckNetwork, FindsNoRouteToThePptServer) {
  setup.station.ppt_server = "172.31.0.254";
  expect_wrong({"route"}, {"PPT server"});
  EXPECT_EQ(text("route"), "no route to 172.31.0.254");
  setup.station.ppt_server = "ppt";
  expect_wrong({"route"}, {"PPT server"});
  EXPECT_EQ(text("route"), "-s: expected an address, found \"ppt\"");
}

TEST_F(CheckNetwork, FindsThatNobodyIsThePptServer) {
  setup.station.ppt_server = "172.30.0.77";
  expect_wrong({"PPT server"});
  EXPECT_EQ(text("PPT server"), "nobody answers for 172.30.0.77");
}

TEST_F(CheckNetwork, KnowsByArpOfAPptServerThatAnswersNoEcho) {
  network->at_ppt_server([] { std::ofstream("/proc/sys/net/ipv4/icmp_echo_ignore_all") << 1; });
  expect_ready();
  EXPECT_EQ(text("PPT server"),
            "172.30.0.254 is there by ARP, though it answers no echo; its ports are not tried");
}

TEST_F(CheckNetwork, DoesNotKnowOfASilentPptServerBehindARouter) {
  ip("route add 172.31.0.0/24 via 172.30.0.254");
  setup.station.ppt_server = "172.31.0.254";
  expect_wrong({}, {"PPT server"});
}

}  // namespace
