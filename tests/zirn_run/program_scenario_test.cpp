// zirn-run scenario as it is called.
#include "zirn_run/called_program.h"
#include "zirn_run/made_capture.h"

namespace {

using ProgramScenario = CalledProgram;

TEST_F(ProgramScenario, WritesTheRunOnStandardOutput) {
  write_whole_file("run.pcapng",
                   MadeCapture().read("kernel.img").verdict("F_l_m_01PPT_PASSED", 2001).contents());
  const Result result = calls({"scenario", "run.pcapng"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.output,
            "# A recorded run\n"
            "file kernel.img is 8 bytes\n"
            "station starts\n"
            "unit is like tftp-hpa\n"
            "unit reads kernel.img\n"
            "unit reads F_l_m_01PPT_PASSED\n"
            "station exits 2\n"
            "fault is none by passed\n");
  EXPECT_EQ(result.errors, "");
}

TEST_F(ProgramScenario, SaysThatSomethingIsLacking) {
  write_whole_file("run.pcapng", MadeCapture().read("kernel.img").contents());
  const Result result = calls({"scenario", "run.pcapng"});
  EXPECT_EQ(result.status, 3);
  EXPECT_NE(result.output.find("\n# the record does not say how the station ended\n"), std::string::npos)
      << result.output;
  EXPECT_EQ(result.errors, "zirn-run: the scenario lacks 1 thing of the run; its comments say which\n");
}

TEST_F(ProgramScenario, WritesTheFilesThatARecordHas) {
  MadeCapture capture;
  capture.read("kernel.img").keeps(53).read("a", 2001).keeps(std::string::npos);
  write_whole_file("run.pcapng", capture.verdict("F_l_m_01PPT_PASSED", 2002).contents());
  const Result result = calls({"scenario", "run.pcapng", "--files", "its files"});
  EXPECT_EQ(result.output,
            "# A recorded run\n"
            "file a is 8 bytes\n"
            "file kernel.img comes from \"its files/kernel.img\"\n"
            "station starts\n"
            "unit is like tftp-hpa\n"
            "unit reads kernel.img\n"
            "# frames 4 to 6: not all bytes of a\n"
            "unit reads a\n"
            "unit reads F_l_m_01PPT_PASSED\n"
            "station exits 2\n"
            "fault is none by passed\n");
  EXPECT_EQ(result.status, 3);
  EXPECT_EQ(result.errors, "zirn-run: the scenario lacks 1 thing of the run; its comments say which\n");
  EXPECT_EQ(whole_file("its files/kernel.img"), "contents");
  expect_refused({"scenario", "run.pcapng", "--files", "its files"}, 3,
                 "zirn-run: --files: expected a new folder, or an empty one: its files: Directory not empty");
}

TEST_F(ProgramScenario, RefusesWhatItCannotRead) {
  expect_refused({"scenario"}, 2, "FILE is required");
  expect_refused({"scenario", "missing"}, 3, "zirn-run: missing: No such file or directory");
}

}  // namespace
