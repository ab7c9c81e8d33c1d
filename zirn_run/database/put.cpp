#include "database/put.h"

#include <algorithm>
#include <cctype>

#include "database/statement.h"
#include "database/utc.h"
#include "explanation/text.h"

namespace database {

namespace {

constexpr std::size_t kDayLetters = sizeof "2026-11-22" - 1;
constexpr std::size_t kRowsAtOnce = 500;               // neither database takes any number of values
constexpr char kStartPattern[] = "00000000T000000Z-";  // of the names that the recorder gives

// The station in "/var/lib/zirn-runs/20261122T031240Z-STATION.pcapng", or else the host.
std::string station_of(const File& record) {
  const std::string name = record.path.substr(record.path.rfind('/') + 1);
  const std::size_t begin = sizeof kStartPattern - 1;
  const std::size_t end = name.find(".pcapng", begin);
  if (name.size() <= begin || end == std::string::npos || end == begin) return record.host;
  const bool is_start =
      std::equal(kStartPattern, kStartPattern + begin, name.begin(), [](char pattern, char letter) {
        return pattern == '0' ? std::isdigit(static_cast<unsigned char>(letter)) != 0 : pattern == letter;
      });
  return is_start ? name.substr(begin, end - begin) : record.host;
}

template <typename Type>
std::optional<long long> number_of(const std::optional<Type>& number) {
  if (!number) return std::nullopt;
  return static_cast<long long>(*number);
}

std::string name_of(explanation::Step::Result result) {
  using Result = explanation::Step::Result;
  return result == Result::kPassed ? "passed" : result == Result::kFailed ? "failed" : "reported";
}

void add_claim(const explanation::Claim& claim, std::vector<Finding>* findings) {
  const auto number_at = [](const explanation::Numbers& numbers, std::uint64_t number) {
    return numbers.count == 0 ? std::nullopt : number_of(std::optional(number));
  };
  const long long position = findings->empty() ? 1 : findings->back().position + 1;
  for (std::size_t i = 0; i < claim.statements.size(); ++i) {
    const explanation::Statement& said = claim.statements[i];
    const auto& [frames, lines, is_inferred] = said.evidence;
    findings->push_back({0, position, static_cast<long long>(i + 1), position == 1 ? "fault" : "also",
                         std::string(explanation::name_of(claim.cause->owner)), std::string(claim.cause->id),
                         said.sentence, is_inferred ? "inferred" : "seen", number_at(frames, frames.first),
                         number_at(frames, frames.last), number_at(lines, lines.first),
                         number_at(lines, lines.last)});
  }
}

void add_parts(const explanation::Explanation& told, RunRows* rows) {
  for (const explanation::Read& read : told.reads) {
    rows->reads.push_back({0, static_cast<long long>(rows->reads.size() + 1), read.file,
                           number_of(read.bytes), number_of(read.block_size), read.seconds,
                           number_of(read.blocks), number_of(read.repeated), number_of(read.finished)});
    rows->run.blocks_repeated += rows->reads.back().repeated.value_or(0);
  }
  for (const explanation::Step& step : told.steps) {
    rows->steps.push_back(
        {0, static_cast<long long>(rows->steps.size() + 1), step.name, name_of(step.result)});
    if (step.result == explanation::Step::Result::kFailed && !rows->run.failed_step)
      rows->run.failed_step = step.name;
  }
  add_claim(told.fault, &rows->findings);
  for (const explanation::Claim& claim : told.also) add_claim(claim, &rows->findings);
}

template <typename Row>
std::vector<Bound> bound_of(const Row& row) {
  std::vector<Bound> bound;
  Row::columns(row, [&bound](const char* name, const auto& value) {
    bound.push_back({name, value_of(value)});
  });
  return bound;
}

// Adds the rows that are bound, which have the same columns. The number that `rest` has it return; nothing where it
// returns none.
std::optional<long long> insert(soci::session& session, const std::string& table,
                                const std::vector<std::vector<Bound>>& rows, const std::string& rest) {
  std::string names, values;
  std::vector<Bound> all;
  for (const std::vector<Bound>& row : rows) {
    values += values.empty() ? "(" : "), (";
    for (const Bound& one : row) {
      const bool is_first = &one == &row.front();
      const std::string name = one.name + std::to_string(all.size());
      if (&row == &rows.front()) names += (is_first ? "" : ", ") + one.name;
      values += (is_first ? ":" : ", :") + name;
      all.push_back({name, one.value});
    }
  }
  Statement statement(session, "INSERT INTO " + table + " (" + names + ") VALUES " + values + ")" + rest,
                      std::move(all));
  long long number = 0;
  const bool returns = rest.find("RETURNING") != std::string::npos;
  if (returns) statement.into(&number);
  return statement.next() && returns ? std::optional(number) : std::nullopt;
}

template <typename Row>
void insert_of_run(soci::session& session, long long run, std::vector<Row> rows) {
  std::vector<std::vector<Bound>> some;
  for (Row& row : rows) {
    row.run = run;
    some.push_back(bound_of(row));
    if (some.size() < kRowsAtOnce && &row != &rows.back()) continue;
    insert(session, Row::kTable, some, "");
    some.clear();
  }
}

}  // namespace

RunRows rows_of(const Told& told, const std::string& content, const File& record) {
  const explanation::Explanation& said = told.explanation;
  RunRows rows;
  Run& run = rows.run;
  run.content = content;
  run.station = station_of(record);
  run.name = told.name;
  if (said.start) run.started = explanation::in_utc(*said.start);
  if (said.start) run.day = run.started->substr(0, kDayLetters);
  run.duration = static_cast<double>(said.duration) / 1e9;
  run.verdict = explanation::name_of(said.verdict);
  if (said.exit) {
    run.exit_status = number_of(said.exit->status);
    run.exit_signal = number_of(said.exit->signal);
    run.exit_meaning = said.exit->meaning;
  }
  if (!said.units.empty()) {
    run.unit_address = said.units.front().address;
    if (!said.units.front().mac.empty()) run.unit_mac = said.units.front().mac;
  }
  run.fault_owner = explanation::name_of(said.fault.cause->owner);
  run.fault_cause = said.fault.cause->id;
  if (!said.fault.statements.empty()) run.fault_sentence = said.fault.statements.front().sentence;
  run.frames_lost = told.frames_lost;
  run.incomplete = static_cast<long long>(said.incomplete.size());
  run.record_host = record.host;
  run.record = record.path;
  run.explained_by = kProgram;
  run.collected = record.collected;
  rows.json = told.json;
  add_parts(said, &rows);
  return rows;
}

std::optional<long long> put(soci::session& session, const RunRows& rows) {
  std::vector<Bound> bound = bound_of(rows.run);
  bound.push_back({"json", rows.json});
  const auto id =
      insert(session, Run::kTable, {std::move(bound)}, " ON CONFLICT (content) DO NOTHING RETURNING id");
  if (!id) return std::nullopt;
  insert_of_run(session, *id, rows.reads);
  insert_of_run(session, *id, rows.steps);
  insert_of_run(session, *id, rows.findings);
  return id;
}

std::optional<long long> id_of(soci::session& session, const std::string& content) {
  long long id = 0;
  const bool is_there =
      Statement(session, "SELECT id FROM runs WHERE content = :content", {{"content", content}})
          .into(&id)
          .next();
  return is_there ? std::optional(id) : std::nullopt;
}

void set_record(soci::session& session, const File& file) {
  Statement(session, "UPDATE runs SET record_host = :host, record = :path WHERE id = :run",
            {{"host", file.host}, {"path", file.path}, {"run", value_of(file.run)}})
      .next();
}

void put(soci::session& session, const File& file) {
  insert(session, File::kTable, {bound_of(file)},
         " ON CONFLICT (host, path) DO UPDATE SET size = excluded.size, modified = excluded.modified, "
         "run = excluded.run, reason = excluded.reason, collected = excluded.collected");
}

std::vector<File> files_between(soci::session& session, const std::string& host, const std::string& first,
                                const std::string& last) {
  File file;
  Statement statement(
      session,
      "SELECT path, size, modified FROM files WHERE host = :host AND path >= :first AND path <= :last",
      {{"host", host}, {"first", first}, {"last", last}});
  statement.into(&file.path).into(&file.size).into(&file.modified);
  std::vector<File> files;
  while (statement.next()) files.push_back(file);
  return files;
}

}  // namespace database
