// What is said of a unit that asks again and again while the station waits for the PPT server, and answers nobody.
#include <gtest/gtest.h>

#include "zirn_run/explained_run.h"

namespace {

TEST(HastyUnit, FailsByThePptServerWhoseSilenceKeptAFileFromIt) {
  ExplainedRun run;
  run.begins();
  run.reads("kernel.img");
  run.ppt = ExplainedRun::Ppt::kSilent;
  run.gives("F_l_m_01KERNEL_PASSED");
  // It asked for this three times; each is passed on when its turn comes.
  run.gives("F_l_m_02MEMORY_PASSED");
  run.asks_for("rootfs.img");
  const made::Endpoint reader = run.unit;
  const made::Endpoint late{made::kStation, run.answering};
  run.passes_on("F_l_m_02MEMORY_PASSED");
  run.asks_for("F_l_m_03PPT_FAILED");
  run.passes_on("F_l_m_02MEMORY_PASSED");
  run.line("RRQ rootfs.img");
  run.run.udp(late, reader, tftp::data(1, std::string(512, 'x')));
  run.run.closed(late, reader);
  run.line("Cmd received: F_l_m_03PPT_FAILED");
  run.ends(2);
  EXPECT_EQ(run.fault(), "ppt-server ppt.silent");
  EXPECT_TRUE(run.has_also("unit.failed"));
  EXPECT_FALSE(run.has_also("read.left"));
  EXPECT_FALSE(run.has_also("unit.gone"));
}

// Its requests stand in a row: the verdict is passed on long after the unit gave it.
TEST(HastyUnit, FailsByThePptServerAlsoWhereItsVerdictHadToWait) {
  ExplainedRun run;
  run.begins();
  run.reads("kernel.img");
  run.ppt = ExplainedRun::Ppt::kSilent;
  run.gives("F_l_m_01KERNEL_PASSED");
  run.asks_for("F_l_m_02MEMORY_PASSED");
  run.passes_on("F_l_m_01KERNEL_PASSED");
  run.station_sends(run.answering, tftp::data(1, ""));
  run.unit_sends({made::kStation, run.answering}, tftp::ack(1));
  run.line("Cmd received: F_l_m_02MEMORY_PASSED");
  run.passes_on("F_l_m_02MEMORY_PASSED");
  run.asks_for("rootfs.img");
  const made::Endpoint reader = run.unit;
  const made::Endpoint late{made::kStation, run.answering};
  run.passes_on("F_l_m_02MEMORY_PASSED");
  run.asks_for("F_l_m_03PPT_FAILED");
  run.line("RRQ rootfs.img");
  run.run.udp(late, reader, tftp::data(1, std::string(512, 'x')));
  run.run.closed(late, reader);
  run.line("Cmd received: F_l_m_03PPT_FAILED");
  run.ends(2);
  EXPECT_EQ(run.fault(), "ppt-server ppt.silent");
  EXPECT_FALSE(run.has_also("read.left"));
}

}  // namespace
