#include "bench/scenario.h"

#include <linux/capability.h>
#include <signal.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <limits>
#include <set>
#include <sstream>

#include "explanation/causes.h"
#include "scenario/habits.h"

namespace {

const std::string kByteOrderMark = "\xEF\xBB\xBF";  // of UTF-8; some editors write it
const std::set<std::string> kFreeWords = {"NAME", "FILE", "TEXT", "REPLY", "ADDRESS", "MODE"};
struct Range {
  double least;
  double most;
  bool whole;
};
const std::map<std::string, Range> kRanges = {
    {"SEED", {0, 4294967295, true}},     {"PERCENT", {0, 100, false}},  // of the frames
    {"MILLISECONDS", {0, 60000, false}}, {"SECONDS", {0, 3600, false}},
    {"TIMEOUT", {1, 255, true}},  // in seconds, RFC 2349
    {"BLOCK", {1, 65464, true}},  // bytes, RFC 2348; sizes below its 8 are there to be tried
    {"TRIES", {1, 1000, true}},          {"TIMES", {1, 1000, true}},
    {"SIZE", {0, 4294967296, false}},   // and in bytes no more than this either
    {"PATIENCE", {0.05, 3600, false}},  // seconds
    {"CODE", {0, 65535, true}},         // RFC 1350
    {"STATUS", {0, 255, true}},         // of a process
    {"PORT", {1, 65535, true}},          {"COUNT", {1, 65535, true}},
    {"NUMBER", {0, 4294967295, true}},  // of a block
};
const std::set<std::string> kOwners = {"none",  "unit",    "test-network", "ppt-server",
                                       "board", "station", "operator",     "unknown"};
const std::map<std::string, double> kUnits = {{"bytes", 1}, {"KiB", 1024}, {"MiB", 1024 * 1024}};
const std::map<std::string, int> kSignals = {{"SIGINT", SIGINT},   {"SIGTERM", SIGTERM}, {"SIGKILL", SIGKILL},
                                             {"SIGABRT", SIGABRT}, {"SIGSEGV", SIGSEGV}, {"SIGSTOP", SIGSTOP},
                                             {"SIGCONT", SIGCONT}};
const std::map<std::string, int> kRights = {{"CAP_NET_BIND_SERVICE", CAP_NET_BIND_SERVICE},
                                            {"CAP_NET_RAW", CAP_NET_RAW}};

bool is_value(const std::string& word) {
  return word != "ERROR" && word != "TCP" && word != "ACK" &&
         std::all_of(word.begin(), word.end(), [](char c) { return c >= 'A' && c <= 'Z'; });
}

bool is_number(const std::string& word, const Range& range) {
  if (word.empty() || word.find_first_not_of(range.whole ? "0123456789" : "0123456789.") != std::string::npos)
    return false;
  char* end = nullptr;
  const double number = std::strtod(word.c_str(), &end);
  return *end == '\0' && number >= range.least && number <= range.most;
}

std::string described(const Range& range) {
  std::ostringstream text;
  text.precision(std::numeric_limits<double>::digits10);
  text << "a " << (range.whole ? "whole number" : "number") << " from " << range.least << " to "
       << range.most;
  return text.str();
}

bool is_cause(const std::string& word) {
  const auto& causes = explanation::causes();
  return std::any_of(causes.begin(), causes.end(), [&word](const auto& cause) { return cause.id == word; });
}

bool is_habit(const std::string& word) {
  return std::any_of(std::begin(scenario::kHabits), std::end(scenario::kHabits),
                     [&word](const scenario::Habit& habit) { return habit.name == word; });
}

std::string names_of_habits() {
  std::string names;
  for (const scenario::Habit& habit : scenario::kHabits) {
    const bool is_last = &habit == std::end(scenario::kHabits) - 1;
    names.append(names.empty() ? "" : is_last ? " or " : ", ").append(habit.name);
  }
  return names;
}

bool is_hex(const std::string& word) {
  return word.size() % 2 == 0 && word.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
}

bool fits(const std::string& wanted, const std::string& word) {
  if (!is_value(wanted)) return word == wanted;
  if (kFreeWords.count(wanted) != 0) return true;
  if (wanted == "UNIT") return kUnits.count(word) != 0;
  if (wanted == "SIGNAL") return kSignals.count(word) != 0;
  if (wanted == "RIGHT") return kRights.count(word) != 0;
  if (wanted == "HABIT") return is_habit(word);
  if (wanted == "HEX") return is_hex(word);
  if (wanted == "OWNER") return kOwners.count(word) != 0;
  if (wanted == "CAUSE") return is_cause(word);
  return is_number(word, kRanges.at(wanted));
}

std::string described(const std::string& wanted) {
  if (!is_value(wanted)) return '"' + wanted + '"';
  if (wanted == "UNIT") return "bytes, KiB or MiB";
  if (wanted == "SIGNAL") return "SIGINT, SIGTERM, SIGKILL, SIGABRT, SIGSEGV, SIGSTOP or SIGCONT";
  if (wanted == "RIGHT") return "CAP_NET_BIND_SERVICE or CAP_NET_RAW";
  if (wanted == "HABIT") return names_of_habits();
  if (wanted == "HEX") return "bytes of two hexadecimal digits each";
  if (wanted == "OWNER") return "none, unit, test-network, ppt-server, board, station, operator or unknown";
  if (wanted == "CAUSE") return "a cause out of docs/causes.md";
  return kFreeWords.count(wanted) != 0 ? wanted : described(kRanges.at(wanted)) + " (" + wanted + ")";
}

std::vector<std::string> split_at_blanks(const std::string& text) {
  std::istringstream in(text);
  std::vector<std::string> words;
  for (std::string word; in >> word;) words.push_back(word);
  return words;
}

// The words of a line, quotes resolved. Empty for an unclosed quote of a line that is not empty.
std::vector<std::string> words_of(const std::string& line) {
  std::vector<std::string> words;
  for (std::size_t at = line.find_first_not_of(" \t"); at < line.size();
       at = line.find_first_not_of(" \t", at)) {
    std::string word;
    if (line[at] != '"') {
      const std::size_t end = std::min(line.find_first_of(" \t", at), line.size());
      word = line.substr(at, end - at);
      at = end;
    } else {
      for (++at; at < line.size() && line[at] != '"'; ++at) {
        const bool escaped = line[at] == '\\' && at + 1 < line.size();
        if (escaped) ++at;
        word += !escaped ? line[at] : line[at] == 'n' ? '\n' : line[at] == 'r' ? '\r' : line[at];
      }
      if (at == line.size()) return {};
      ++at;
    }
    words.push_back(word);
  }
  return words;
}

// One form against one line. matched: how many words of the line fitted; expected: what could have stood
// after them.
struct Attempt {
  bool whole = false;
  std::size_t matched = 0;
  std::set<std::string> expected;
  std::map<std::string, std::string> values;
};

// Takes the words of one part of a form, all or none of them when it stands in brackets.
class Matcher {
 public:
  Matcher(const Command& command, const std::vector<std::string>& words)
      : form_(split_at_blanks(command.form)), words_(words) {}

  Attempt match() {
    for (std::size_t i = 0; i < form_.size() && !failed_; ++i) {
      if (form_[i][0] == '[') {
        const std::string first = without_bracket(form_[i].substr(1));
        const bool present = taken_ < words_.size() && fits(first, words_[taken_]);
        if (present)
          continue_with(first);
        else
          attempt_.expected.insert(described(first));
        skipping_ = !present;
      } else if (!skipping_) {
        continue_with(without_bracket(form_[i]));
      }
      if (form_[i].back() == ']') skipping_ = false;
    }
    attempt_.matched = taken_;
    attempt_.whole = !failed_ && taken_ == words_.size();
    if (!failed_) attempt_.expected.insert("the end of the line");
    return attempt_;
  }

 private:
  static std::string without_bracket(const std::string& word) {
    return word.back() == ']' ? word.substr(0, word.size() - 1) : word;
  }

  void continue_with(const std::string& wanted) {
    if (taken_ < words_.size() && fits(wanted, words_[taken_])) {
      if (is_value(wanted)) attempt_.values[wanted] = words_[taken_];
      ++taken_;
      attempt_.expected.clear();
    } else {
      failed_ = true;
      attempt_.expected.insert(described(wanted));
    }
  }

  const std::vector<std::string> form_;
  const std::vector<std::string>& words_;
  Attempt attempt_;
  std::size_t taken_ = 0;
  bool skipping_ = false;
  bool failed_ = false;
};

std::string joined(const std::set<std::string>& items) {
  std::string text;
  for (const std::string& item : items) text += (text.empty() ? "" : ", ") + item;
  return text;
}

// What the forms that fit furthest wanted to see.
std::string complaint(const std::vector<std::string>& words) {
  std::size_t furthest = 0;
  std::set<std::string> expected;
  for (const Command& command : commands()) {
    const Attempt attempt = Matcher(command, words).match();
    if (attempt.matched < furthest) continue;
    if (attempt.matched > furthest) expected.clear();
    furthest = attempt.matched;
    expected.insert(attempt.expected.begin(), attempt.expected.end());
  }
  const std::string found = furthest < words.size() ? '"' + words[furthest] + "\" is not understood here"
                                                    : "the line ends too early";
  return found + "; expected: " + joined(expected);
}

// Which unit a line is about; its letter is taken away.
std::size_t take_unit(std::vector<std::string>* words) {
  if (words->size() < 2 || (*words)[0] != "unit" || (*words)[1].size() != 1) return 0;
  const std::size_t place = kFurtherUnits.find((*words)[1]);
  if (place == std::string::npos) return 0;
  words->erase(words->begin() + 1);
  return place + 1;
}

Step parse_step(const std::string& line, int number, const std::string& where) {
  if (line.find('\0') != std::string::npos) throw ScenarioError(where + "a byte is 0; expected: text");
  std::vector<std::string> words = words_of(line);
  const std::size_t unit = take_unit(&words);
  if (words.empty()) throw ScenarioError(where + "a quote is opened and not closed; expected: \"");
  for (const Command& command : commands()) {
    const Attempt attempt = Matcher(command, words).match();
    if (!attempt.whole) continue;
    Step step = {number, line, &command, unit, attempt.values};
    if (step.has("SIZE") && step.bytes() > kRanges.at("SIZE").most)
      throw ScenarioError(where + "the file is too large; expected: at most 4096 MiB");
    return step;
  }
  throw ScenarioError(where + complaint(words));
}

std::string trimmed(const std::string& line) {
  const std::size_t begin = line.find_first_not_of(" \t\r");
  if (begin == std::string::npos) return "";
  return line.substr(begin, line.find_last_not_of(" \t\r") + 1 - begin);
}

}  // namespace

std::string name_of_unit(std::size_t unit) {
  return unit == 0 ? "unit" : std::string("unit ") + kFurtherUnits[unit - 1];
}

double Step::number_of(const std::string& word, double otherwise) const {
  return has(word) ? std::strtod(text_of(word).c_str(), nullptr) : otherwise;
}

std::string Step::bytes_of(const std::string& word) const {
  const std::string& digits = text_of(word);
  std::string bytes;
  for (std::size_t place = 0; place < digits.size(); place += 2)
    bytes += static_cast<char>(std::stoi(digits.substr(place, 2), nullptr, 16));
  return bytes;
}

double Step::bytes() const {
  return number_of("SIZE") * kUnits.at(text_of("UNIT"));
}

int Step::signal() const {
  return kSignals.at(text_of("SIGNAL"));
}

int Step::right() const {
  return kRights.at(text_of("RIGHT"));
}

Scenario parse_scenario(const std::string& text, const std::string& file_name) {
  Scenario scenario;
  std::istringstream in(text.compare(0, kByteOrderMark.size(), kByteOrderMark) == 0
                            ? text.substr(kByteOrderMark.size())
                            : text);
  std::string line;
  std::string mistakes;
  for (int number = 1; std::getline(in, line); ++number) {
    line = trimmed(line);
    if (line.empty()) continue;
    if (line[0] == '#') {
      if (scenario.title.empty()) scenario.title = trimmed(line.substr(1));
      continue;
    }
    try {
      scenario.steps.push_back(parse_step(line, number, file_name + ":" + std::to_string(number) + ": "));
    } catch (const ScenarioError& mistake) {
      mistakes += (mistakes.empty() ? "" : "\n") + std::string(mistake.what());
    }
  }
  if (!mistakes.empty()) throw ScenarioError(mistakes);
  if (scenario.steps.empty()) throw ScenarioError(file_name + ": no step at all; expected: at least one");
  return scenario;
}

Scenario read_scenario(const std::string& file_name) {
  std::ifstream file(file_name);
  if (!file || std::filesystem::is_directory(file_name))
    throw ScenarioError(file_name + ": there is no such file; expected: a scenario (*.run)");
  std::ostringstream text;
  text << file.rdbuf();
  Scenario scenario = parse_scenario(text.str(), file_name);
  scenario.folder = std::filesystem::absolute(file_name).parent_path();
  return scenario;
}
