#include "bench/scenario.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <set>
#include <sstream>
#include <string>
#include <string_view>

#include "fuzz/any_run.h"
#include "fuzz/script.h"
#include "record/reader.h"
#include "scenario/scenario.h"

// A run of any capture, or any run, as a scenario: the bench understands every line of it.

namespace {

constexpr std::string_view kCaptures[] = {"\x0a\x0d\x0d\x0a", "\xd4\xc3\xb2\xa1", "\xa1\xb2\xc3\xd4",
                                          "\x4d\x3c\xb2\xa1", "\xa1\xb2\x3c\x4d"};

bool is_capture(const std::string& bytes) {
  return std::any_of(std::begin(kCaptures), std::end(kCaptures),
                     [&](std::string_view magic) { return bytes.compare(0, magic.size(), magic) == 0; });
}

void tell_capture(const std::string& bytes, story::Story* story) {
  std::istringstream file(bytes);
  record::Reader reader(file);
  while (const auto item = reader.next()) story->take(*item);
}

void tell_any_run(const std::uint8_t* bytes, std::size_t size, story::Story* story) {
  AnyRun run(bytes, size);
  while (run.tell(story)) continue;
}

bool is_comment(const std::string& line) {
  return line[0] == '#';
}

void check_step(const std::string& line) {
  constexpr std::size_t kMostKnown = 10000;
  static std::set<std::string> known;  // most are the same in every run
  if (known.count(line) > 0) return;
  try {
    require(parse_scenario(line, "written").steps.size() == 1, "a line is a step");
  } catch (const ScenarioError& error) {
    std::fprintf(stderr, "%s\n%s\n", error.what(), line.c_str());
    require(false, "the bench understands what is written");
  }
  if (known.size() == kMostKnown) known.clear();
  known.insert(line);
}

void check(const scenario::Scenario& written) {
  for (const char letter : written.text)
    require(letter == '\n' || (static_cast<unsigned char>(letter) >= ' ' && letter != 0x7f),
            "nothing moves the cursor");
  require(!written.text.empty() && written.text.back() == '\n', "every line is whole");
  std::size_t comments = 0, steps = 0;
  std::istringstream lines(written.text);
  for (std::string line; std::getline(lines, line); is_comment(line) ? ++comments : ++steps) {
    if (!is_comment(line)) check_step(line);
  }
  require(comments == written.left_out + 1, "a comment stands for each thing that is left out");
  require(steps > 0, "there are steps");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  const std::string input(reinterpret_cast<const char*>(bytes), size);
  story::Story story;
  if (is_capture(input)) {
    tell_capture(input, &story);
  } else {
    tell_any_run(bytes, size, &story);
  }
  story.finish(false);
  check(scenario::scenario_of(story.reading()));
  return 0;
}
