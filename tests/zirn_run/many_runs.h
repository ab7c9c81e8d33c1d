#ifndef ZIRN_RUN_MANY_RUNS_H
#define ZIRN_RUN_MANY_RUNS_H

#include <string>

#include "database/database.h"
#include "database/soci.h"

// Makes runs 1 to `count` by rule and without records: one each 30 seconds from 2026 on, in months of 28 days, at one of
// 40 stations; two in a row are of one unit, and each eleventh shows none. Of twenty one fails at one of eight steps, and
// one has no verdict. Each has a step and reads two files.
inline void fill_with_runs(database::Database* database, int count) {
  const auto two = [](const std::string& number) { return "substr(CAST(100 + " + number + " AS TEXT), 2)"; };
  const std::string numbers =
      "WITH RECURSIVE numbers (n) AS (SELECT 1 UNION ALL SELECT n + 1 FROM numbers WHERE n < " +
      std::to_string(count) + ")";
  const std::string day = "CAST(2026 + n / 967680 AS TEXT) || '-' || " + two("1 + n / 80640 % 12") +
                          " || '-' || " + two("1 + n / 2880 % 28");
  const std::string time =
      two("n / 120 % 24") + " || ':' || " + two("n / 2 % 60") + " || ':' || " + two("n % 2 * 30");
  const std::string number = "CAST(n AS TEXT)";
  const auto by_verdict = [](const std::string& passed, const std::string& failed, const std::string& none) {
    return "CASE n % 20 WHEN 7 THEN " + failed + " WHEN 13 THEN " + none + " ELSE " + passed + " END";
  };
  database->transact([&](soci::session& session) {
    session
        << "INSERT INTO runs (content, station, name, started, day, duration, verdict, unit_address, "
           "unit_mac, "
           "fault_owner, fault_cause, fault_sentence, failed_step, frames_lost, blocks_repeated, incomplete, "
           "record_host, record, explained_by, collected, json) " +
               numbers + " SELECT 'content of ' || " + number +
               ", 'line-' || CAST(n % 40 AS TEXT), 'run-' || " + number + ", " + day + " || 'T' || " + time +
               " || '.000Z', " + day + ", 20 + n % 97 * 0.5, " +
               by_verdict("'passed'", "'failed'", "'none'") +
               ", '172.40.0.2', CASE WHEN n % 11 = 0 THEN NULL ELSE "
               "'02:00:' || CAST(n / 2 AS TEXT) END, " +
               by_verdict("'none'", "'unit'", "'test-network'") + ", " +
               by_verdict("'passed'", "'unit.failed'", "'net.loss'") + ", 'a sentence about run ' || " +
               number + ", " +
               by_verdict("NULL", "'F_l_m_0' || CAST(n / 20 % 8 AS TEXT) || 'TEST_FAILED'", "NULL") +
               ", n % 40 / 38 * 7, n % 3, 0, 'host', '/runs/' || " + number +
               " || '.pcapng', 'no program', '', '{}' FROM numbers";
    session
        << "INSERT INTO steps SELECT id, 1, coalesce(failed_step, 'F_l_m_01STEP_PASSED'), CASE verdict WHEN "
           "'failed' THEN 'failed' ELSE 'passed' END FROM runs";
    for (const char* const read :
         {"1, 'bootscript.txt', 300, 512, 0.01, 1, 0, 1", "2, 'kernel.img', 102400, 1428, 8.5, 72, 0, 1"})
      session << "INSERT INTO reads SELECT id, " + std::string(read) + " FROM runs";
    session << "INSERT INTO findings SELECT id, 1, 1, 'fault', fault_owner, fault_cause, fault_sentence, "
               "'seen', 1, 9, "
               "NULL, NULL FROM runs";
  });
}

#endif
