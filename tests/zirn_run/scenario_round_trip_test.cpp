// Every run of the virtual bench, recorded, written as a scenario and played again: the same things happen in both.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "explanation/explanation.h"
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
using story::Reading;
using story::Transfer;

constexpr std::chrono::seconds kPatience{90};
constexpr int kNotAllowed = 77;

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

// Whether the file arrived, in words.
std::string outcome_of(const Transfer& one) {
  if (one.end == Transfer::End::kFinished || (one.is_last_sent && one.end != Transfer::End::kError))
    return "arrives";
  if (one.end != Transfer::End::kError) return "does not arrive";
  return "ERROR " + std::to_string(one.error_code) +
         (one.ended_by == story::kStation ? " by station" : " by unit");
}

// Tries of one file, the last of which counts, are one read.
std::vector<std::string> reads_in(const Reading& reading) {
  std::vector<std::string> reads;
  std::string last;
  for (const Transfer& one : reading.transfers) {
    if (one.server != story::kStation || one.second_answer_of != story::kNone) continue;
    std::string what = std::to_string(static_cast<int>(one.kind)) + " " + one.name + " in mode " + one.mode;
    for (const auto& [name, value] : one.asked) what += " " + name + "=" + value;
    if (what == last && reads.back().find("does not arrive") != std::string::npos) reads.pop_back();
    last = what;
    reads.push_back(what + ": " + outcome_of(one));
  }
  return reads;
}

std::vector<std::string> verdicts_in(const Reading& reading) {
  std::vector<std::string> verdicts;
  for (const story::Verdict& one : reading.verdicts) {
    std::string text =
        one.name + " is passed on: " + std::to_string(static_cast<int>(passed_on(reading, one)));
    if (verdicts.empty() || verdicts.back() != text) verdicts.push_back(std::move(text));
  }
  return verdicts;
}

std::vector<std::string> commands_in(const Reading& reading) {
  std::vector<std::string> commands;
  for (const story::Connection& one : reading.connections) {
    if (one.client == story::kStation) continue;  // the written scenario waits for it where there was one
    std::string text = one.opened ? "unit asks" : "unit asks in vain";
    for (const auto& said : one.texts) text += (said.is_from_client ? " > " : " < ") + said.said.text;
    commands.push_back(std::move(text));
  }
  for (const story::Relayed& one : reading.relayed)
    commands.push_back(one.said.text + (one.passed_on > 0 ? " is passed on" : " is not passed on"));
  for (const story::Step& step : reading.steps) {
    if (step.kind == story::Step::Kind::kBoardCall) commands.push_back("board runs " + step.said.text);
  }
  return commands;
}

std::string end_of(const Reading& reading) {
  return reading.station_end ? story::in_words(*reading.station_end) : "no end";
}

std::string fault_in(const Reading& reading) {
  const explanation::Explanation told = explanation::explain(reading);
  return std::string(told.fault.cause->id);
}

class ScenarioRoundTrip : public testing::TestWithParam<std::string> {
 protected:
  // The exit status and, when that is not 0, what it said.
  static std::string play(const std::string& scenario) {
    Program bench({BENCH_PROGRAM, TFTP_PROGRAM, scenario, "."});
    const int status = bench.exit_status(kPatience);
    is_not_allowed_ = status == kNotAllowed;
    return status == 0 ? "" : bench.output();
  }
  static bool is_same(const Reading& first, const Reading& again) {
    return reads_in(first) == reads_in(again) && verdicts_in(first) == verdicts_in(again) &&
           commands_in(first) == commands_in(again) && end_of(first) == end_of(again) &&
           fault_in(first) == fault_in(again);
  }
  static void expect_same(const Reading& first, const Reading& again) {
    EXPECT_EQ(reads_in(first), reads_in(again));
    EXPECT_EQ(verdicts_in(first), verdicts_in(again));
    EXPECT_EQ(commands_in(first), commands_in(again));
    EXPECT_EQ(end_of(first), end_of(again));
    EXPECT_EQ(fault_in(first), fault_in(again));
  }

  const ScratchDirectory directory_;
  static bool is_not_allowed_;
};

bool ScenarioRoundTrip::is_not_allowed_ = false;

TEST_P(ScenarioRoundTrip, HappensAgain) {
  if (kSanitized && (GetParam() == "crashed" || GetParam() == "no-descriptors"))
    GTEST_SKIP() << "a sanitizer takes the signal, and the descriptors, for itself";
  const std::string first_play = play(std::string(SCENARIOS) + "/" + GetParam() + ".run");
  if (is_not_allowed_) GTEST_SKIP() << first_play;
  ASSERT_EQ(first_play, "");
  const Played first(GetParam() + ".pcapng");
  const scenario::Scenario written = scenario::scenario_of(first.story.reading());
  write_whole_file("again.run", written.text);
  const std::string second_play = play("again.run");
  const Played again("again.pcapng");
  const auto lost = kLost.find(GetParam());
  if (lost != kLost.end()) {
    const bool survives =
        written.left_out == 0 && second_play.empty() && is_same(first.story.reading(), again.story.reading());
    EXPECT_FALSE(survives) << "it survives now: take it out of the table, where it stands for "
                           << lost->second;
    return;
  }
  EXPECT_EQ(written.left_out, 0U) << written.text;
  EXPECT_EQ(second_play, "") << written.text;
  expect_same(first.story.reading(), again.story.reading());
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
