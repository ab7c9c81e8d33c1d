#ifndef DATABASE_RUNS_H
#define DATABASE_RUNS_H

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "database/rows.h"

namespace soci {
class session;
}

// What the database tells, within Database::read. Rows are given one by one, and are not kept: the memory that this
// takes does not grow with them.
namespace database {

// All runs by their beginnings, those without one first; of several that begin at once the one collected first.
void each_run(soci::session& session, const std::function<void(const Run&)>& take);
// Those of them that did not pass.
void each_run_not_passed(soci::session& session, const std::function<void(const Run&)>& take);

// What else is known of a run, in order.
std::vector<Read> reads_of(soci::session& session, long long run);
std::vector<Step> steps_of(soci::session& session, long long run);
std::vector<Finding> findings_of(soci::session& session, long long run);
// What `zirn-run explain --json` said of it.
std::string json_of(soci::session& session, long long run);

// The files that are no run, by host and path.
void each_unreadable(soci::session& session, const std::function<void(const File&)>& take);

// What runs are counted by. A run without a key of this kind (no beginning, no failed step) has none.
enum class Key { kDay, kStation, kVerdict, kOwner, kCause, kFailedStep };

struct Sum {
  std::vector<std::optional<std::string>> keys;  // as they were asked for
  long long runs = 0;
  long long passed = 0;
  long long failed = 0;
  long long none = 0;  // without a final verdict
  long long frames_lost = 0;
  long long blocks_repeated = 0;
  long long incomplete = 0;            // runs whose record lacks something
  double duration = 0;                 // seconds
  std::optional<std::string> started;  // the latest of them
};

// Of each combination of keys that there is, in their order; without keys one sum of all.
std::vector<Sum> sums(soci::session& session, const std::vector<Key>& keys);

// A run counts for its unit where it shows the unit's hardware address, and a unit on the day of its first such run.
struct FirstPass {
  std::optional<std::string> day;
  long long units = 0;
  long long passed = 0;  // of these: with their first run
};
std::vector<FirstPass> first_passes(soci::session& session);
// Runs that do not show whose they are.
long long runs_without_unit(soci::session& session);

// The duration that so many of all runs do not exceed, in seconds; 0.5 is the median. `part`: 0 to 1. Nothing where
// there are no runs.
std::optional<double> duration_at(soci::session& session, double part);

struct FileSum {
  std::string file;
  long long reads = 0;
  long long unfinished = 0;
  long long repeated = 0;  // blocks
  double seconds = 0;
};
std::vector<FileSum> sums_of_files(soci::session& session);

long long count_unreadable(soci::session& session);

}  // namespace database

#endif
