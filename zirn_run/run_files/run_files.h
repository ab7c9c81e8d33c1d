#ifndef RUN_FILES_RUN_FILES_H
#define RUN_FILES_RUN_FILES_H

#include <cstdint>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "record/item.h"
#include "story/story.h"

// Tells the story of a run from the files that it is kept in.
namespace run_files {

// A name of "-" is standard input. Any file may be packed by gzip.
struct Files {
  // Frames, and what else is in a record; with a log: not standard input. Empty: there is only a journal or a log, of
  // which the last run counts.
  std::string record;
  std::optional<std::string> journal;  // `journalctl -o export`
  std::optional<std::string> log;      // the station's lines without times; not beside a journal
  // Of a log, only so many lines are held as LinePlacer says (placed_lines.h); of a journal without a record, 32 MiB of
  // a run. What is beyond is counted.
};

// One sentence that begins with the file's name: "a.pcapng: No such file or directory".
struct NotReadable : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// A journal or a log beside a record that has lines itself; says in which.
struct NotTogether : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Called every now and then, with how many frames and entries were read.
using Progress = std::function<void(std::uint64_t)>;

// Called with each frame and entry of the record, before the story is told of it.
using Watch = std::function<void(const record::Item&)>;

// Entries of a journal that are further away from the record's frames than this belong to other runs.
inline constexpr record::Nanoseconds kMostDistance = 10'000'000'000;

// Tells the story, and that it has ended. Entries of the journal are told in the order of time among the record's
// frames, numbered by themselves; lines of a log as placed_lines.h says. Returns what the reader of a result must
// know, sentences that begin with a file's name: where a file is cut short or damaged, frames of a kind that is
// not looked into, packets that are not whole, and a journal or log that has nothing of the run. Throws NotReadable,
// also where a record, or a journal or log by itself, holds nothing of a run, and where a journal or log is none.
// Throws NotTogether.
std::vector<std::string> tell(const Files& files, story::Story* story, const Progress& progress = {},
                              const Watch& watch = {});

}  // namespace run_files

#endif
