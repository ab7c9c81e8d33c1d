#ifndef RECORDER_HELD_H
#define RECORDER_HELD_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "record/item.h"
#include "record/writer.h"

namespace recorder {

// Frames and entries that wait until nothing earlier comes any more: frames of two links reach us by the block, and
// the journal hands its lines on up to a quarter of a second after them. What would take more memory than kMostBytes
// is written at once, so that in a flood a line may come after frames that are later.
class Held {
 public:
  static constexpr std::size_t kMostBytes = std::size_t{256} << 10;

  using Told = std::function<void(const record::Item&)>;

  // From now on it writes there, and tells what it writes, with its number.
  void write_to(record::Writer* writer, Told told);
  // A source's frames are of this interface there.
  void set_interface(std::size_t source, std::uint32_t interface) { queue_of(source).interface = interface; }

  // A frame of the source; each source's frames come in the order of their times.
  void add(std::size_t source, record::Nanoseconds at, std::string_view bytes, std::uint32_t size);
  void add(const record::Entry& entry);

  // Writes in the order of time what is not later than that.
  void write_until(record::Nanoseconds until);

  // Written there so far.
  std::uint64_t frames() const { return frames_; }
  std::uint64_t entries() const { return written_entries_; }

 private:
  struct Head {
    record::Nanoseconds at;
    std::uint32_t kept;  // bytes, behind it
    std::uint32_t size;  // on the wire
  };
  struct Queue {
    std::string bytes;
    std::size_t begin = 0;
    std::uint32_t interface = 0;

    bool is_empty() const { return begin == bytes.size(); }
    Head head() const;
  };

  Queue& queue_of(std::size_t source);
  void make_room();
  bool write_first(record::Nanoseconds until);
  void write_frame(Queue* queue);

  record::Writer* writer_ = nullptr;
  Told told_;                  // empty: nobody is told
  std::vector<Queue> queues_;  // by source
  std::multimap<record::Nanoseconds, record::Entry> entries_;
  std::size_t bytes_ = 0;  // that wait, of both
  std::uint64_t frames_ = 0;
  std::uint64_t written_entries_ = 0;
};

}  // namespace recorder

#endif
