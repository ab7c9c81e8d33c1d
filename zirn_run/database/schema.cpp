#include "database/schema.h"

#include <cstddef>

#include "database/database.h"
#include "database/statement.h"
#include "database/utc.h"

namespace database {

namespace {

// Any number that no other program takes.
constexpr char kWaitForOthers[] = "SELECT 1 FROM (SELECT pg_advisory_xact_lock(7353214)) AS waited";
constexpr char kVersions[] =
    "CREATE TABLE schema_version (version BIGINT PRIMARY KEY, made {text} NOT NULL, made_by {text} NOT NULL)";

std::string for_engine(std::string text, Engine engine) {
  const bool is_sqlite = engine == Engine::kSqlite;
  const auto replace = [&text](const std::string& word, const std::string& by) {
    for (std::size_t at = 0; (at = text.find(word, at)) != std::string::npos;)
      text.replace(at, word.size(), by);
  };
  replace("{id}", is_sqlite ? "INTEGER PRIMARY KEY" : "BIGINT GENERATED ALWAYS AS IDENTITY PRIMARY KEY");
  replace("{text}", is_sqlite ? "TEXT" : "TEXT COLLATE \"C\"");
  return text;
}

// 0: there are no tables.
long long version_of(soci::session& session, Engine engine) {
  const char* const kTables = engine == Engine::kSqlite
                                  ? "SELECT count(*) FROM sqlite_master WHERE name = 'schema_version'"
                                  : "SELECT count(*) FROM pg_class WHERE oid = to_regclass('schema_version')";
  long long number = 0;
  Statement(session, kTables).into(&number).next();
  if (number > 0)
    Statement(session, "SELECT coalesce(max(version), 0) FROM schema_version").into(&number).next();
  return number;
}

[[noreturn]] void refuse(long long found, std::size_t expected, const std::string& what_to_do) {
  throw NotUsable("expected version " + std::to_string(expected) + " of the schema, found version " +
                  std::to_string(found) + ": " + what_to_do);
}

void refuse_newer(long long found, std::size_t known) {
  if (found > static_cast<long long>(known)) refuse(found, known, "a newer zirn-run made it; use that one");
}

}  // namespace

const std::vector<Migration>& migrations() {
  static const std::vector<Migration> kMigrations = {{
      R"(CREATE TABLE runs (
           id {id}, content {text} NOT NULL UNIQUE, station {text} NOT NULL, name {text} NOT NULL,
           started {text}, day {text}, duration DOUBLE PRECISION NOT NULL, verdict {text} NOT NULL,
           exit_status BIGINT, exit_signal BIGINT, exit_meaning {text},
           unit_address {text}, unit_mac {text},
           fault_owner {text} NOT NULL, fault_cause {text} NOT NULL, fault_sentence {text} NOT NULL,
           failed_step {text}, frames_lost BIGINT NOT NULL, blocks_repeated BIGINT NOT NULL,
           incomplete BIGINT NOT NULL, record_host {text} NOT NULL, record {text} NOT NULL,
           explained_by {text} NOT NULL, collected {text} NOT NULL, json {text} NOT NULL))",
      "CREATE INDEX runs_in_order ON runs ((coalesce(started, '')), id)",
      "CREATE INDEX runs_of_station ON runs (station, started)",
      "CREATE INDEX runs_of_unit ON runs (unit_mac, started)",
      R"(CREATE TABLE reads (
           run BIGINT NOT NULL REFERENCES runs (id) ON DELETE CASCADE, position BIGINT NOT NULL,
           file {text} NOT NULL, bytes BIGINT, block_size BIGINT, seconds DOUBLE PRECISION, blocks BIGINT,
           repeated BIGINT, finished BIGINT, PRIMARY KEY (run, position)))",
      R"(CREATE TABLE steps (
           run BIGINT NOT NULL REFERENCES runs (id) ON DELETE CASCADE, position BIGINT NOT NULL,
           name {text} NOT NULL, result {text} NOT NULL, PRIMARY KEY (run, position)))",
      R"(CREATE TABLE findings (
           run BIGINT NOT NULL REFERENCES runs (id) ON DELETE CASCADE, position BIGINT NOT NULL,
           sentence_number BIGINT NOT NULL, role {text} NOT NULL, owner {text} NOT NULL, cause {text} NOT NULL,
           sentence {text} NOT NULL, evidence {text} NOT NULL, first_frame BIGINT, last_frame BIGINT,
           first_line BIGINT, last_line BIGINT, PRIMARY KEY (run, position, sentence_number)))",
      R"(CREATE TABLE files (
           host {text} NOT NULL, path {text} NOT NULL, size BIGINT NOT NULL, modified BIGINT NOT NULL,
           run BIGINT REFERENCES runs (id) ON DELETE CASCADE, reason {text}, collected {text} NOT NULL,
           PRIMARY KEY (host, path), CHECK ((run IS NULL) <> (reason IS NULL))))",
      "CREATE INDEX files_of_run ON files (run)",
      "CREATE VIEW unreadable AS SELECT host, path, reason, collected FROM files WHERE reason IS NOT NULL",
  }};
  return kMigrations;
}

void bring_forward(soci::session& session, Engine engine, const std::vector<Migration>& migrations) {
  if (engine == Engine::kPostgres) Statement(session, kWaitForOthers).next();
  const long long found = version_of(session, engine);
  refuse_newer(found, migrations.size());
  if (found == 0) session << for_engine(kVersions, engine);
  for (auto next = static_cast<std::size_t>(found); next < migrations.size(); ++next) {
    for (const std::string& statement : migrations[next]) session << for_engine(statement, engine);
    Statement(session, "INSERT INTO schema_version VALUES (:version, :made, :made_by)",
              {{"version", static_cast<long long>(next + 1)}, {"made", utc_now()}, {"made_by", kProgram}})
        .next();
  }
}

void expect_current(soci::session& session, Engine engine, const std::vector<Migration>& migrations) {
  const long long found = version_of(session, engine);
  refuse_newer(found, migrations.size());
  if (found == 0) throw NotUsable("expected a database of runs, found no tables of one");
  if (found < static_cast<long long>(migrations.size()))
    refuse(found, migrations.size(), "zirn-run collect --into brings it forward");
}

}  // namespace database
