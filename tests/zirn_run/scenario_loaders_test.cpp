// Runs of real loaders, tested and recorded as a station does, play again on the bench: the same things happen in both.
#include <poll.h>

#include <atomic>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "ppt_server/ppt_server.h"
#include "support/ipxe.h"
#include "support/lossy_wire.h"
#include "support/outcome.h"
#include "support/sanitized.h"
#include "support/tftp_client_program.h"
#include "support/u_boot.h"
#include "support/unit_machine.h"
#include "zirn_run/tested_unit.h"

namespace {

using std::chrono::seconds;

constexpr seconds kReadPatience(120);
constexpr seconds kPlayPatience(180);
constexpr int kLossPercent = 5;

// Serves until it is destroyed: answers every request with an empty file, or none.
class ServingPptServer {
 public:
  explicit ServingPptServer(const TestNetwork& network, bool is_silent = false) {
    network.at_ppt_server([this] { place_.reset(new NetworkNamespace(NetworkNamespace::current())); });
    server_ = std::make_unique<PptServer>(*place_, 69, PptServer::kRelayPort);
    if (is_silent) server_->keep_silent();
    thread_ = std::thread([this] {
      while (!stopped_) serves();
    });
  }
  ~ServingPptServer() {
    stopped_ = true;
    thread_.join();
  }
  ServingPptServer(const ServingPptServer&) = delete;
  ServingPptServer& operator=(const ServingPptServer&) = delete;

 private:
  void serves() {
    std::vector<pollfd> watched;
    server_->add_descriptors(&watched);
    poll(watched.data(), watched.size(), 20);
    server_->serve();
  }

  std::unique_ptr<NetworkNamespace> place_;
  std::unique_ptr<PptServer> server_;
  std::atomic<bool> stopped_{false};
  std::thread thread_;
};

// At the unit's place, ready: it reads the file of that name from the station. False: it could not.
using Reads = std::function<bool(const std::string& name)>;

struct Loader {
  const char* title;
  std::function<std::string()> refusal;  // why it cannot be here; empty: it can
  std::function<Reads(const TestNetwork&)> made;
};
void PrintTo(const Loader& loader, std::ostream* stream) {
  *stream << loader.title;
}

Loader u_boot() {
  return {"UBoot", &UBoot::refusal, [](const TestNetwork& network) -> Reads {
            plug_in_unit_machine(network);
            std::shared_ptr<UBoot> board;
            network.at_unit([&] {
              board = std::make_shared<UBoot>(kUnitMachineTap, TestNetwork::kUnit, TestNetwork::kStation);
            });
            return [board](const std::string& name) {
              board->runs("tftp 46000000 " + name, kReadPatience);
              return board->succeeded();
            };
          }};
}

Loader ipxe() {
  return {"Ipxe", &Ipxe::refusal, [](const TestNetwork& network) -> Reads {
            plug_in_unit_machine(network);
            std::shared_ptr<Ipxe> machine;
            network.at_unit([&] { machine = std::make_shared<Ipxe>(kUnitMachineTap, TestNetwork::kUnit); });
            return [machine](const std::string& name) {
              return machine->reads("imgfetch", name) == "tftp://172.40.0.1/" + name + "... ok\n";
            };
          }};
}

Loader client(const TftpClientProgram& program) {
  return {program.title,
          [program] {
            const bool is_there = Program::exists(program.words.front());
            return is_there ? "" : "needs " + program.words.front() + " (package " + program.package + ")";
          },
          [program](const TestNetwork& network) -> Reads {
            return [program, &network](const std::string& name) {
              std::unique_ptr<Program> reader;
              network.at_unit([&] {
                reader =
                    std::make_unique<Program>(program.reads(TestNetwork::kStation, name, "local-" + name));
              });
              return reader->exit_status(kReadPatience) == 0 &&
                     (name.find("F_l_m_") == 0 || whole_file("local-" + name) == whole_file(name));
            };
          }};
}

class RecordedRun : public TestedUnit {
 protected:
  void expect_happens_again() const {
    Program check({ZIRN_RUN_PROGRAM, "scenario", "--check", "run.pcapng"});
    EXPECT_EQ(check.exit_status(kPlayPatience), 0)
        << check.output() << calls({"scenario", "run.pcapng"}).output
        << calls({"explain", "run.pcapng", "run.again.pcapng"}).output;
  }
};

class LoaderRun : public RecordedRun, public testing::WithParamInterface<Loader> {
 protected:
  void SetUp() override {
    if (const std::string refusal = GetParam().refusal(); !refusal.empty()) GTEST_SKIP() << refusal;
    NEEDS_WIRE();
    TestedUnit::SetUp();
  }
  // run.pcapng.
  void records(std::size_t kernel_size, const LossyWire* wire) {
    const ServingPptServer ppt(*network);
    write_whole_file("kernel.img", noise(kernel_size));
    const Reads reads = GetParam().made(*network);
    begins(call());
    serves();
    if (wire != nullptr) wire->loses(kLossPercent);
    EXPECT_TRUE(reads("bootscript.txt"));
    do {
      ASSERT_TRUE(reads("kernel.img"));
    } while (wire != nullptr && wire->lost_frames() == 0);
    EXPECT_TRUE(reads("F_l_m_01KERNEL_PASSED"));
    // Nobody repeats the answer to a final verdict.
    if (wire != nullptr) wire->loses(0);
    EXPECT_TRUE(reads("F_l_m_02PPT_PASSED"));
    EXPECT_EQ(ends(), 0) << output;
  }
};

TEST_P(LoaderRun, HappensAgain) {
  records(100 << 10, nullptr);
  expect_happens_again();
}

TEST_P(LoaderRun, HappensAgainThoughFramesWereLost) {
  const LossyWire wire(*network);
  records(24 << 10, &wire);
  expect_happens_again();
}

INSTANTIATE_TEST_SUITE_P(, LoaderRun,
                         testing::Values(u_boot(), ipxe(), client(curl("Curl")),
                                         client(tftp_hpa("TftpHpa", {"-m", "octet"})), client(atftp("Atftp")),
                                         client(busybox_tftp("Busybox"))),
                         [](const auto& loader) { return std::string(loader.param.title); });

// While a verdict is passed on in vain, the station answers nobody. A hasty loader asks again all the while; each
// request is a verdict of its own, and is passed on in vain.
TEST_F(RecordedRun, OfAHastyLoaderFailsWhereThePptServerIsSilent) {
  const TftpClientProgram busybox = busybox_tftp("Busybox");
  NEEDS_CLIENT(busybox);
  NEEDS_WIRE();
  const ServingPptServer ppt(*network, true);
  write_whole_file("kernel.img", noise(40 << 10));
  write_whole_file("rootfs.img", noise(600 << 10));
  const Reads reads = client(busybox).made(*network);
  begins(call());
  serves();
  EXPECT_TRUE(reads("bootscript.txt"));
  EXPECT_TRUE(reads("kernel.img"));
  EXPECT_TRUE(reads("F_l_m_01KERNEL_PASSED"));
  EXPECT_TRUE(reads("F_l_m_02MEMORY_PASSED"));
  EXPECT_FALSE(reads("rootfs.img"));
  EXPECT_FALSE(reads("F_l_m_03PPT_FAILED"));
  EXPECT_EQ(ends(), 1) << output;
  EXPECT_NE(explained().find("(ppt.silent)"), std::string::npos) << explained();
  // A sanitizer stops the reads that are open at the end, and the station says so a number of times that is chance.
  if (!kSanitized) expect_happens_again();
}

}  // namespace
