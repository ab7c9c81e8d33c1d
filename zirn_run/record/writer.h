#ifndef RECORD_WRITER_H
#define RECORD_WRITER_H

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>

#include "record/item.h"

namespace record {

extern const char kApplication[];  // "zirn-run 1.0.0"

// Where and with what a record is made; what is empty is left out.
struct Maker {
  std::string hardware;
  std::string os;
  std::string application = kApplication;
};

// Writes a record as docs/run-record.md says: a pcapng file in this machine's order of bytes, times in nanoseconds.
// Each item is given to the stream in one piece, so that a record is readable up to where it breaks off. Whether
// the stream took it is the caller's to look at: nothing is thrown, unless the stream does.
class Writer {
 public:
  // Frames may keep so many bytes; the rest is cut, since Wireshark reads no more.
  static constexpr std::size_t kMostFrameBytes = 262144;
  // Texts may have so many bytes: names, filters, comments; the rest is cut.
  static constexpr std::size_t kMostTextBytes = 65535;

  // Begins the record. The stream must outlive it.
  Writer(std::ostream& file, const Maker& maker);

  // Returns its index. An interface comes before its frames.
  std::uint32_t add(const Interface& interface);
  // A frame is of the interface with its index; its link type is that of the interface, and a time before 1970 is
  // written as 1970. Of its comments the first hundred are written. Returns its number; the one that it has does not
  // matter.
  std::uint64_t add(const Frame& frame);
  // Of its time whole microseconds are written. What cannot be written of it: see journal_text.h. Returns its number.
  std::uint64_t add(const Entry& entry);
  // Those of each interface end the record: without them it breaks off, for a reader.
  void add(const Statistics& statistics);

 private:
  template <typename Number>
  void put(Number number);
  void put(std::string_view bytes);  // filled up
  void put_time(Nanoseconds at);
  void put_option(std::uint16_t code, std::string_view value);
  void put_text(std::uint16_t code, std::string_view text);
  void begin(std::uint32_t type);
  void end();

  std::ostream& file_;
  std::string block_;  // that is being put together
  bool has_options_ = false;
  std::uint32_t interfaces_ = 0;
  std::uint64_t numbered_ = 0;
};

}  // namespace record

#endif
