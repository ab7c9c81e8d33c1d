// What is said of a unit that asks again and again while the station waits for the PPT server, and answers nobody.
#include <gtest/gtest.h>

#include "zirn_run/explained_run.h"

namespace {

class HastyUnit : public testing::Test, public ExplainedRun {
 protected:
  void gives_first_verdict() {
    begins();
    reads("kernel.img");
    ppt = Ppt::kSilent;
    gives("F_l_m_01KERNEL_PASSED");
  }
  // The station is kept by the verdict, and answers the read once the unit has given it up.
  void fails_without_rootfs() {
    asks_for("rootfs.img");
    const made::Endpoint reader = unit;
    const made::Endpoint late{made::kStation, answering};
    passes_on("F_l_m_02MEMORY_PASSED");
    asks_for("F_l_m_03PPT_FAILED");
    passes_on("F_l_m_02MEMORY_PASSED");
    line("RRQ rootfs.img");
    run.udp(late, reader, tftp::data(1, std::string(512, 'x')));
    run.closed(late, reader);
    line("Cmd received: F_l_m_03PPT_FAILED");
    ends(2);
    EXPECT_EQ(fault(), "ppt-server ppt.silent");
    EXPECT_TRUE(has_also("unit.failed"));
    EXPECT_FALSE(has_also("read.left"));
    EXPECT_FALSE(has_also("unit.gone"));
  }
};

TEST_F(HastyUnit, FailsByThePptServerWhoseSilenceKeptAFileFromIt) {
  gives_first_verdict();
  // It asked for this three times; each is passed on when its turn comes.
  gives("F_l_m_02MEMORY_PASSED");
  fails_without_rootfs();
}

// Its requests stand in a row: the verdict is passed on long after the unit gave it.
TEST_F(HastyUnit, FailsByThePptServerAlsoWhereItsVerdictHadToWait) {
  gives_first_verdict();
  asks_for("F_l_m_02MEMORY_PASSED");
  passes_on("F_l_m_01KERNEL_PASSED");
  station_sends(answering, tftp::data(1, ""));
  unit_sends({made::kStation, answering}, tftp::ack(1));
  line("Cmd received: F_l_m_02MEMORY_PASSED");
  passes_on("F_l_m_02MEMORY_PASSED");
  fails_without_rootfs();
}

}  // namespace
