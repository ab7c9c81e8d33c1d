#ifndef RECORDER_RECORDER_H
#define RECORDER_RECORDER_H

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// Records a run of a station as it happens: frames by libpcap, lines from the journal or a log. One process and one
// thread for all links, which takes no more than 8 MiB with all of its rings, and does nothing to the run.
namespace recorder {

struct Options {
  std::vector<std::string> links;  // -i
  // Lines from one of the two, or none:
  std::string unit;  // --unit: of this systemd unit, until it ends
  std::string log;   // --log: those that are added to this file,
  pid_t pid = 0;     // --pid: until this process ends; 0: until a signal
  // Frames: those of the filter, or of the station with these options, or of the unit's.
  std::string filter;                               // --filter
  std::optional<std::vector<std::string>> station;  // behind "--"
  bool is_whole = false;                            // --whole: file contents, too
  std::string output;                               // -o: a file, or "-"
  // --service: instead, one run into this folder, which is kept in order; see runs.h.
  bool is_service = false;
  std::string folder = "/var/lib/zirn-runs";     // --folder
  std::uint64_t limit = std::uint64_t{2} << 30;  // --limit: bytes of the folder
};

// Records until SIGINT or SIGTERM comes, or the station has ended: exit status 0. 2: the options contradict each other
// or the filter is wrong. 3: no link can be recorded, or a file cannot be read or written; the record has what came
// before. What went wrong and what the kernel dropped is told on standard error.
int record(const Options& options);

// Tells systemd, where it has started us, that the service is ready: it records, or leaves that to another.
void notify_ready();

class Run;

// Begins the run and records it until its end. Of the options links, unit (whose journal the run's lines are), station,
// filter, is_whole and output count. False: not all could be recorded, which is told on standard error. Throws what is
// wrong with the filter or the file, and what the run throws when it is begun: no run has begun then, or it has ended.
bool record(const Options& options, Run* run);

}  // namespace recorder

#endif
