#include "picture/run_folder.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>

namespace picture {

namespace {

constexpr std::size_t kMaxSecondDigits = 11;
constexpr std::size_t kMicrosecondDigits = 6;
constexpr std::size_t kMaxFrameDigits = 18;

bool all_digits(const std::string& text) {
  return text.find_first_not_of("0123456789") == std::string::npos;
}

std::vector<std::string> lines_of(const std::string& contents) {
  std::vector<std::string> lines;
  std::istringstream input(contents);
  for (std::string line; std::getline(input, line);) lines.push_back(line);
  return lines;
}

// Cuts the first word off the line, with one blank behind it.
std::string take_word(std::string* line) {
  const std::size_t end = std::min(line->find(' '), line->size());
  std::string word = line->substr(0, end);
  line->erase(0, end + 1);
  return word;
}

void add_fate(const std::string& number, const std::string& what, Fates* fates) {
  if (number.empty() || number.size() > kMaxFrameDigits || !all_digits(number)) return;
  Fate fate;
  if (what == "lost") {
    fate.lost = true;
  } else if (what == "doubled") {
    fate.doubled = true;
  } else if (what == "swapped") {
    fate.swapped = true;
  } else {
    return;
  }
  Fate& all = fates->of_frame[std::stoull(number)];
  all.lost = all.lost || fate.lost;
  all.doubled = all.doubled || fate.doubled;
  all.swapped = all.swapped || fate.swapped;
}

void take_port(const std::string& value, std::uint16_t* port) {
  *port = static_cast<std::uint16_t>(std::strtol(value.c_str(), nullptr, 10));
}

// The value of "-n 70", "-n70", "-n=70", "--port 70" or "--port=70" at this place. Nothing for another
// option.
std::optional<std::string> value_at(const std::vector<std::string>& words, std::size_t place,
                                    const std::string& letter, const std::string& name) {
  const std::string& word = words[place];
  const std::string next = place + 1 < words.size() ? words[place + 1] : "";
  if (word == letter || word == name) return next;
  if (word.rfind(name + "=", 0) == 0) return word.substr(name.size() + 1);
  if (word.rfind(letter, 0) != 0) return std::nullopt;
  return word.substr(letter.size() + (word[letter.size()] == '=' ? 1 : 0));
}

}  // namespace

std::string contents_of(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

RunFolder read_run_folder(const std::string& folder) {
  RunFolder run;
  run.facts = facts_in(contents_of(folder + "/run"));
  run.station_lines = timed_lines_in(contents_of(folder + "/station.log"));
  run.board_calls = timed_lines_in(contents_of(folder + "/board.log"));
  run.fates = fates_in(contents_of(folder + "/fates"));
  return run;
}

std::map<std::string, std::string> facts_in(const std::string& contents) {
  std::map<std::string, std::string> facts;
  for (std::string line : lines_of(contents)) {
    const std::string key = take_word(&line);
    if (!key.empty()) facts[key] = line;
  }
  return facts;
}

std::vector<TimedLine> timed_lines_in(const std::string& contents) {
  std::vector<TimedLine> result;
  for (std::string line : lines_of(contents)) {
    const std::optional<Microseconds> at = time_in(take_word(&line));
    if (at) result.push_back({*at, line});
  }
  return result;
}

Fates fates_in(const std::string& contents) {
  Fates fates;
  for (std::string line : lines_of(contents)) {
    const std::string first = take_word(&line);
    const std::string second = take_word(&line);
    if (first != "cut") {
      add_fate(first, second, &fates);
      continue;
    }
    const std::optional<Microseconds> from = time_in(second);
    const std::optional<Microseconds> until = time_in(take_word(&line));
    if (from && until && *from <= *until) fates.cuts.push_back({*from, *until});
  }
  return fates;
}

std::optional<Microseconds> time_in(const std::string& text) {
  const std::size_t point = std::min(text.find('.'), text.size());
  const std::string seconds = text.substr(0, point);
  std::string decimals = point < text.size() ? text.substr(point + 1) : "";
  if (seconds.empty() || seconds.size() > kMaxSecondDigits || !all_digits(seconds + decimals))
    return std::nullopt;
  decimals.resize(kMicrosecondDigits, '0');
  return std::stoll(seconds + decimals);
}

Ports ports_in(const std::string& command_line) {
  std::istringstream input(command_line);
  const std::vector<std::string> words{std::istream_iterator<std::string>(input), {}};
  Ports ports;
  for (std::size_t i = 0; i < words.size(); ++i) {
    if (const auto tftp = value_at(words, i, "-n", "--port")) take_port(*tftp, &ports.tftp);
    if (const auto ppt = value_at(words, i, "-p", "--serverport")) take_port(*ppt, &ports.ppt);
    if (const auto message = value_at(words, i, "-m", "--msgport")) take_port(*message, &ports.message);
  }
  return ports;
}

std::string fact(const RunFolder& run, const std::string& key) {
  const auto found = run.facts.find(key);
  return found == run.facts.end() ? std::string() : found->second;
}

}  // namespace picture
