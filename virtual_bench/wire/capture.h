#ifndef WIRE_CAPTURE_H
#define WIRE_CAPTURE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "wire/output_file.h"

// A file of Ethernet frames with their times, in the classic pcap format, in the byte order of this machine:
//
//   file header   4  magic 0xa1b2c3d4 (times in microseconds)
//                 2  major version 2
//                 2  minor version 4
//                 4  offset of local time 0
//                 4  accuracy of times 0
//                 4  longest frame 65535
//                 4  link type 1 (Ethernet)
//   each frame    4  seconds since the epoch
//                 4  microseconds
//                 4  bytes that follow
//                 4  bytes that the frame had on the wire (the same)
//                    the frame
//
// A frame is received right where it is written from: ask for room, put it there, then keep it.
class Capture {
 public:
  static constexpr std::size_t kLongestFrameBytes = 65535;

  // Throws as OutputFile does, as do room and flush.
  explicit Capture(const std::string& path);

  // Space for kLongestFrameBytes. It is valid until the next call of room or flush.
  char* room();
  // Makes the first bytes of the room the next frame and returns them: valid as long as the room is.
  // The time is in microseconds since the epoch; length is at most kLongestFrameBytes.
  std::string_view keep(std::size_t length, std::uint64_t time_microseconds);
  // How many frames were kept: the number of the last one, counted from 1.
  std::uint64_t count() const { return count_; }
  // Writes what is buffered. Until then the file ends at an earlier frame, always a whole one.
  void flush();

 private:
  OutputFile file_;
  std::vector<char> buffer_;
  std::size_t used_ = 0;  // bytes of the buffer that wait to be written
  std::uint64_t count_ = 0;
};

#endif
