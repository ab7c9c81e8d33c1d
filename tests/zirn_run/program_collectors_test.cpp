// Many that collect at once, and a database that goes away meanwhile.
#include "zirn_run/collected_runs.h"

namespace {

constexpr int kCollectors = 40;
constexpr std::chrono::seconds kLong{500};

class ProgramCollectors : public CollectedRuns {
 protected:
  // Each takes its own folder and the next one's, so that every run comes from two.
  void begin(int collectors) {
    const auto folder = [collectors](int i) { return "runs-" + std::to_string(i % collectors); };
    for (int i = 0; i < collectors; ++i) {
      collectors_.push_back(
          std::make_unique<Process>(Process::Arguments{ZIRN_RUN_PROGRAM, "collect", "--patience", "60",
                                                       "--into", database_, folder(i), folder(i + 1)},
                                    [] { append_errors_to("errors"); }));
      collectors_.back()->close_input();
    }
  }
  void makes_tables() const {
    database::Database(database_, database::Database::Use::kWrite, {}).transact([](soci::session&) {});
  }
  // Waits until so many runs are there while somebody still collects.
  bool reaches(int runs) const {
    return wait_until([&] { return std::stoi(count("runs")) >= runs; }, kLong) && !collectors_.back()->end();
  }
  void expect_all_collected(int runs) {
    int fresh = 0;
    for (const auto& collector : collectors_) {
      EXPECT_EQ(status_number(collector->wait_for_end(kLong)), 0) << whole_file("errors");
      fresh += std::stoi(collector->read_text());
    }
    EXPECT_EQ(count("runs"), std::to_string(runs));
    EXPECT_EQ(row("SELECT CAST(count(DISTINCT name) AS TEXT) FROM runs"), std::to_string(runs));
    EXPECT_EQ(row("SELECT CAST(count(DISTINCT run) AS TEXT) FROM files"), std::to_string(runs));
    EXPECT_EQ(count("files"), std::to_string(runs));
    EXPECT_EQ(count("reads"), std::to_string(runs));
    expect_tables_whole();
    fresh_ = fresh;
  }

  std::vector<std::unique_ptr<Process>> collectors_;
  int fresh_ = 0;  // runs that the collectors said were new
};

INSTANTIATE_TEST_SUITE_P(Into, ProgramCollectors, testing::Values(Kind::kSqlite, Kind::kPostgres),
                         name_of_kind);

TEST_P(ProgramCollectors, PutEachRunOnce) {
  constexpr int kRuns = 50;
  for (int i = 0; i < 8; ++i) make_runs("runs-" + std::to_string(i), i * kRuns, kRuns);
  begin(8);
  expect_all_collected(8 * kRuns);
  EXPECT_EQ(fresh_, 8 * kRuns);
}

class ProgramCollectServer : public ProgramCollectors {};

INSTANTIATE_TEST_SUITE_P(Into, ProgramCollectServer, testing::Values(Kind::kPostgres), name_of_kind);

// Whoever loses the answer to a commit finds the run there and does not call it new.
TEST_P(ProgramCollectServer, LosesNothingThatFortyPutWhileItDiesTwice) {
  constexpr int kRuns = 250;
  for (int i = 0; i < kCollectors; ++i) make_runs("runs-" + std::to_string(i), i * kRuns, kRuns);
  makes_tables();
  begin(kCollectors);
  for (const auto& [runs, signal] : {std::pair(2500, SIGQUIT), std::pair(6000, SIGKILL)}) {
    EXPECT_TRUE(reaches(runs)) << "the collectors were done before";
    server_->ends_by(signal);
    std::this_thread::sleep_for(std::chrono::seconds(1));
    server_->start();
  }
  expect_all_collected(kCollectors * kRuns);
  EXPECT_LE(fresh_, kCollectors * kRuns);
  EXPECT_GE(fresh_, kCollectors * kRuns - 2 * kCollectors);
}

TEST_P(ProgramCollectServer, IsWaitedForAndGetsTheRestWithTheNextCall) {
  make_runs("runs", 0, 3);
  ASSERT_EQ(collects({"runs/run-0.pcapng"}).status, 0);
  server_->ends_by(SIGQUIT);
  const Result away = calls({"collect", "--into", database_, "--patience", "0.5", "runs"});
  EXPECT_EQ(away.status, 3);
  EXPECT_EQ(away.output, "");
  EXPECT_NE(away.errors.find("; trying on for 0.5 s\n"), std::string::npos) << away.errors;
  EXPECT_NE(away.errors.find("; 3 of 3 files not delivered\n"), std::string::npos) << away.errors;
  server_->start();
  EXPECT_EQ(collects({"runs"}).output, "2 new runs in postgresql:///postgres; 1 file there already\n");
}

// As docs/factory.md grants them.
TEST_P(ProgramCollectServer, TakesRunsFromAUserWhoOwnsNothing) {
  make_runs("runs", 0, 2);
  ASSERT_EQ(collects({"runs/run-0.pcapng"}).status, 0);
  const std::string document = whole_file(FACTORY_DOCUMENT);
  const std::size_t begin = document.find("GRANT SELECT, INSERT");
  ASSERT_NE(begin, std::string::npos);
  database::Database opened(database_, database::Database::Use::kWrite, {});
  opened.transact([&](soci::session& session) {
    session << "CREATE USER station";
    session << document.substr(begin, document.find("```", begin) - begin);
  });
  const Result result = calls({"collect", "--into", server_->url("station"), "runs"});
  EXPECT_EQ(result.output, "1 new run in postgresql:///postgres; 1 file there already\n") << result.errors;
  EXPECT_EQ(count("runs"), "2");
}

// A statement that is refused is not tried for long.
TEST_P(ProgramCollectServer, IsNotWaitedForWhereItRefuses) {
  make_runs("runs", 0, 1);
  database::Database opened(database_, database::Database::Use::kWrite, {});
  opened.transact([](soci::session& session) { session << "CREATE USER stranger"; });
  const Result result = calls({"collect", "--into", server_->url("stranger"), "runs"});
  EXPECT_EQ(result.status, 3);
  EXPECT_NE(result.errors.find("permission denied for table schema_version"), std::string::npos)
      << result.errors;
  EXPECT_EQ(result.errors.find("trying on"), std::string::npos) << result.errors;
}

}  // namespace
