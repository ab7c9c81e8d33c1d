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

// A file's bytes when it was last collected; 0: it was not.
long long size_of(soci::session& session, const std::string& host, const std::string& path);

// What runs are counted by.
enum class Key { kStation, kVerdict, kOwner, kCause };

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

long long count_unreadable(soci::session& session);

}  // namespace database

#endif
