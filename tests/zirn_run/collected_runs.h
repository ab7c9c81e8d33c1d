#ifndef ZIRN_RUN_COLLECTED_RUNS_H
#define ZIRN_RUN_COLLECTED_RUNS_H

#include <filesystem>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "database/database.h"
#include "database/statement.h"
#include "zirn_run/called_program.h"
#include "zirn_run/made_capture.h"
#include "zirn_run/scratch_server.h"

enum class Kind { kSqlite, kPostgres };

inline std::string name_of_kind(const testing::TestParamInfo<Kind>& kind) {
  return kind.param == Kind::kSqlite ? "Sqlite" : "Postgres";
}

// Runs made by rule, and a database for them: SQLite, or a server of the test's own.
class CollectedRuns : public CalledProgram, public testing::WithParamInterface<Kind> {
 protected:
  void SetUp() override {
    unsetenv("ZIRN_RUN_DATABASE");
    if (GetParam() == Kind::kSqlite) {
      database_ = directory_.file("runs.db");
      return;
    }
    if (ScratchServer::programs().empty()) GTEST_SKIP() << "needs initdb (package postgresql)";
    server_ = std::make_unique<ScratchServer>(directory_.path());
    database_ = server_->url();
  }

  // The n-th run begins n seconds after the first one and takes four frames' time and a bit: the unit reads a file and
  // gives a step's verdict and its final one. Each fifth run fails at its step.
  static std::string run(int number) {
    MadeCapture capture;
    capture.rests(static_cast<std::uint64_t>(number) * 1000);
    const bool fails = number % 5 == 4;
    capture.read("bootscript.txt");
    capture.verdict("F_l_m_01STEP" + std::to_string(number) + (fails ? "_TEST_FAILED" : "_PASSED"), 2001);
    capture.verdict(fails ? "F_l_m_02PPT_FAILED" : "F_l_m_02PPT_PASSED", 2002);
    return capture.contents();
  }
  // Runs first, first + 1, ... in files of a folder.
  static void make_runs(const std::string& folder, int first, int count) {
    std::filesystem::create_directories(folder);
    for (int i = first; i < first + count; ++i)
      write_whole_file(folder + "/run-" + std::to_string(i) + ".pcapng", run(i));
  }
  static void make_old(const std::string& file) {
    std::filesystem::last_write_time(file,
                                     std::filesystem::file_time_type::clock::now() - std::chrono::hours(1));
  }

  Result collects(std::vector<std::string> names) const {
    names.insert(names.begin(), {"collect", "--into", database_});
    return calls(names);
  }
  // The rows that a question brings, each a text.
  std::vector<std::string> rows(const std::string& question) const {
    database::Database opened(database_, database::Database::Use::kRead, {});
    return rows_of(&opened, question);
  }
  static std::vector<std::string> rows_of(database::Database* opened, const std::string& question) {
    std::vector<std::string> all;
    opened->read([&](soci::session& session) {
      std::string row;
      database::Statement statement(session, question);
      statement.into(&row);
      while (statement.next()) all.push_back(row);
    });
    return all;
  }
  std::string row(const std::string& question) const {
    const auto all = rows(question);
    EXPECT_EQ(all.size(), 1U) << question;
    return all.empty() ? "" : all.front();
  }
  std::string count(const std::string& rest) const {
    return row("SELECT CAST(count(*) AS TEXT) FROM " + rest);
  }
  void expect_tables_whole() const {
    EXPECT_EQ(count("runs WHERE (SELECT count(*) FROM steps WHERE run = runs.id) <> 1"), "0");
    EXPECT_EQ(count("runs WHERE (SELECT count(*) FROM reads WHERE run = runs.id) <> 1"), "0");
    EXPECT_EQ(count("runs WHERE (SELECT count(*) FROM findings WHERE run = runs.id AND position = 1) <> CASE "
                    "verdict WHEN 'failed' THEN 2 ELSE 1 END"),
              "0");
  }

  std::string database_;
  std::unique_ptr<ScratchServer> server_;
};

#endif
