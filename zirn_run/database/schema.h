#ifndef DATABASE_SCHEMA_H
#define DATABASE_SCHEMA_H

#include <string>
#include <vector>

#include "database/soci.h"

// The tables, and how they came to be: a list of migrations that only grows.
namespace database {

enum class Engine { kSqlite, kPostgres };

// The statements that lead from one version of the schema to the next. In them {id} is the type of a number that the
// database gives to a row, and {text} that of a text which sorts by its bytes.
using Migration = std::vector<std::string>;

// Migration n leads to version n, counted from 1.
const std::vector<Migration>& migrations();

// Makes the tables, or brings them to the last version, within a transaction that the caller has begun as a writer;
// several at once wait for each other. Throws NotUsable (database.h) where the schema is newer.
void bring_forward(soci::session& session, Engine engine, const std::vector<Migration>& migrations);

// Throws NotUsable where the schema has not the last version.
void expect_current(soci::session& session, Engine engine, const std::vector<Migration>& migrations);

}  // namespace database

#endif
