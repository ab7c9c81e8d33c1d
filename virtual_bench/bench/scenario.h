#ifndef BENCH_SCENARIO_H
#define BENCH_SCENARIO_H

#include <map>
#include <stdexcept>
#include <string>
#include <vector>

// A run as a text: one step a line, readable aloud. kForms in scenario.cpp lists every step that there is.
// A line that begins with # is a comment; the first one is the run's title. A word that holds blanks stands
// in double quotes, in which \r, \n, \" and \\ stand for what they stand for in C++.

// What a step does; the words behind each are in kForms.
enum class Act {
  kFileHolds,
  kFileIs,
  kWireDuplicates,
  kWireDelays,
  kWireIsCut,
  kWireIsWhole,
  kWireLoses,
  kWireSwaps,
  kPptAnswers,
  kPptAnswersError,
  kPptHears,
  kPptIsConnected,
  kPptIsSilent,
  kPptReceives,
  kPptRefuses,
  kBoardKeeps,
  kBoardLinkIsCalled,
  kBoardRan,
  kBoardRanNothing,
  kBoardToolExits,
  kStationStarts,
  kStationStartsWith,
  kStationSays,
  kStationGets,
  kStationExits,
  kUnitAsks,
  kUnitAsksInVain,
  kUnitBeginsReading,
  kUnitCannotRead,
  kUnitEndsReading,
  kUnitHears,
  kUnitHearsNothing,
  kUnitObeys,
  kUnitReads,
  kUnitSends,
  kBenchWaits,
};

struct Step {
  int line;          // from 1
  std::string text;  // as it stands in the file
  Act act;
  std::string role;  // the first word: file, wire, ppt, board, station, unit or bench
  std::map<std::string, std::string> values;  // by the capital word of the form: values["NAME"]

  const std::string& text_of(const std::string& word) const { return values.at(word); }
  // What the step says, in the range that kRanges gives, or otherwise when its optional part is left away.
  double number_of(const std::string& word, double otherwise = 0) const;
  bool has(const std::string& word) const { return values.count(word) != 0; }
  // The product of SIZE and UNIT, in bytes.
  double bytes() const;
  // The number behind SIGNAL.
  int signal() const;
};

struct Scenario {
  std::string title;
  std::vector<Step> steps;
};

// FILE:LINE: what is wrong and what was expected.
struct ScenarioError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Every step that there is, as words: capital ones stand for values, what stands in brackets may be left
// away.
std::vector<std::string> step_forms();

// text: a file's whole content; file_name: for the errors. Throws ScenarioError.
Scenario parse_scenario(const std::string& text, const std::string& file_name);
// Reads the file and parses it. Throws ScenarioError, also when there is no such file.
Scenario read_scenario(const std::string& file_name);

#endif
