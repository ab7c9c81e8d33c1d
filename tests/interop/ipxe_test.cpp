#include "support/ipxe.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>

#include "support/station.h"
#include "support/unit_machine.h"

namespace {

using station::InNetwork;

// In the place of the unit.
class IpxeAtTheUnit : public testing::Test {
 protected:
  void SetUp() override {
    NEEDS_IPXE();
    NEEDS_SANDBOX();
    station_.emplace();
  }

  void plugs_in() {
    plug_in_unit_machine(station_->network);
    station_->network.at_unit(
        [&] { machine_ = std::make_unique<Ipxe>(kUnitMachineTap, TestNetwork::kUnit); });
  }

  std::optional<InNetwork> station_;
  std::unique_ptr<Ipxe> machine_;
};

TEST_F(IpxeAtTheUnit, AsksForABlockSizeAndTheFilesSize) {
  plugs_in();
  UdpPeer server(TestNetwork::kStation, station::kTftpPort);
  machine_->types("imgfetch tftp://172.40.0.1/boot.img");
  server.expects(tftp::rrq("boot.img", {{"blksize", "1432"}, {"tsize", "0"}}));
}

TEST_F(IpxeAtTheUnit, ReadsAScriptOfManyBlocksAndRunsItsLastLine) {
  station_->boots();
  plugs_in();
  std::string script = "#!ipxe\n";
  while (script.size() < 100000) script += "# nothing but " + std::to_string(script.size()) + "\n";
  write_whole_file("script", script + "echo the last line\n");
  EXPECT_EQ(machine_->reads("chain", "script"), "tftp://172.40.0.1/script... ok\nthe last line\n");
}

TEST_F(IpxeAtTheUnit, ReadsFilesOfAnyLengthAndVerdicts) {
  station_->boots();
  plugs_in();
  constexpr std::size_t kOneBlock = 1432;
  for (const std::size_t size : {std::size_t{0}, kOneBlock, std::size_t{1} << 20}) {
    const std::string name = std::to_string(size);
    // Whatever would fit into a PC's first memory, it takes for something to start.
    const std::string kind = size == kOneBlock ? " [PXE-NBP]" : "";
    write_whole_file(name, noise(size));
    EXPECT_EQ(machine_->reads("imgfetch", name), "tftp://172.40.0.1/" + name + "... ok\n");
    EXPECT_EQ(machine_->runs("imgstat"), name + " : " + std::to_string(size) + " bytes" + kind + "\n");
    machine_->runs("imgfree");
  }
  EXPECT_EQ(machine_->reads("imgfetch", "F_l_m_02PPT_PASSED"),
            "tftp://172.40.0.1/F_l_m_02PPT_PASSED... ok\n");
  EXPECT_EQ(station_->daemon->exit_status(), 2);
}

}  // namespace
