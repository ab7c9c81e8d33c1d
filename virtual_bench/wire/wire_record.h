#ifndef WIRE_WIRE_RECORD_H
#define WIRE_WIRE_RECORD_H

#include <cstdint>
#include <fstream>
#include <istream>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "record/item.h"
#include "record/writer.h"
#include "wire/damage.h"

// What a wire carried, in a file of record/writer.h: each link is an interface, frames stand there as they enter,
// and, as entries behind them, what became of some and when the cable was out. Frames are counted by themselves,
// from 1.
class WireRecord {
 public:
  // links: their names. Throws std::runtime_error with one line that names the file, as flush does.
  WireRecord(const std::string& path, const std::vector<std::string>& links);

  // A frame enters its link; its number.
  std::uint64_t add_frame(std::size_t link, std::string_view frame, record::Nanoseconds at);
  void add_fate(std::uint64_t frame, Fate fate, record::Nanoseconds at);
  // The cable of the first link is out from then on.
  void add_cut(record::Nanoseconds lasts, record::Nanoseconds at);
  // Writes what is buffered.
  void flush();

 private:
  void check() const;

  const std::string path_;
  std::vector<char> buffer_;
  std::ofstream file_;
  record::Writer writer_;
  std::uint64_t frames_ = 0;
};

// What such a file says besides its frames; of one that was cut short, what is before the cut.
struct WireFates {
  std::map<std::uint64_t, std::vector<std::string>> of_frames;  // by number: as comments (record/run_entry.h)
  std::vector<record::Entry> cuts;
};
WireFates read_fates(std::istream& wire_record);

#endif
