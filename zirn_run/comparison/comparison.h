#ifndef COMPARISON_COMPARISON_H
#define COMPARISON_COMPARISON_H

#include <cstddef>
#include <optional>
#include <string>

#include "story/reading.h"

// Two runs, held against each other by what they mean: what each unit reads, with options, order and outcome; its
// verdicts and what became of them; questions and answers; relayed datagrams; board calls; lines; how the station
// ended; whose fault it is. When something happened, and how often it was repeated, is no difference. What one of
// the two records cannot know (a capture of one network, without lines, of a station whose board nobody watched)
// is not compared.
namespace comparison {

using frames::Numbers;
using record::Nanoseconds;

// One thing that happened, and what shows it.
struct Event {
  std::string sentence;  // "unit reads kernel.img: arrives, 612 bytes"; safe in a terminal
  Numbers frames;
  Numbers lines;
  std::size_t step = story::kNone;  // of the story; kNone: no step tells of it
  Nanoseconds at = 0;
};

// At least one of the two is there, and they are not the same.
struct Difference {
  std::optional<Event> first;
  std::optional<Event> other;
  // Where each story comes to it. Of one that has nothing there: the last step that it has in common with the other.
  // kNone: before the first step.
  std::size_t first_step = story::kNone;
  std::size_t other_step = story::kNone;
};

// The earliest one; nothing where the same things happened. Of readings that have ended.
std::optional<Difference> first_difference(const story::Reading& first, const story::Reading& other);

// "unit reads kernel.img: arrives, 612 bytes (frames 3 to 9)"
std::string in_words(const std::optional<Event>& event);

}  // namespace comparison

#endif
