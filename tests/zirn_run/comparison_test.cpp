// Two told runs held against each other.
#include "comparison/comparison.h"

#include <gtest/gtest.h>

#include "zirn_run/explained_run.h"

namespace {

using made::kStation;

class Comparison : public testing::Test {
 protected:
  // Both runs do so. `judged` by the bench, which watches the board.
  static void tell(ExplainedRun* run) {
    run->begins();
    run->reads("kernel.img");
    run->gives("F_l_m_01MEMORY_PASSED");
    run->asks("WHO ARE YOU", "WHO ARE YOU");
  }
  static void end(ExplainedRun* run) {
    run->gives("F_l_m_02PPT_PASSED");
    run->ends(2);
    run->says(record::RunEnds{"", record::kAsTheScenarioSays});
  }
  // "first | other", without what shows it; "" where there is no difference.
  std::string difference() {
    first.run.ends();
    other.run.ends();
    const auto found = comparison::first_difference(first.run.reading(), other.run.reading());
    if (!found) return "";
    return (found->first ? found->first->sentence : "nothing") + " | " +
           (found->other ? found->other->sentence : "nothing");
  }

  ExplainedRun first, other;
};

TEST_F(Comparison, FindsNothingInRunsThatDifferInTimeAndInRepetition) {
  tell(&first);
  end(&first);
  other.run.rests(70000);
  other.sends_boot_script(9);
  tell(&other);
  other.run.rests(4000);
  other.line("Client timeout");
  end(&other);
  EXPECT_EQ(difference(), "");
}

TEST_F(Comparison, NamesTheEarliestDifferenceAndTheFramesOfBoth) {
  tell(&first);
  first.reads("rootfs.img");
  first.asks("ZIRN_ASKS_FOR_HIS_MAC", "02:00:00:00:01:01");
  end(&first);
  tell(&other);
  other.is_refused("rootfs.img", 1, "File not found");
  other.asks("ZIRN_ASKS_FOR_HIS_MAC", "02:00:00:00:00:03");
  end(&other);
  first.run.ends();
  other.run.ends();
  const auto found = comparison::first_difference(first.run.reading(), other.run.reading());
  ASSERT_TRUE(found && found->first && found->other);
  const auto& reads = first.run.reading().transfers;
  const auto& refused = other.run.reading().transfers;
  const auto place_of = [](const auto& transfers) {
    std::size_t place = 0;
    while (transfers[place].name != "rootfs.img") ++place;
    return place;
  };
  const auto in_numbers = [](const frames::Numbers& numbers) {
    return " (frames " + std::to_string(numbers.first) + " to " + std::to_string(numbers.last) + ")";
  };
  EXPECT_EQ(in_words(found->first),
            "unit reads rootfs.img: arrives, 612 bytes" + in_numbers(reads[place_of(reads)].frames));
  EXPECT_EQ(in_words(found->other), "unit reads rootfs.img: ERROR 1 File not found by the station" +
                                        in_numbers(refused[place_of(refused)].frames));
  EXPECT_EQ(first.run.reading().steps[found->first->step].kind, story::Step::Kind::kRequest);
}

TEST_F(Comparison, NamesAnOptionThatIsNotGranted) {
  const auto read = [](ExplainedRun* run, bool is_granted) {
    run->begins();
    Exchange exchange(&run->run, {made::kUnit, 3000}, kStation);
    exchange.asks(std::string("\0\1a.img\0octet\0blksize\0001024\0", 28));
    if (is_granted) exchange.answers(std::string("\0\6blksize\0001024\0", 15));
    exchange.answers(tftp::data(1, "a"));
    exchange.sends(tftp::ack(1));
    run->ends(15);
  };
  read(&first, true);
  read(&other, false);
  EXPECT_EQ(difference(),
            "unit reads a.img, asks for blksize=1024, is granted blksize=1024: arrives, 1 byte | "
            "unit reads a.img, asks for blksize=1024: arrives, 1 byte");
}

TEST_F(Comparison, NamesAVerdictThatIsNotPassedOn) {
  tell(&first);
  tell(&other);
  first.gives("F_l_m_03FLASH_PASSED");
  other.ppt = ExplainedRun::Ppt::kSilent;
  other.gives("F_l_m_03FLASH_PASSED");
  end(&first);
  end(&other);
  EXPECT_EQ(difference(),
            "verdict F_l_m_03FLASH_PASSED is passed on and answered | verdict F_l_m_03FLASH_PASSED is passed "
            "on and not answered");
}

// Whether it does depends on the moment.
TEST_F(Comparison, KnowsNoDifferenceWhereTheStationsAlarmCutsItsWaitShort) {
  for (const bool is_alarm : {true, false}) {
    ExplainedRun cut, whole;
    for (ExplainedRun* const run : {&cut, &whole}) {
      run->begins();
      run->run.rests(is_alarm ? 5950 : 100);
      run->ppt = run == &cut ? ExplainedRun::Ppt::kInterrupted : ExplainedRun::Ppt::kSilent;
      run->gives("F_l_m_01MEMORY_PASSED");
      end(run);
      run->run.ends();
    }
    const auto found = comparison::first_difference(cut.run.reading(), whole.run.reading());
    EXPECT_EQ(!found, is_alarm);
  }
}

// To a request that the wire doubled.
TEST_F(Comparison, CountsTheOneOfTwoAnswersThatTheUnitGoesOnWith) {
  const std::string request = tftp::rrq("kernel.img");
  for (ExplainedRun* const run : {&first, &other}) {
    run->begins();
    Exchange one(&run->run, {made::kUnit, 3000}, kStation, 40000);
    Exchange second(&run->run, {made::kUnit, 3000}, kStation, 50000);
    one.asks(request);
    one.asks(request);
    one.answers(tftp::data(1, std::string(512, 'x')));
    second.answers(tftp::data(1, std::string(512, 'x')));
    (run == &first ? one : second).sends(tftp::ack(1));
    (run == &first ? one : second).blocks(2, 2, 1);
    run->ends(15);
  }
  EXPECT_EQ(difference(), "");
}

TEST_F(Comparison, CountsTriesOfAVerdictAsOne) {
  tell(&first);
  first.gives("F_l_m_03FLASH_PASSED");
  tell(&other);
  other.asks_for("F_l_m_03FLASH_PASSED");
  other.gives("F_l_m_03FLASH_PASSED");
  other.gives("F_l_m_03FLASH_PASSED");
  end(&first);
  end(&other);
  EXPECT_EQ(difference(), "");
}

TEST_F(Comparison, NamesAnotherReply) {
  tell(&first);
  tell(&other);
  first.asks("DO_PMC_INIT:7", "READY");
  other.asks("DO_PMC_INIT:7", std::string("FA\x1b[2J\0L", 8));
  end(&first);
  end(&other);
  EXPECT_EQ(difference(), R"(unit connects, asks "DO_PMC_INIT:7", is told "READY" | )"
                          R"(unit connects, asks "DO_PMC_INIT:7", is told "FA\x1b[2J\0L")");
}

TEST_F(Comparison, NamesALineThatOneLacks) {
  tell(&first);
  tell(&other);
  other.line("Mode detected: 7");
  end(&first);
  end(&other);
  EXPECT_EQ(difference(), "nothing | station says \"Mode detected: 7\"");
}

TEST_F(Comparison, KnowsNoOrderOfLines) {
  tell(&first);
  first.line("Mode detected: 7");
  first.line("Receiver proc stopped!!!");
  end(&first);
  tell(&other);
  other.line("Receiver proc stopped!!!");
  other.line("Mode detected: 7");
  end(&other);
  EXPECT_EQ(difference(), "");
}

TEST_F(Comparison, NamesABoardCallAndWhatTheBoardKeeps) {
  tell(&first);
  first.says(record::BoardCall{"envtool ppt_flag=failed", 0});
  end(&first);
  tell(&other);
  end(&other);
  EXPECT_EQ(difference(), "board runs envtool ppt_flag=failed | nothing");
}

TEST_F(Comparison, NamesAnotherEnd) {
  tell(&first);
  first.ends(2);
  tell(&other);
  other.is_killed(SIGABRT);
  EXPECT_EQ(difference().substr(0, 18), "station ends: 2 (a");
}

TEST_F(Comparison, ComparesNothingThatOneOfThemCannotKnow) {
  tell(&first);
  first.says(record::BoardCall{"envtool show tempmac", 0});
  end(&first);
  other.lacking.lines = true;  // a capture
  tell(&other);
  other.gives("F_l_m_02PPT_PASSED");
  EXPECT_EQ(difference(), "");
}

TEST_F(Comparison, MissesABootScript) {
  first.begins();
  first.reads("kernel.img");
  first.ends(15);
  other.starts();
  other.line("Message Sender initialized. IP: 172.40.0.255 Port=12345");
  other.reads("kernel.img");
  other.ends(15);
  EXPECT_EQ(difference(), "station sends the boot script | nothing");
}

}  // namespace
