#ifndef RECORD_ITEM_H
#define RECORD_ITEM_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

// What a record file is made of, in the file's order. A frame and an entry have a number each, counted together
// from 1: it is the one that Wireshark shows.
namespace record {

using Nanoseconds = std::int64_t;  // since the epoch, or a length of time

// How a frame begins, by the numbers that captures use (https://www.tcpdump.org/linktypes.html). A frame of any
// other kind can be kept and is not looked into.
enum LinkType : std::uint16_t { kEthernet = 1, kLinuxCooked = 113, kLinuxCooked2 = 276 };

// A network that frames are from. The first one of a file has the index 0.
struct Interface {
  std::string name;    // "lan0"; empty: not known
  std::string filter;  // that chose the frames; empty: none, or not known
  std::uint16_t link_type = kEthernet;
  std::uint32_t snap_length = 0;  // bytes of a frame that are kept at the most; 0: all
};

struct Frame {
  std::uint64_t number = 0;
  std::uint32_t interface = 0;  // its index
  std::uint16_t link_type = kEthernet;
  Nanoseconds at = 0;
  bool is_timed = true;    // false: the file does not say when, and `at` is the time of what stands before it
  std::string_view bytes;  // what is kept of it
  std::uint32_t size = 0;  // bytes that it had on the wire, at least those that are kept
  std::vector<std::string> comments;
};

// An entry of the systemd journal: fields with a name (upper case letters, digits and underscores) and a value
// of any bytes. A name may come more than once.
struct Entry {
  std::uint64_t number = 0;
  Nanoseconds at = 0;  // its __REALTIME_TIMESTAMP, which counts microseconds
  std::vector<std::pair<std::string, std::string>> fields;  // all others, in their order

  // The first value of the field; empty where there is none.
  std::string_view value(std::string_view name) const {
    for (const auto& [field, value] : fields) {
      if (field == name) return value;
    }
    return {};
  }
};

// What became of an interface's frames until then; what is not known is absent.
struct Statistics {
  std::uint32_t interface = 0;
  Nanoseconds at = 0;
  std::optional<std::uint64_t> received;
  std::optional<std::uint64_t> dropped;  // by the kernel, for want of room
};

using Item = std::variant<Interface, Frame, Entry, Statistics>;

}  // namespace record

#endif
