#ifndef PICTURE_CAPTURE_H
#define PICTURE_CAPTURE_H

#include <cstddef>
#include <string_view>
#include <vector>

#include "picture/event.h"

namespace picture {

struct Frame {
  std::size_t number = 0;  // in the capture, from 1
  Microseconds at = 0;
  std::string_view bytes;  // into the file's contents
};

struct Capture {
  std::vector<Frame> frames;
  bool whole = false;  // the file had a header, and its last record was complete
};

// Reads the contents of a classic pcap file (Ethernet, microseconds) of either byte order. Of a file that is
// cut short or goes wrong, the frames before that place. The contents must outlive the result.
Capture read_capture(std::string_view contents);

}  // namespace picture

#endif
