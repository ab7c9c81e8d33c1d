#include "scenario/script.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <optional>
#include <sstream>

#include "frames/tftp_message.h"
#include "frames/words.h"

namespace scenario {

namespace {

constexpr Nanoseconds kBeforeAll = std::numeric_limits<Nanoseconds>::min();
constexpr Nanoseconds kShortestPause = 3 * kSecond / 10;
constexpr Nanoseconds kLongWait = 8 * kSecond;  // the bench waits 10 s for what follows
constexpr double kMostNumber = 3600;            // seconds that the language can say
constexpr Nanoseconds kLongestPause = 3600 * kSecond;

bool is_value(const std::string& word) {
  return word != "ERROR" && word != "ACK" &&
         std::all_of(word.begin(), word.end(), [](char c) { return c >= 'A' && c <= 'Z'; });
}

// The word as it stands in a step; nothing where none can stand for it.
std::optional<std::string> written_word(const std::string& word) {
  if (frames::is_cut(word)) return std::nullopt;
  std::string text;
  std::string shown;
  for (const char letter : word) {
    const bool ends_line = letter == '\r' || letter == '\n';
    if (letter == '"' || letter == '\\' || ends_line) text += '\\';
    text += letter == '\r' ? 'r' : letter == '\n' ? 'n' : letter;
    if (!ends_line) shown += letter;
  }
  if (frames::printable_sentence(shown) != shown) return std::nullopt;
  const bool is_plain = !word.empty() && word.find_first_of(" \"\\\r\n") == std::string::npos;
  return is_plain ? word : '"' + text + '"';
}

std::string in_words(const Numbers& numbers) {
  if (numbers.count == 0) return "";
  const std::string first = std::to_string(numbers.first);
  if (numbers.first == numbers.last) return "frame " + first + ": ";
  return "frames " + first + " to " + std::to_string(numbers.last) + ": ";
}

// Nothing where a value cannot be written.
std::optional<std::string> filled(const std::string& form, const std::vector<std::string>& values) {
  std::istringstream words(form);
  std::string text;
  auto value = values.begin();
  for (std::string word; words >> word;) {
    const auto written =
        is_value(word) && value != values.end() ? written_word(*value++) : std::optional(word);
    if (!written) return std::nullopt;
    text += (text.empty() ? "" : " ") + *written;
  }
  return text;
}

}  // namespace

bool can_be_written(const std::string& word) {
  return written_word(word).has_value();
}

std::string in_tenths(double number) {
  std::ostringstream text;
  text << std::round(std::clamp(number, 0.0, kMostNumber) * 10) / 10;
  return text.str();
}

void Script::add(const Line& where, const std::string& form, Values values, const Numbers& numbers) {
  const auto text = filled(form, values);
  if (!text) return cannot_say(where.at, "a text of the wire in: " + form, numbers);
  lines_.push_back(where);
  lines_.back().text = *text;
  if (where.kind == Kind::kActs) acts_.insert(where.at);
}

void Script::sets(const std::string& form, Values values, const Numbers& numbers) {
  add({kBeforeAll, kBeforeAll, Kind::kWaits, ""}, form, values, numbers);
}

void Script::starts(const std::string& form, Values values) {
  add({kBeforeAll + 1, kBeforeAll, Kind::kWaits, ""}, form, values, {});
}

void Script::waits(Nanoseconds at, const std::string& form, Values values, const Numbers& numbers) {
  add({at, at, Kind::kWaits, ""}, form, values, numbers);
}

void Script::follows(Nanoseconds at, const std::string& form, Values values, const Numbers& numbers) {
  add({at, at, Kind::kFollows, ""}, form, values, numbers);
}

void Script::acts(Nanoseconds at, Nanoseconds until, const std::string& form, Values values,
                  const Numbers& numbers) {
  add({at, std::max(at, until), Kind::kActs, ""}, form, values, numbers);
}

void Script::cannot_say(Nanoseconds at, const std::string& what, const Numbers& numbers) {
  ++left_out_;
  lines_.push_back({at, at, Kind::kComment, "# " + in_words(numbers) + frames::printable_sentence(what)});
}

bool Script::has_act_between(Nanoseconds from, Nanoseconds until) const {
  const auto act = acts_.upper_bound(from);
  return act != acts_.end() && *act < until;
}

Scenario Script::written(const std::string& title, Nanoseconds start) {
  std::stable_sort(lines_.begin(), lines_.end(),
                   [](const Line& one, const Line& other) { return one.at < other.at; });
  Scenario scenario = {"# " + title + "\n", left_out_};
  Nanoseconds now = start;
  for (const Line& line : lines_) {
    Nanoseconds pause = std::min(line.at - std::min(now, line.at), kLongestPause);
    if (line.kind == Kind::kFollows) pause -= kLongWait;
    if ((line.kind == Kind::kActs || line.kind == Kind::kFollows) && pause >= kShortestPause)
      scenario.text += "bench waits " + in_tenths(static_cast<double>(pause) / kSecond) + " s\n";
    scenario.text += line.text + '\n';
    now = std::max(now, line.until);
  }
  return scenario;
}

}  // namespace scenario
