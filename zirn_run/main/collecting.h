#ifndef MAIN_COLLECTING_H
#define MAIN_COLLECTING_H

#include <string>
#include <vector>

#include "database/collection.h"

// Brings the files behind the names into the database, with a line of progress on a terminal, and says on standard error
// what cannot be read or is not there. Counts into `collected`, and returns whether all names were there. Throws
// NotPossible where the database cannot be reached or used: that says how many files are not delivered.
bool collect_files(const std::vector<std::string>& names, database::Unfinished unfinished,
                   database::Database* database, database::Collected* collected);

// What Database says while it waits.
database::Database::Manners manners_of(const std::string& name, double patience_seconds);

// The database that is used where none is named: that of the environment, or "runs.db".
std::string default_database();

#endif
