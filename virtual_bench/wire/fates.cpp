#include "wire/fates.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <fstream>
#include <iterator>

namespace {

constexpr std::uint64_t kMicrosecondsPerSecond = 1000000;
constexpr const char* kWords[] = {"lost", "duplicated", "swapped"};  // in the order of Fate

std::string in_seconds(std::uint64_t microseconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%" PRIu64 ".%06" PRIu64, microseconds / kMicrosecondsPerSecond,
                microseconds % kMicrosecondsPerSecond);
  return text;
}

}  // namespace

void Fates::note(std::uint64_t number, Fate fate) {
  buffer_ += std::to_string(number) + " " + kWords[static_cast<std::size_t>(fate)] + "\n";
}

void Fates::note_cut(std::uint64_t from_microseconds, std::uint64_t until_microseconds) {
  buffer_ += "cut " + in_seconds(from_microseconds) + " " + in_seconds(until_microseconds) + "\n";
}

void Fates::flush() {
  file_.append(buffer_);
  buffer_.clear();
}

RecordedFates read_fates(const std::string& path) {
  RecordedFates fates;
  std::ifstream file(path);
  for (std::string line; std::getline(file, line) && !file.eof();) {
    std::uint64_t from = 0, from_rest = 0, until = 0, until_rest = 0;
    if (std::sscanf(line.c_str(), "cut %" SCNu64 ".%" SCNu64 " %" SCNu64 ".%" SCNu64, &from, &from_rest,
                    &until, &until_rest) == 4) {
      fates.cuts.push_back(
          {from * kMicrosecondsPerSecond + from_rest, until * kMicrosecondsPerSecond + until_rest});
      continue;
    }
    const auto word = std::find(std::begin(kWords), std::end(kWords), line.substr(line.find(' ') + 1));
    if (word == std::end(kWords)) continue;
    fates.frames.push_back({std::stoull(line), static_cast<Fate>(word - std::begin(kWords))});
  }
  return fates;
}
