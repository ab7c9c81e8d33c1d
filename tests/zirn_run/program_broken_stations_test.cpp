// Stations that are broken in one place each are told from the good one by the replay of one record of that.
#include <algorithm>
#include <map>
#include <memory>
#include <string>

#include "zirn_run/called_program.h"

namespace {

constexpr char kRun[] =
    "# All that a station does, in one run\n"
    "file kernel.img is 8 KiB\n"
    "station starts\n"
    "unit hears the boot script\n"
    "unit reads kernel.img blksize 1024\n"
    "unit cannot read missing.img\n"
    "unit reads F_l_m_01FLASH_TEST_FAILED\n"
    "ppt hears F_l_m_01CPU_2_FLASH_TEST_FAILED\n"
    "ppt is connected\n"
    "unit asks ZIRN_ASKS_FOR_HIS_MAC expects 02:00:00:00:17:2c\n"
    "unit asks DO_PMC_INIT:7 expects READY\n"
    "unit sends \"line 1 is up\"\n"
    "ppt receives \"line 1 is up\"\n"
    "unit reads F_l_m_02PPT_FAILED\n"
    "station exits 2\n"
    "board keeps ppt_flag failed\n"
    "fault is station by file.missing\n";

// What stands in the first difference: of the good station, and of the broken one.
struct Shown {
  const char* station;
  const char* good;
  const char* broken;
};
constexpr Shown kShown[] = {
    {"wrong_block", "", "unit reads kernel.img blksize 1024: kernel.img arrived, but not as it is served"},
    {"no_options", "unit reads kernel.img, asks for timeout=5 blksize=1024 tsize=0, is granted ",
     "unit reads kernel.img, asks for timeout=5 blksize=1024 tsize=0: arrives, 8192 bytes"},
    {"other_error", "unit reads missing.img", "ERROR 0"},
    {"verdict_kept", "verdict F_l_m_01FLASH_TEST_FAILED is passed on and answered",
     "verdict F_l_m_01FLASH_TEST_FAILED is not passed on"},
    {"board_not_marked", "board runs envtool ppt_flag=failed", "nothing"},
    {"wrong_reply", R"(asks "DO_PMC_INIT:7", is told "READY")", R"(asks "DO_PMC_INIT:7", is told "FAIL")"},
    {"default_mac", R"(is told "02:00:00:00:17:2c")", R"(is told "02:00:00:00:00:03")"},
    {"relay_silent", R"(datagram "line 1 is up" is passed on)",
     R"(datagram "line 1 is up" is not passed on)"},
    {"no_boot_script", "station sends the boot script", "nothing"},
    {"line_missing", R"(station says "Server started , waiting for connections")", "nothing"},
    {"other_status", "station ends: 2 ", "station ends: 3"},
};

class ProgramBrokenStations : public CalledProgram {
 protected:
  static constexpr int kNotAllowed = 77;

  // Begins to play the good station's record with this one.
  static std::unique_ptr<Program> begun(const std::string& program, const std::string& record) {
    return std::make_unique<Program>(Program::Words{ZIRN_RUN_PROGRAM, "scenario", "--check", "good.pcapng",
                                                    "--program", program, "--record", record});
  }
};

TEST_F(ProgramBrokenStations, AreToldFromTheGoodOne) {
  write_whole_file("good.run", kRun);
  Program bench({BENCH_PROGRAM, TFTP_PROGRAM, "good.run", "."});
  const int status = bench.exit_status(kPatience);
  if (status == kNotAllowed) GTEST_SKIP() << bench.output();
  ASSERT_EQ(status, 0) << bench.output();
  const auto good = begun(TFTP_PROGRAM, "again.pcapng");
  std::map<std::string, std::unique_ptr<Program>> broken;
  for (const Shown& shown : kShown)
    broken[shown.station] = begun(std::string(BROKEN_STATIONS) + "/" + shown.station + "/TFTP",
                                  shown.station + std::string(".pcapng"));
  EXPECT_EQ(good->exit_status(kPatience), 0) << good->output();
  for (const Shown& shown : kShown) {
    Program& check = *broken[shown.station];
    EXPECT_EQ(check.exit_status(kPatience), 1) << shown.station;
    const std::string said = check.output();
    const std::size_t first = said.find("\n  good.pcapng: ");
    const std::size_t other = said.find(std::string("\n  ") + shown.station + ".pcapng: ");
    ASSERT_TRUE(first < other && other != std::string::npos) << shown.station << ":\n" << said;
    EXPECT_NE(said.substr(first, other - first).find(shown.good), std::string::npos) << shown.station << ":\n"
                                                                                     << said;
    EXPECT_NE(said.find(shown.broken, other), std::string::npos) << shown.station << ":\n" << said;
  }
}

}  // namespace
