#ifndef RECORD_READER_H
#define RECORD_READER_H

#include <cstddef>
#include <cstdint>
#include <istream>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "record/input.h"
#include "record/item.h"

namespace record {

// What the file begins with is no record: "expected a pcapng or pcap file, found text".
struct NotARecord : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// How an interface counts time: ticks of 10^-exponent or 2^-exponent seconds, from the offset on.
struct Clock {
  bool is_binary = false;
  unsigned exponent = 6;
  std::int64_t offset_seconds = 0;

  // What is beyond the range of Nanoseconds becomes its end.
  Nanoseconds nanoseconds(std::uint64_t ticks) const;
};

// Reads a file of frames and entries, item by item: pcapng and classic pcap of either order of bytes, whatever made
// it. Its memory stays below 64 MiB whatever a file says, and mostly takes 64 KiB. It reads no further than it must, so
// that a file that is still being written can be followed through a pipe.
class Reader {
 public:
  static constexpr std::size_t kMostBlockBytes = std::size_t{16} << 20;  // a larger one is a problem
  static constexpr std::size_t kMostInterfaces = 65536;                  // of a section, likewise

  // The stream must outlive it, be binary, and be at the file's beginning. Throws NotARecord. What the stream's
  // buffer throws is told as a problem.
  explicit Reader(std::istream& file);

  // The next item; nothing at the end. The bytes of a frame are valid until the next call.
  std::optional<Item> next();

  // Where and why the items ended before the file's end: "byte 4096: the file is cut short: 12 of 136 bytes of the
  // block are there". Empty: they did not. Of a record of ours it also says that it breaks off
  // between two blocks, which shows by the statistics at its end.
  const std::string& problem() const { return problem_; }

 private:
  struct Source {  // what frames need to know of their interface
    std::uint16_t link_type = kEthernet;
    std::uint32_t snap_length = 0;
    Clock clock;
    std::optional<std::uint64_t> counted_at;  // frames and entries before its last statistics
  };

  void recognise();
  template <typename Number>
  Number number(std::string_view bytes, std::size_t offset) const;
  std::string_view whole(std::size_t size, const char* what);

  std::optional<Item> next_of_pcap();
  Interface pcap_header();

  std::optional<Item> next_of_pcapng();
  std::string_view block();
  std::optional<Item> item_in(std::uint32_t type, std::string_view contents);
  template <typename Take>
  void each_option(std::string_view options, Take take) const;
  std::string_view contents_after(std::string_view contents, std::size_t fixed_bytes) const;
  void begin_section(std::string_view contents);
  Interface interface_in(std::string_view contents);
  Frame packet(std::string_view contents, bool is_obsolete);
  Frame simple(std::string_view contents);
  std::uint64_t ticks_at(std::string_view contents) const;
  Frame frame_of(std::uint32_t interface, std::uint64_t ticks) const;
  void put_bytes(std::string_view rest, std::size_t kept, std::size_t size, Frame* frame) const;
  Entry entry_in(std::string_view contents);
  Statistics statistics_in(std::string_view contents);
  const Source& source(std::uint32_t interface) const;
  void check_end() const;

  Input input_;
  bool is_pcap_ = false;
  bool is_turned_ = false;       // the section has the other order of bytes
  bool is_ours_ = false;         // the section was made by Writer, with the statistics of each interface last
  std::vector<Source> sources_;  // the section's interfaces
  std::uint32_t sources_before_ = 0;  // interfaces of earlier sections
  std::uint64_t block_at_ = 0;        // the place in the file of the block that is read
  std::uint64_t numbered_ = 0;        // frames and entries so far
  Nanoseconds latest_ = 0;            // time of the last of them
  bool has_ended_ = false;
  std::string problem_;
};

}  // namespace record

#endif
