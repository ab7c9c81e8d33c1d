#ifndef STORY_BOOK_H
#define STORY_BOOK_H

#include <algorithm>
#include <cstddef>
#include <string_view>
#include <utility>
#include <vector>

#include "frames/packet.h"
#include "story/reading.h"

namespace story {

// The reading while it is written. Its lists have a greatest length; what they have no room for is counted.
class Book {
 public:
  static constexpr std::size_t kMaxSteps = 100000;
  static constexpr std::size_t kMaxThreads = 20000;  // of one kind
  static constexpr std::size_t kMaxParties = 256;
  static constexpr std::size_t kOrderWindow = 256;  // steps that a new one may be put before

  Reading reading;

  // Where it stands; kNone when there is no room.
  template <typename Thread>
  std::size_t add(std::vector<Thread>* list, Thread thread) {
    const std::size_t place = add_unmarked(list, std::move(thread), kMaxThreads);
    if (place != kNone) changed(&(*list)[place]);
    return place;
  }
  template <typename Thread>
  std::size_t add_unmarked(std::vector<Thread>* list, Thread thread, std::size_t most) {
    if (list->size() >= most) {
      ++reading.left_out;
      return kNone;
    }
    list->push_back(std::move(thread));
    return list->size() - 1;
  }
  template <typename Thread>
  void changed(Thread* thread) {
    thread->revision = ++reading.revision;
  }

  // A step without a packet.
  static Step step_at(Step::Kind kind, Nanoseconds at);
  std::size_t add_step(Step step);

  std::size_t add_step(Step::Kind kind, const frames::Packet& packet, std::size_t source, std::size_t target,
                       std::size_t thread);
  Step* step(std::size_t place) { return place == kNone ? nullptr : &reading.steps[place]; }
  // One more of what the step stands for. Without a step nothing is done.
  void fold(std::size_t place, const frames::Packet& packet);

  // All that was told of the one party is the other's from now on.
  void merge(std::size_t party, std::size_t into);
};

inline Said said(std::string_view text, std::uint64_t size) {
  return {std::string(text.substr(0, kMaxText)), size};
}

}  // namespace story

#endif
