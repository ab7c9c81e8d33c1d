#ifndef SCENARIO_HABITS_H
#define SCENARIO_HABITS_H

#include <string_view>

namespace scenario {

// How a boot loader reads, as docs/clients.md has it from the wire: what the bench's unit is like, and what a unit of a
// record is recognised by.
struct Habit {
  // Where a tsize of 0 is acknowledged: it reads the empty file like any other; or leaves its block unacknowledged; or
  // leaves at once, and has no file.
  enum class AtEmptyFile { kReads, kLeavesBlock, kLeaves };

  std::string_view name;
  std::string_view options;  // in their order, each with its value; "-": only where the read has one
  double request_seconds;    // without an answer, until it repeats its request
  double ack_seconds;        // without a block, until it repeats its last ACK
  double growth;             // so many times as long it waits the next time,
  double most_seconds;       // but no longer than this
  double patience_seconds;   // without anything new, until it gives up
  bool takes_any_port;       // its blocks; else those of the first answer's
  AtEmptyFile at_empty_file;
};

// The first one is the station's own client, which asks once, waits 5 s, and repeats an ACK nine times.
inline constexpr Habit kHabits[] = {
    {"zirn", "timeout 5 blksize 512 tsize 0", 5, 5, 1, 5, 5, true, Habit::AtEmptyFile::kReads},
    {"curl", "tsize 0 blksize 512 timeout 6", 6.5, 72, 2, 7, 91, true, Habit::AtEmptyFile::kLeaves},
    {"tftp-hpa", "blksize - timeout -", 5, 5, 1, 5, 25, true, Habit::AtEmptyFile::kReads},
    {"atftp", "timeout - blksize -", 5, 5, 1, 5, 30, false, Habit::AtEmptyFile::kReads},
    {"busybox", "blksize - tsize 0", 0.1, 0.1, 1.5, 2, 12.9, false, Habit::AtEmptyFile::kReads},
    {"u-boot", "timeout 5 blksize 1468", 5, 5, 1, 5, 55, false, Habit::AtEmptyFile::kReads},
    {"ipxe", "blksize 1432 tsize 0", 0.3, 0.3, 2, 17, 17, false, Habit::AtEmptyFile::kLeavesBlock},
};

}  // namespace scenario

#endif
