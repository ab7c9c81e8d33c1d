#include "wire/fates.h"

#include <cinttypes>
#include <cstdio>

namespace {

const char* word_for(Fate fate) {
  switch (fate) {
    case Fate::kLost:
      return "lost";
    case Fate::kDoubled:
      return "doubled";
    case Fate::kSwapped:
      return "swapped";
  }
  return "";
}

std::string in_seconds(std::uint64_t microseconds) {
  constexpr std::uint64_t kMicrosecondsPerSecond = 1000000;
  char text[32];
  std::snprintf(text, sizeof text, "%" PRIu64 ".%06" PRIu64, microseconds / kMicrosecondsPerSecond,
                microseconds % kMicrosecondsPerSecond);
  return text;
}

}  // namespace

void Fates::note(std::uint64_t number, Fate fate) {
  buffer_ += std::to_string(number) + " " + word_for(fate) + "\n";
}

void Fates::note_cut(std::uint64_t from_microseconds, std::uint64_t until_microseconds) {
  buffer_ += "cut " + in_seconds(from_microseconds) + " " + in_seconds(until_microseconds) + "\n";
}

void Fates::flush() {
  file_.append(buffer_);
  buffer_.clear();
}
