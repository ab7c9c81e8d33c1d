// The memory in which an hour of production is drawn and explained, however large its files are.
#include <sys/resource.h>

#include <fstream>

#include "support/sanitized.h"
#include "zirn_run/called_program.h"
#include "zirn_run/made_capture.h"
#include "zirn_run/made_record.h"
#include "zirn_run/made_run.h"

namespace {

constexpr int kUnits = 60;
constexpr int kFiles = 12;                     // that each reads
constexpr long kMost = 32 * 1024;              // KiB, as zirn-run(1) says
constexpr long kMoreForLargeFiles = 4 * 1024;  // KiB
constexpr int kVerdicts = 20;                  // that each gives, each passed on to the PPT server

// The record of an hour, written frame by frame, of which it keeps as much as the recorder does.
class Hour {
 public:
  Hour(const std::string& name, int blocks) : file_(name, std::ios::binary), blocks_(blocks) {}
  void is_written() {
    file_ << made_.section() << made_.interface(1, 0);
    for (int unit = 0; unit < kUnits; ++unit) plays_unit(unit);
  }

 private:
  static constexpr std::size_t kKept = 14 + 20 + 8 + 64;
  static constexpr std::uint64_t kBetweenUnits = 60'000'000;  // microseconds
  static constexpr made::Endpoint kTftp{made::kStation, 69};

  void plays_unit(int number) {
    at_ = kStart + static_cast<std::uint64_t>(number) * kBetweenUnits;
    unit_ = made::kUnit + static_cast<std::uint32_t>(number);
    port_ = 2000;
    line("Starting TFTP server on 172.40.0.1:69 PPT Server: 172.30.0.254");
    for (int file = 0; file < kFiles; ++file) reads("image" + std::to_string(file) + ".img");
    for (int step = 0; step < kVerdicts; ++step) gives("F_l_m_" + std::to_string(step) + "STEP_PASSED");
    asks("DO_PMC_INIT:7", "READY");
    gives("F_l_m_02PPT_PASSED");
  }
  void reads(const std::string& name) {
    const made::Endpoint unit{unit_, ++port_},
        answering{made::kStation, static_cast<std::uint16_t>(port_ + 30000)};
    udp(unit, kTftp, tftp::rrq(name, {{"blksize", "1428"}}));
    udp(answering, unit, tftp::oack({{"blksize", "1428"}}));
    udp(unit, answering, tftp::ack(0));
    for (int block = 1; block <= blocks_; ++block) {
      udp(answering, unit, tftp::data(block & 0xffff, std::string(block < blocks_ ? 1428 : 7, 'x')));
      udp(unit, answering, tftp::ack(block & 0xffff));
    }
    line("RRQ " + name);
  }
  void gives(const std::string& name) {
    const made::Endpoint unit{unit_, ++port_},
        answering{made::kStation, static_cast<std::uint16_t>(port_ + 30000)};
    const made::Endpoint asking{made::kStationAtPpt, port_}, ppt{made::kPptServer, 69};
    udp(unit, kTftp, tftp::rrq(name));
    udp(answering, unit, tftp::data(1, ""));
    line("Cmd received: " + name);
    if (name.find("PPT_PASSED") != std::string::npos) return;
    udp(asking, ppt, tftp::rrq(name.substr(0, 8) + "CPU_2_" + name.substr(8)));
    udp({made::kPptServer, 50000}, asking, tftp::data(1, ""));
  }
  void asks(const std::string& question, const std::string& answer) {
    const made::Endpoint unit{unit_, ++port_}, commands{made::kStation, 12345};
    tcp(unit, commands, made::kSyn, 100);
    tcp(commands, unit, made::kSyn | made::kAck, 500);
    tcp(unit, commands, made::kAck, 101, question);
    tcp(commands, unit, made::kAck, 501, answer);
    tcp(unit, commands, made::kFin | made::kAck, static_cast<std::uint32_t>(101 + question.size()));
  }
  void udp(made::Endpoint from, made::Endpoint to, const std::string& payload) {
    frame(made::ethernet(made::ip(from.address, to.address, 17, made::udp(from, to, payload))));
  }
  void tcp(made::Endpoint from, made::Endpoint to, unsigned flags, std::uint32_t sequence,
           const std::string& text = "") {
    frame(made::ethernet(made::ip(from.address, to.address, 6, made::tcp(from, to, flags, sequence, text))));
  }
  void frame(const std::string& bytes) {
    file_ << made_.enhanced(0, at_ += 100, bytes.substr(0, kKept), static_cast<std::uint32_t>(bytes.size()));
  }
  void line(const std::string& text) {
    file_ << made_.journal("__REALTIME_TIMESTAMP=" + std::to_string(at_) +
                           "\nSYSLOG_IDENTIFIER=TFTP\nMESSAGE=" + text + "\n");
  }

  static constexpr std::uint64_t kStart = 1'700'000'000'000'000;  // microseconds
  const MadeRecord made_ = MadeRecord::in_order_of_this_machine();
  std::ofstream file_;
  const int blocks_;
  std::uint64_t at_ = 0;
  std::uint32_t unit_ = 0;
  std::uint16_t port_ = 0;
};

class ProgramMemory : public CalledProgram {
 protected:
  // KiB that the largest of the programs called so far had at once.
  static long most() {
    rusage used = {};
    getrusage(RUSAGE_CHILDREN, &used);
    return used.ru_maxrss;
  }
};

TEST_F(ProgramMemory, OfAnHourOfProductionIsBounded) {
  if (kSanitized) GTEST_SKIP() << "a sanitizer takes memory of its own";
  Hour("small-files", 4).is_written();
  Hour("hour", 100).is_written();
  std::vector<long> taken;
  for (const char* const file : {"small-files", "hour"}) {
    const Result picture = calls({"draw", file});
    EXPECT_EQ(picture.status, 0) << picture.errors;
    EXPECT_NE(picture.output.find("60 units PASSED"), std::string::npos);
    EXPECT_EQ(calls({"explain", "--result", file}).output, "passed\n");
    taken.push_back(most());
  }
  EXPECT_LT(taken[1] - taken[0], kMoreForLargeFiles);
  EXPECT_LT(most(), kMost);
  EXPECT_GT(most(), 1024);
}

TEST_F(ProgramMemory, OfALargeLogIsBounded) {
  if (kSanitized) GTEST_SKIP() << "a sanitizer takes memory of its own";
  std::ofstream log("log", std::ios::binary);
  for (int i = 0; i < 1'000'000; ++i) log << "a line that the board's tools print, number " << i << '\n';
  log << "Cmd received: F_l_m_02PPT_PASSED\n" << std::flush;
  write_whole_file("run", MadeCapture().verdict("F_l_m_02PPT_PASSED", 2000).contents());
  for (const Result& told : {calls({"explain", "--result", "--log", "log"}),
                             calls({"explain", "--result", "run", "--log", "log"})}) {
    EXPECT_NE(told.errors.find("which are left out"), std::string::npos) << told.errors;
  }
  EXPECT_LT(most(), kMost);
}

}  // namespace
