// What the bench makes by chance.
#include "bench/made_scenario.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>

#include "bench/scenario.h"

namespace {

constexpr std::uint64_t kSeeds = 500;

Scenario made(std::uint64_t seed) {
  return parse_scenario(made_scenario(seed), "chance-" + std::to_string(seed) + ".run");
}

bool is(const Step& step, const std::string& form) {
  return step.command->form == form;
}

TEST(MadeScenario, IsUnderstood) {
  for (std::uint64_t seed = 0; seed < kSeeds; ++seed) EXPECT_NO_THROW(made(seed)) << seed;
}

TEST(MadeScenario, IsTheSameForOneSeedOnly) {
  std::set<std::string> texts;
  for (std::uint64_t seed = 0; seed < kSeeds; ++seed) {
    texts.insert(made_scenario(seed));
    EXPECT_EQ(made_scenario(seed), made_scenario(seed)) << seed;
  }
  EXPECT_EQ(texts.size(), kSeeds);
}

// Whoever adds a step adds it to what can be in a run, but for these, of which a scenario
// that is written by hand has more.
TEST(MadeScenario, HasEveryStepSometimes) {
  const std::set<std::string> hand_written = {"[ppt] wire loses ACK NUMBER of NAME [TIMES times]",
                                              "[ppt] wire loses the request of NAME [TIMES times]",
                                              "also seen is CAUSE",
                                              "board address is ADDRESS",
                                              "board has TCP port PORT taken",
                                              "board link has no broadcast address",
                                              "board link is down",
                                              "file NAME comes from FILE",
                                              "ppt is absent",
                                              "ppt is back",
                                              "ppt is cut off",
                                              "ppt is forbidden",
                                              "station has COUNT descriptors",
                                              "unit boots again",
                                              "unit crashes",
                                              "unit ends reading in vain",
                                              "unit is told REPLY",
                                              "unit repeats NAME TIMES times"};
  std::set<std::string> missing;
  for (const Command& command : commands()) missing.insert(command.form);
  for (std::uint64_t seed = 0; seed < kSeeds; ++seed)
    for (const Step& step : made(seed).steps) missing.erase(step.command->form);
  EXPECT_EQ(missing, hand_written);
}

TEST(MadeScenario, SaysHowTheStationEndsAndWhatTheBoardKeeps) {
  for (std::uint64_t seed = 0; seed < kSeeds; ++seed) {
    const Scenario scenario = made(seed);
    const auto count = [&scenario](const std::string& form) {
      return std::count_if(scenario.steps.begin(), scenario.steps.end(),
                           [&form](const Step& step) { return is(step, form); });
    };
    EXPECT_EQ(count("station exits STATUS [within SECONDS s]"), 1) << seed;
    EXPECT_EQ(count("board keeps NAME TEXT"), 1) << seed;
    EXPECT_EQ(scenario.steps.back().text.rfind("fault is ", 0), 0U) << seed;
  }
}

// What must be true of a verdict stands in other words than the generator's.
TEST(MadeScenario, ExpectsEveryVerdictToBePassedOnUnlessItIsFinal) {
  for (std::uint64_t seed = 0; seed < kSeeds; ++seed) {
    std::set<std::string> given, passed_on;
    for (const Step& step : made(seed).steps) {
      const bool reads = step.text.rfind("unit reads \"F_l_m_", 0) == 0;
      if (reads && step.text_of("NAME").find("PPT_") == std::string::npos) given.insert(step.text_of("NAME"));
      if (is(step, "ppt hears NAME") || is(step, "ppt has not heard NAME")) {
        std::string name = step.text_of("NAME");
        if (name.find("CPU_2_") == 8) passed_on.insert(name.erase(8, 6));
      }
    }
    EXPECT_TRUE(std::includes(passed_on.begin(), passed_on.end(), given.begin(), given.end())) << seed;
  }
}

TEST(MadeScenario, MarksTheBoardExactlyWhenSomethingFailed) {
  int marked = 0;
  for (std::uint64_t seed = 0; seed < kSeeds; ++seed) {
    bool has_failed = false, has_envtool = true;
    for (const Step& step : made(seed).steps) {
      const std::string name = step.has("NAME") ? step.text_of("NAME") : "";
      has_envtool = has_envtool && step.text != "board lacks envtool";
      const bool is_read = step.text.rfind("unit reads ", 0) == 0;
      const bool passes = name.find("PPT_PASSED") != std::string::npos;
      has_failed = has_failed || (is_read && (name.find("PPT_FAILED") != std::string::npos ||
                                              (name.find("TEST_FAILED") != std::string::npos && !passes)));
      if (!is(step, "board keeps NAME TEXT")) continue;
      EXPECT_EQ(step.text_of("TEXT"), has_failed && has_envtool ? "failed" : "nothing") << seed;
      marked += has_failed && has_envtool ? 1 : 0;
    }
  }
  EXPECT_GT(marked, 0);
}

}  // namespace
