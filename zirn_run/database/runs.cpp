#include "database/runs.h"

#include "database/statement.h"

namespace database {

namespace {

constexpr long long kRowsAtOnce = 1000;
constexpr char kNotPassed[] = " AND verdict <> 'passed'";

// "content, station, ..."
template <typename Row>
std::string names_of_columns() {
  std::string names;
  const Row row;
  Row::columns(row, [&names](const char* name, const auto&) {
    names += (names.empty() ? "" : ", ") + std::string(name);
  });
  return names;
}

template <typename Row>
void into(Row* row, Statement* statement) {
  Row::columns(*row, [statement](const char*, auto& field) { statement->into(&field); });
}

// By its key a page goes on where the one before ended, and no cursor is kept open.
void each_page_of_runs(soci::session& session, const std::string& condition,
                       const std::function<void(const Run&)>& take) {
  const std::string text = "SELECT id, " + names_of_columns<Run>() +
                           " FROM runs WHERE (coalesce(started, ''), id) > (:started, :id)" + condition +
                           " ORDER BY coalesce(started, ''), id LIMIT " + std::to_string(kRowsAtOnce);
  Run run;
  for (long long taken = kRowsAtOnce; taken == kRowsAtOnce;) {
    Statement page(session, text, {{"started", run.started.value_or("")}, {"id", run.id}});
    page.into(&run.id);
    into(&run, &page);
    for (taken = 0; page.next(); ++taken) take(run);
  }
}

template <typename Row>
std::vector<Row> rows_of(soci::session& session, long long run, const std::string& order) {
  Row row;
  Statement statement(
      session,
      "SELECT " + names_of_columns<Row>() + " FROM " + Row::kTable + " WHERE run = :run ORDER BY " + order,
      {{"run", run}});
  into(&row, &statement);
  std::vector<Row> rows;
  while (statement.next()) rows.push_back(row);
  return rows;
}

const char* column_of(Key key) {
  switch (key) {
    case Key::kStation:
      return "station";
    case Key::kVerdict:
      return "verdict";
    case Key::kOwner:
      return "fault_owner";
    case Key::kCause:
      break;
  }
  return "fault_cause";
}

}  // namespace

void each_run(soci::session& session, const std::function<void(const Run&)>& take) {
  each_page_of_runs(session, "", take);
}

void each_run_not_passed(soci::session& session, const std::function<void(const Run&)>& take) {
  each_page_of_runs(session, kNotPassed, take);
}

std::vector<Read> reads_of(soci::session& session, long long run) {
  return rows_of<Read>(session, run, "position");
}

std::vector<Step> steps_of(soci::session& session, long long run) {
  return rows_of<Step>(session, run, "position");
}

std::vector<Finding> findings_of(soci::session& session, long long run) {
  return rows_of<Finding>(session, run, "position, sentence_number");
}

std::string json_of(soci::session& session, long long run) {
  std::string json;
  Statement(session, "SELECT json FROM runs WHERE id = :run", {{"run", run}}).into(&json).next();
  return json;
}

void each_unreadable(soci::session& session, const std::function<void(const File&)>& take) {
  const std::string text = "SELECT " + names_of_columns<File>() +
                           " FROM files WHERE reason IS NOT NULL AND (host, path) > (:host, :path)"
                           " ORDER BY host, path LIMIT " +
                           std::to_string(kRowsAtOnce);
  File file;
  for (long long taken = kRowsAtOnce; taken == kRowsAtOnce;) {
    Statement page(session, text, {{"host", file.host}, {"path", file.path}});
    into(&file, &page);
    for (taken = 0; page.next(); ++taken) take(file);
  }
}

long long size_of(soci::session& session, const std::string& host, const std::string& path) {
  long long size = 0;
  Statement(session, "SELECT size FROM files WHERE host = :host AND path = :path",
            {{"host", host}, {"path", path}})
      .into(&size)
      .next();
  return size;
}

std::vector<Sum> sums(soci::session& session, const std::vector<Key>& keys) {
  std::string columns;
  for (const Key key : keys) columns += (columns.empty() ? "" : ", ") + std::string(column_of(key));
  const auto counted = [](const std::string& condition) {
    return ", coalesce(sum(CASE WHEN " + condition + " THEN 1 ELSE 0 END), 0)";
  };
  const auto summed = [](const std::string& column) {
    return ", CAST(coalesce(sum(" + column + "), 0) AS BIGINT)";
  };
  const std::string text = "SELECT " + columns + (columns.empty() ? "" : ", ") + "count(*)" +
                           counted("verdict = 'passed'") + counted("verdict = 'failed'") +
                           counted("verdict = 'none'") + summed("frames_lost") + summed("blocks_repeated") +
                           counted("incomplete > 0") +
                           ", coalesce(sum(duration), 0.0), max(started) FROM runs" +
                           (columns.empty() ? "" : " GROUP BY " + columns + " ORDER BY " + columns);
  Sum sum;
  sum.keys.resize(keys.size());
  Statement statement(session, text);
  for (auto& key : sum.keys) statement.into(&key);
  statement.into(&sum.runs).into(&sum.passed).into(&sum.failed).into(&sum.none).into(&sum.frames_lost);
  statement.into(&sum.blocks_repeated).into(&sum.incomplete).into(&sum.duration).into(&sum.started);
  std::vector<Sum> all;
  while (statement.next()) all.push_back(sum);
  return all;
}

long long count_unreadable(soci::session& session) {
  long long count = 0;
  Statement(session, "SELECT count(*) FROM unreadable").into(&count).next();
  return count;
}

}  // namespace database
