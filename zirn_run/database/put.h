#ifndef DATABASE_PUT_H
#define DATABASE_PUT_H

#include <optional>
#include <string>
#include <vector>

#include "database/collection.h"
#include "database/rows.h"
#include "database/soci.h"

// What is written into the database, within Database::transact.
namespace database {

// A run with all that is told of it. Its rows get their `run` when they are put.
struct RunRows {
  Run run;
  std::string json;
  std::vector<Read> reads;
  std::vector<Step> steps;
  std::vector<Finding> findings;
};

// `record`: the file that tells it.
RunRows rows_of(const Told& told, const std::string& content, const File& record);

// The id of a run that is new; of another nothing is changed.
std::optional<long long> put(soci::session& session, const RunRows& rows);
// Of the run with this content.
std::optional<long long> id_of(soci::session& session, const std::string& content);
// From now on that file is where the run's record is.
void set_record(soci::session& session, const File& file);

// In the place of what was known of the file before.
void put(soci::session& session, const File& file);
// What is known of the host's files from one path to another, both included.
std::vector<File> files_between(soci::session& session, const std::string& host, const std::string& first,
                                const std::string& last);

}  // namespace database

#endif
