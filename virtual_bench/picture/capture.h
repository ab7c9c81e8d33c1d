#ifndef PICTURE_CAPTURE_H
#define PICTURE_CAPTURE_H

#include <cstddef>
#include <string>
#include <vector>

#include "picture/event.h"

namespace picture {

struct Frame {
  std::size_t number = 0;  // among the frames, from 1
  Microseconds at = 0;
  std::string bytes;
};

struct Capture {
  std::vector<Frame> frames;
  bool whole = false;  // the file was one of frames, and complete
};

// Reads the Ethernet frames of a file's contents (record/reader.h). Of a file that is cut short or goes wrong, the
// frames before that place.
Capture read_capture(const std::string& contents);

}  // namespace picture

#endif
