#ifndef BENCH_SCENARIO_H
#define BENCH_SCENARIO_H

#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

// A run as a text: one step a line, readable aloud; commands() lists every step that there is.
// A line that begins with # is a comment; the first one is the run's title. A word that holds blanks stands
// in double quotes, in which \r, \n, \" and \\ stand for what they stand for in C++.

class Run;
struct Step;

// What a step can be. In its form, capital words stand for values: NAME, FILE, TEXT, REPLY, ADDRESS, MODE for any word; UNIT,
// SIGNAL, RIGHT and HABIT for those that scenario.cpp lists; every other one for a number in a range that stands there.
// What stands in brackets may be omitted. After the word "unit" a line may name one of the further units by its letter.
// Of two forms that both fit a line, the one that is listed first counts.
struct Command {
  // Throws StepFailed, or another std::runtime_error, when what the step says does not happen.
  using Play = void (*)(Run& run, const Step& step);

  constexpr Command(const char* form_, Play play_) : form(form_), play(play_) {}
  const char* form;
  Play play;
};

const std::vector<Command>& commands();

// The letters of the units beside the first.
inline constexpr std::string_view kFurtherUnits = "bcd";
// "unit" for 0, "unit b" for 1, ...
std::string name_of_unit(std::size_t unit);

struct Step {
  int line;          // from 1
  std::string text;  // as it stands in the file
  const Command* command;
  std::size_t unit;                           // that it says after the word "unit": 0, or 1 for b and so on
  std::map<std::string, std::string> values;  // by the capital word of the form: values["NAME"]

  const std::string& text_of(const std::string& word) const { return values.at(word); }
  // What the step says, in its range, or otherwise when its optional part is omitted.
  double number_of(const std::string& word, double otherwise = 0) const;
  bool has(const std::string& word) const { return values.count(word) != 0; }
  // Of a word of hexadecimal digits.
  std::string bytes_of(const std::string& word) const;
  // The product of SIZE and UNIT, in bytes.
  double bytes() const;
  // The number of SIGNAL, or of RIGHT.
  int signal() const;
  int right() const;
};

struct Scenario {
  std::string title;
  std::vector<Step> steps;
  std::string folder;  // that it is in, an absolute path; empty: in none
};

// FILE:LINE: what is wrong and what was expected; a line for each mistake.
struct ScenarioError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// text: a file's whole content; file_name: for the errors. Throws ScenarioError.
Scenario parse_scenario(const std::string& text, const std::string& file_name);
// Reads the file and parses it. Throws ScenarioError, also when there is no such file.
Scenario read_scenario(const std::string& file_name);

#endif
