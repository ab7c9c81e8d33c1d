#ifndef PICTURE_EVENT_H
#define PICTURE_EVENT_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace picture {

using Microseconds = std::int64_t;  // since the epoch, or a length of time

// Whose life line, from left to right.
enum class Lane { kBoard, kStation, kUnit, kPptServer };

// What the wire did to a frame, or to any frame of a datagram.
struct Fate {
  bool lost = false;
  bool duplicated = false;
  bool swapped = false;
};

// One packet of a transfer that is drawn as a whole.
struct BundlePacket {
  Microseconds at = 0;
  bool is_data = false;        // otherwise an ACK
  bool is_again = false;       // the same block or ACK was sent before
  std::size_t ordinal = 0;     // of the block, from 1, beyond the wrap of the number on the wire
  std::size_t byte_count = 0;  // of the block
  Fate fate;
};

// The blocks and ACKs of a transfer, in the order in which they were sent.
struct Bundle {
  std::string name;
  std::size_t block_size = 0;
  std::size_t blocks = 0;
  std::size_t byte_count = 0;  // each block once
  bool finished = false;       // the short block was acknowledged
  std::vector<BundlePacket> packets;
};

// Something that gets a row of the picture.
struct Event {
  enum class Kind { kArrow, kBundle, kNote, kCut, kPause, kEnd };
  enum class Look { kDatagram, kVerdict, kBroadcast, kTcp, kBoard, kUnreachable };

  Kind kind = Kind::kArrow;
  Microseconds from = 0;
  Microseconds until = 0;  // of the last of several that are drawn as one; otherwise `from`
  Lane source = Lane::kStation;
  Lane target = Lane::kStation;
  Look look = Look::kDatagram;
  std::string text;  // printable, not wrapped
  Fate fate;         // of an arrow; lost: every one of `times` was

  // How many equal ones this stands for, and what the wire did to them.
  std::size_t times = 1;
  std::size_t times_lost = 0;
  std::size_t times_duplicated = 0;
  std::size_t times_swapped = 0;

  // kBundle: the packets [first, last) of it.
  std::shared_ptr<const Bundle> bundle;
  std::size_t first = 0;
  std::size_t last = 0;
};

inline Event event_of(Event::Kind kind, Microseconds from, Microseconds until, const std::string& text) {
  Event event;
  event.kind = kind;
  event.from = from;
  event.until = until;
  event.text = text;
  return event;
}

}  // namespace picture

#endif
