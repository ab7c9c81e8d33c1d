#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/program.h"
#include "support/serial_console.h"
#include "support/station.h"
#include "support/unit_machine.h"

namespace {

using station::InNetwork;

constexpr char kEmulator[] = "qemu-system-x86_64";
constexpr char kFirmware[] = "/usr/lib/ipxe/qemu/efi-virtio.rom";

// A read that takes a while shows how far it is, and wipes that out again by going back.
std::string as_it_stands_at_last(const std::string& printed) {
  std::string line;
  for (const char character : printed) {
    if (character != '\b') {
      line += character;
    } else if (!line.empty()) {
      line.pop_back();
    }
  }
  return line;
}

// iPXE, the boot loader in the network card of an emulated PC, in the place of the unit.
class IpxeAtTheUnit : public testing::Test {
 protected:
  void SetUp() override {
    NEEDS_PROGRAM(kEmulator, "qemu-system-x86");
    if (access(kFirmware, R_OK) != 0) GTEST_SKIP() << "needs " << kFirmware << " (package ipxe-qemu)";
    if (!SerialConsole::refusal().empty()) GTEST_SKIP() << SerialConsole::refusal();
    NEEDS_SANDBOX();
    station_.emplace();
  }

  void plugs_in() {
    plug_in_unit_machine(station_->network);
    std::vector<std::string> words = {kEmulator,  "-m",   "256M",    "-nographic",
                                      "-monitor", "none", "-serial", "stdio"};
    for (const std::string& word : SerialConsole::network_card(kUnitMachineTap)) words.push_back(word);
    words.back() += ",bootindex=1";
    station_->network.at_unit([&] { machine_ = std::make_unique<SerialConsole>(words, "iPXE> "); });
    machine_->starts("Press Ctrl-B for the iPXE command line", "\x02");
    for (const char* command : {"ifopen net0", "set net0/ip 172.40.0.2", "set net0/netmask 255.255.255.0"}) {
      machine_->runs(command);
    }
  }

  std::string reads(const std::string& command, const std::string& name) {
    return as_it_stands_at_last(machine_->runs(command + " tftp://172.40.0.1/" + name));
  }

  std::optional<InNetwork> station_;
  std::unique_ptr<SerialConsole> machine_;
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
  EXPECT_EQ(reads("chain", "script"), "tftp://172.40.0.1/script... ok\nthe last line\n");
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
    EXPECT_EQ(reads("imgfetch", name), "tftp://172.40.0.1/" + name + "... ok\n");
    EXPECT_EQ(machine_->runs("imgstat"), name + " : " + std::to_string(size) + " bytes" + kind + "\n");
    machine_->runs("imgfree");
  }
  EXPECT_EQ(reads("imgfetch", "F_l_m_02PPT_PASSED"), "tftp://172.40.0.1/F_l_m_02PPT_PASSED... ok\n");
  EXPECT_EQ(station_->daemon->exit_status(), 2);
}

}  // namespace
