#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <memory>
#include <string>

#include "support/sandbox.h"
#include "support/scratch_directory.h"
#include "support/test_network.h"
#include "zirn_run/recording.h"

// What the recorder takes of a station's links.
namespace {

using Strings = std::vector<std::string>;

constexpr std::uint16_t kTransferPort = 33133;
constexpr std::size_t kEthernetToUdp = 14 + 20 + 8;
constexpr std::size_t kCookedToUdp = 16 + 20 + 8;

class RecorderLinks : public testing::Test {
 protected:
  void SetUp() override {
    NEEDS_SANDBOX();
    network_ = std::make_unique<TestNetwork>();
    options_.links = {"lan0", "ppt0"};
    options_.station = Strings{"-o", TestNetwork::kStation};
    options_.output = "run.pcapng";
  }

  // One that ends nowhere.
  static void make_link(const std::string& name, const std::string& address) {
    ip("link add " + name + " type veth peer name far-" + name);
    ip("address add " + address + " dev " + name);
    ip("link set far-" + name + " up");
    ip("link set " + name + " up");
    usleep(200000);
  }

  const ScratchDirectory scratch_;
  std::unique_ptr<TestNetwork> network_;
  recorder::Options options_;
};

TEST_F(RecorderLinks, BothAreRecordedInTheOrderOfTime) {
  Recording recording(options_);
  ASSERT_TRUE(recording.works()) << whole_file("errors");
  const Sender to_unit(TestNetwork::kUnit, kTransferPort);
  const Sender to_ppt_server(TestNetwork::kPptServer, 12345);
  constexpr int kTimes = 50;
  for (int i = 0; i < kTimes; ++i) {
    to_unit.sends("at the unit " + std::to_string(i) + ".");
    to_ppt_server.sends("at the PPT server " + std::to_string(i) + ".");
    usleep(3000);
  }
  ASSERT_EQ(recording.stops(), 0) << whole_file("errors");
  const Recorded run = recorded("run.pcapng");
  EXPECT_EQ(run.problem, "");
  ASSERT_EQ(run.links.size(), 2U);
  EXPECT_EQ(run.links[0].name, "lan0");
  EXPECT_EQ(run.links[1].name, "ppt0");
  EXPECT_EQ(
      run.links[0].filter,
      "(udp or icmp or tcp port 12345) and (udp dst port 12345 or host 172.30.0.254 or host 172.40.0.1)");
  EXPECT_EQ(run.count("at the unit "), std::size_t{kTimes});
  EXPECT_EQ(run.count("at the PPT server "), std::size_t{kTimes});
  for (std::size_t i = 1; i < run.frames.size(); ++i) EXPECT_LE(run.frames[i - 1].at, run.frames[i].at) << i;
  ASSERT_EQ(run.statistics.size(), 2U);
  EXPECT_EQ(run.statistics[0].received, run.frames_of("lan0"));
  EXPECT_EQ(run.statistics[0].dropped, 0U);
  EXPECT_EQ(whole_file("errors"), "");
  EXPECT_FALSE(std::filesystem::exists("run.pcapng.part"));
  ASSERT_EQ(run.said<record::RunBegins>().size(), 1U);
  EXPECT_EQ(run.said<record::RunBegins>()[0].name, "run");
  EXPECT_EQ(run.said<record::RunBegins>()[0].command, "TFTP -o 172.40.0.1");
}

TEST_F(RecorderLinks, FileContentsAreCutInTheKernel) {
  Recording recording(options_);
  ASSERT_TRUE(recording.works()) << whole_file("errors");
  Sender(TestNetwork::kUnit, kTransferPort).sends(data_block(1000));
  Sender(TestNetwork::kUnit, kTransferPort).sends(data_block(4000));
  ASSERT_EQ(recording.stops(), 0);
  const Recorded run = recorded("run.pcapng");
  Strings sizes;
  for (const RecordedFrame& frame : run.frames) {
    if (frame.bytes.find("xxx") == std::string::npos || frame.bytes[23] != 17) continue;
    sizes.push_back(std::to_string(frame.bytes.size()) + "/" + std::to_string(frame.size));
  }
  const std::string first = std::to_string(kEthernetToUdp + 64);
  const std::string further = std::to_string(14 + 20 + 64);
  EXPECT_EQ(sizes, (Strings{first + "/1046", first + "/1514", further + "/1514", further + "/1086"}));
}

TEST_F(RecorderLinks, FileContentsAreCutOnAllLinksTogether) {
  options_.links = {"any"};
  Recording recording(options_);
  ASSERT_TRUE(recording.works()) << whole_file("errors");
  Sender(TestNetwork::kUnit, kTransferPort).sends(data_block(1000));
  ASSERT_EQ(recording.stops(), 0);
  const Recorded run = recorded("run.pcapng");
  ASSERT_FALSE(run.frames.empty());
  EXPECT_EQ(run.links.at(0).link_type, record::kLinuxCooked);
  EXPECT_EQ(run.frames[0].bytes.size(), kCookedToUdp + 64);
  EXPECT_EQ(run.frames[0].size, kCookedToUdp + 1004);
}

TEST_F(RecorderLinks, FileContentsAreKeptOnRequest) {
  options_.is_whole = true;
  Recording recording(options_);
  ASSERT_TRUE(recording.works()) << whole_file("errors");
  Sender(TestNetwork::kUnit, kTransferPort).sends(data_block(1000));
  ASSERT_EQ(recording.stops(), 0);
  const Recorded run = recorded("run.pcapng");
  ASSERT_FALSE(run.frames.empty());
  EXPECT_EQ(run.frames[0].bytes.size(), kEthernetToUdp + 1004);
}

TEST_F(RecorderLinks, OnlyTheStationsFramesAreTaken) {
  ip("address add 172.40.0.9/24 dev lan0");
  Recording recording(options_);
  ASSERT_TRUE(recording.works()) << whole_file("errors");
  network_->at_unit([] {
    Sender("172.40.0.9", kTransferPort).sends("to another address");
    Sender(TestNetwork::kStation, 69).sends("to the station");
  });
  ASSERT_EQ(recording.stops(), 0);
  const Recorded run = recorded("run.pcapng");
  EXPECT_EQ(run.count("to the station"), 1U);
  EXPECT_EQ(run.count("to another address"), 0U);
}

TEST_F(RecorderLinks, AFilterOfOnesOwnTakesItsPlace) {
  options_.filter = "udp port 7";
  Recording recording(options_);
  ASSERT_TRUE(recording.works()) << whole_file("errors");
  Sender(TestNetwork::kUnit, 7).sends("to port 7");
  Sender(TestNetwork::kUnit, 8).sends("to port 8");
  ASSERT_EQ(recording.stops(), 0);
  const Recorded run = recorded("run.pcapng");
  EXPECT_EQ(run.links.at(0).filter, "udp port 7");
  EXPECT_EQ(run.count("to port 7"), 1U);
  EXPECT_EQ(run.count("to port 8"), 0U);
}

TEST_F(RecorderLinks, AWrongFilterIsAWrongCall) {
  options_.filter = "udp or or";
  Recording recording(options_);
  EXPECT_EQ(recording.exit_status(), 2);
  EXPECT_EQ(whole_file("errors").rfind("zirn-run: the filter is wrong: ", 0), 0U) << whole_file("errors");
  EXPECT_FALSE(std::filesystem::exists("run.pcapng.part"));
}

TEST_F(RecorderLinks, ALinkThatIsNotThereIsNamedWithThoseThatAre) {
  options_.links = {"eth7"};
  Recording recording(options_);
  EXPECT_EQ(recording.exit_status(), 3);
  EXPECT_EQ(whole_file("errors"),
            "zirn-run: eth7: no such link; there are: lo lan0 ppt0\n"
            "zirn-run: expected a link that can be recorded\n");
  EXPECT_FALSE(std::filesystem::exists("run.pcapng.part"));
}

TEST_F(RecorderLinks, ALinkThatIsNotThereYetIsRecordedFromThenOn) {
  options_.links = {"lan0", "lan7"};
  options_.filter = "udp";
  Recording recording(options_);
  ASSERT_TRUE(recording.works()) << whole_file("errors");
  make_link("lan7", "10.7.0.1/24");
  ip("neighbor add 10.7.0.3 lladdr 02:00:00:00:00:03 dev lan7");
  Sender("10.7.0.3", 7).sends("on the new link");
  ASSERT_EQ(recording.stops(), 0);
  const Recorded run = recorded("run.pcapng");
  EXPECT_EQ(run.gaps(), (Strings{"frames are missing: lan7: no such link",
                                 "frames are no longer missing: lan7 is back"}));
  ASSERT_EQ(run.count("on the new link"), 1U);
  EXPECT_EQ(run.frames.back().link, "lan7");
}

TEST_F(RecorderLinks, ALinkThatGoesAndComesBackIsRecordedAgain) {
  Recording recording(options_);
  ASSERT_TRUE(recording.works()) << whole_file("errors");
  Sender(TestNetwork::kUnit, kTransferPort).sends("before");
  ip("link delete lan0");
  usleep(200000);
  make_link("lan0", "172.40.0.1/24");
  ip("neighbor add 172.40.0.3 lladdr 02:00:00:00:00:03 dev lan0");
  Sender("172.40.0.3", kTransferPort).sends("after");
  ASSERT_EQ(recording.stops(), 0);
  const Recorded run = recorded("run.pcapng");
  EXPECT_EQ(run.gaps(), (Strings{"frames are missing from here on: lan0 is gone or down",
                                 "frames are no longer missing: lan0 is back"}));
  EXPECT_EQ(run.count("before"), 1U);
  EXPECT_EQ(run.count("after"), 1U);
  EXPECT_EQ(run.links.size(), 2U);
  EXPECT_EQ(run.statistics.at(0).received, run.frames_of("lan0"));
}

TEST_F(RecorderLinks, ALinkThatIsDownForAWhileIsRecordedAgain) {
  Recording recording(options_);
  ASSERT_TRUE(recording.works()) << whole_file("errors");
  ip("link set lan0 down");
  usleep(200000);
  ip("link set lan0 up");
  usleep(200000);
  network_->at_unit([] { Sender(TestNetwork::kStation, 69).sends("after"); });
  EXPECT_TRUE(wait_until([] { return recorded("run.pcapng.part").count("after") > 0; }));
  ASSERT_EQ(recording.stops(), 0);
  EXPECT_EQ(recorded("run.pcapng").gaps().size(), 2U);
}

TEST_F(RecorderLinks, WhatTheKernelDropsIsInTheRecordAndSaid) {
  Recording recording(options_);
  ASSERT_TRUE(recording.works()) << whole_file("errors");
  recording.gets_signal(SIGSTOP);
  const Sender sender(TestNetwork::kPptServer, 12345);
  constexpr std::uint64_t kFrames = 4000;  // more than a ring holds
  for (std::uint64_t i = 0; i < kFrames; ++i) sender.sends(std::string(1000, 'y'));
  recording.gets_signal(SIGCONT);
  ASSERT_EQ(recording.stops(), 0);
  const Recorded run = recorded("run.pcapng");
  ASSERT_GE(run.statistics.size(), 2U);
  const std::uint64_t dropped = run.statistics.back().dropped.value_or(0);
  EXPECT_GT(dropped, 0U);
  EXPECT_GE(run.statistics.back().received, kFrames);
  EXPECT_EQ(run.frames_of("ppt0") + dropped, run.statistics.back().received);
  EXPECT_EQ(whole_file("errors"),
            "zirn-run: ppt0: the kernel dropped " + std::to_string(dropped) + " frames\n");
}

TEST_F(RecorderLinks, WhatTheKernelDropsIsInTheRecordAsItComes) {
  Recording recording(options_);
  ASSERT_TRUE(recording.works()) << whole_file("errors");
  recording.gets_signal(SIGSTOP);
  const Sender sender(TestNetwork::kPptServer, 12345);
  for (int i = 0; i < 4000; ++i) sender.sends(std::string(1000, 'y'));
  recording.gets_signal(SIGCONT);
  EXPECT_TRUE(wait_until([] {
    const Recorded run = recorded("run.pcapng.part");
    return run.statistics.size() == 1 && run.statistics[0].dropped.value_or(0) > 0;
  }));
  EXPECT_EQ(recording.stops(), 0);
}

TEST_F(RecorderLinks, TheRightThatIsMissingIsNamed) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  options_.output = "-";
  Process process(
      [this] {
        if (setresuid(65534, 65534, 65534) != 0) return 99;
        return recorder::record(options_);
      },
      [] { append_errors_to("errors"); });
  EXPECT_EQ(status_number(process.wait_for_end()), 3);
  EXPECT_EQ(whole_file("errors"),
            "zirn-run: lan0: the right CAP_NET_RAW is missing: be root, or give it to the program for good: "
            "setcap cap_net_raw+ep /usr/bin/zirn-run\n");
}

TEST_F(RecorderLinks, WhatContradictsItselfIsAWrongCall) {
  const auto refuses = [](const recorder::Options& options) { return Recording(options).exit_status() == 2; };
  recorder::Options options = options_;
  options.links.clear();
  EXPECT_TRUE(refuses(options));
  options = options_;
  options.unit = "zirn-test-station";
  options.log = "log";
  EXPECT_TRUE(refuses(options));
  options = options_;
  options.pid = 1;
  EXPECT_TRUE(refuses(options));
  options = options_;
  options.output.clear();
  EXPECT_TRUE(refuses(options));
  options.is_service = true;
  options.output = "run.pcapng";
  EXPECT_TRUE(refuses(options));
}

}  // namespace
