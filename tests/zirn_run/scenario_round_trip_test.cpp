// Every run of the virtual bench, recorded, written as a scenario and played again: the same things happen in both.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "comparison/comparison.h"
#include "record/reader.h"
#include "scenario/scenario.h"
#include "stage/process.h"
#include "story/story.h"
#include "support/program.h"
#include "support/sanitized.h"
#include "support/scratch_directory.h"
#include "support/whole_file.h"

namespace {

namespace fs = std::filesystem;

constexpr std::chrono::seconds kPatience{150};
constexpr int kNotAllowed = 77;

const std::set<std::string> kNotWithASanitizer = {"crashed", "no-descriptors", "silent-server-hasty-unit"};

// Scenarios that do not survive, and why.
const std::map<std::string, std::string> kLost = {};

std::vector<std::string> scenarios() {
  std::vector<std::string> names;
  for (const auto& file : fs::directory_iterator(SCENARIOS)) names.push_back(file.path().stem());
  std::sort(names.begin(), names.end());
  return names;
}

struct Played {
  story::Story story;
  explicit Played(const std::string& record) {
    std::ifstream file(record, std::ios::binary);
    record::Reader reader(file);
    while (const auto item = reader.next()) story.take(*item);
    story.finish(false);
  }
};

class ScenarioRoundTrip : public testing::TestWithParam<std::string> {
 protected:
  // The exit status and, when that is not 0, what it said.
  static std::string play(const std::string& scenario) {
    Program bench({BENCH_PROGRAM, TFTP_PROGRAM, scenario, "."});
    const int status = bench.exit_status(kPatience);
    is_not_allowed_ = status == kNotAllowed;
    return status == 0 ? "" : bench.output();
  }
  const ScratchDirectory directory_;
  static bool is_not_allowed_;
};

bool ScenarioRoundTrip::is_not_allowed_ = false;

TEST_P(ScenarioRoundTrip, HappensAgain) {
  if (kSanitized && kNotWithASanitizer.count(GetParam()) > 0)
    GTEST_SKIP() << "a sanitizer takes the signal, and the descriptors, for itself, and stops open reads";
  const std::string first_play = play(std::string(SCENARIOS) + "/" + GetParam() + ".run");
  if (is_not_allowed_) GTEST_SKIP() << first_play;
  ASSERT_EQ(first_play, "");
  const Played first(GetParam() + ".pcapng");
  const scenario::Scenario written = scenario::scenario_of(first.story.reading());
  write_whole_file("again.run", written.text);
  const std::string second_play = play("again.run");
  const Played again("again.pcapng");
  const auto difference = comparison::first_difference(first.story.reading(), again.story.reading());
  const auto lost = kLost.find(GetParam());
  if (lost != kLost.end()) {
    const bool survives = written.left_out == 0 && second_play.empty() && !difference;
    EXPECT_FALSE(survives) << "it survives now: take it out of the table, where it stands for "
                           << lost->second;
    return;
  }
  EXPECT_EQ(written.left_out, 0U) << written.text;
  EXPECT_EQ(second_play, "") << written.text;
  EXPECT_FALSE(difference) << "first: " << in_words(difference->first)
                           << "\nagain: " << in_words(difference->other);
}

INSTANTIATE_TEST_SUITE_P(Every, ScenarioRoundTrip, testing::ValuesIn(scenarios()), [](const auto& named) {
  std::string name = named.param;
  name.erase(std::remove_if(name.begin(), name.end(), [](char c) { return !std::isalnum(c); }), name.end());
  return name;
});

TEST(ScenariosThatAreLost, ExistAndHaveAReason) {
  const std::vector<std::string> all = scenarios();
  EXPECT_GT(all.size(), 70U);
  for (const auto& [name, reason] : kLost) {
    EXPECT_EQ(std::count(all.begin(), all.end(), name), 1) << name;
    EXPECT_GT(reason.size(), 20U) << name << ": why?";
  }
}

}  // namespace
