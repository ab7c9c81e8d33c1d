#ifndef WIRE_FATES_H
#define WIRE_FATES_H

#include <cstdint>
#include <string>
#include <vector>

#include "wire/damage.h"
#include "wire/output_file.h"

// What the wire did to frames, in a file with one line of text each, in the order in which it happened:
//
//   N lost           it did not arrive: by chance, by a cut, or because the device at the far end took none
//   N duplicated     it was sent twice
//   N swapped        it was held, to go out after the next frame of its direction
//   cut FROM UNTIL   the cable was pulled; seconds since the epoch, with six decimals
//
// N counts the frames of the capture from 1.
class Fates {
 public:
  // Throws as OutputFile does, as does flush.
  explicit Fates(const std::string& path) : file_(path) {}

  void note(std::uint64_t number, Fate fate);
  // Times in microseconds since the epoch.
  void note_cut(std::uint64_t from_microseconds, std::uint64_t until_microseconds);
  // Writes what is buffered.
  void flush();

 private:
  OutputFile file_;
  std::string buffer_;
};

struct RecordedFates {
  struct FrameFate {
    std::uint64_t number;
    Fate fate;
  };
  struct Cut {
    std::uint64_t from_microseconds;
    std::uint64_t until_microseconds;
  };
  std::vector<FrameFate> frames;
  std::vector<Cut> cuts;
};

// What such a file holds; of one that was cut short, the whole lines, and nothing where there is none.
RecordedFates read_fates(const std::string& path);

#endif
