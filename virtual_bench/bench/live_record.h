#ifndef BENCH_LIVE_RECORD_H
#define BENCH_LIVE_RECORD_H

#include <cstdint>
#include <fstream>
#include <optional>
#include <string>

#include "record/run_entry.h"
#include "record/writer.h"

// The record of a run while it goes on, for who watches it: what the wire has written so far, and what happens besides,
// as it comes. What becomes of frames is not in it. Written only where the environment has BENCH_LIVE, a file's name.
class LiveRecord {
 public:
  // wire_record: the file that the wire writes, or will.
  explicit LiveRecord(std::string wire_record);

  // at: in microseconds since the epoch.
  void add(const record::RunEntry& said, std::int64_t at);
  // Takes over what the wire has written since the last time, as far as it is whole.
  void look();

 private:
  const std::string wire_record_;
  std::streamoff taken_ = 0;
  std::ofstream file_;
  std::optional<record::Writer> writer_;
};

#endif
