#ifndef RECORD_JOURNAL_TEXT_H
#define RECORD_JOURNAL_TEXT_H

#include <cstddef>
#include <string>
#include <string_view>

#include "record/item.h"

// The Journal Export Format (https://systemd.io/JOURNAL_EXPORT_FORMATS/): how `journalctl -o export` and a record
// keep an entry. A field is one of
//
//   NAME=value\n                                     plain UTF-8 without control characters, but tabs
//   NAME\n, 8 bytes: length, the least first, value\n  any bytes
//
// and an empty line ends the entry.
namespace record::journal_text {

// An entry is of no more than these; what a longer one has beyond is not written.
constexpr std::size_t kMostFields = 1024;  // as the journal itself
constexpr std::size_t kMostBytesWritten = 262144;

// Appends the entry to the text, its time first, without the empty line. Left out: fields whose name cannot be
// one, and __REALTIME_TIMESTAMP; the value that goes beyond kMostBytesWritten is cut, and what follows it left out.
void append(const Entry& entry, std::string* text);

enum class Taken {
  kField,     // which is in the entry now
  kEntryEnd,  // an empty line
  kMore,      // nothing: what is there ends within it
  kWrong,     // nothing: it is none, or too large
};

// Moves the text's first field into the entry, where the time is that of its last field, or stays as it was.
// `most_bytes` is the length that a field may have.
Taken take_field(std::string_view* text, std::size_t most_bytes, Entry* entry);

}  // namespace record::journal_text

#endif
