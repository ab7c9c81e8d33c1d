// How a database comes from one version of its schema to the next.
#include "zirn_run/collected_runs.h"

namespace {

using database::Database;
using database::Migration;

class Schema : public CollectedRuns {
 protected:
  // The schema of a later program.
  static std::vector<Migration> with(const Migration& further) {
    std::vector<Migration> migrations = database::migrations();
    migrations.push_back(further);
    return migrations;
  }
  void opens(const std::vector<Migration>& migrations, Database::Use use = Database::Use::kWrite) const {
    Database opened(database_, use, {}, migrations);
    opened.transact([](soci::session&) {});
  }
  std::string versions() const {
    std::string text;
    for (const std::string& version :
         later_rows("SELECT CAST(version AS TEXT) FROM schema_version ORDER BY version"))
      text += version;
    return text;
  }
  std::vector<std::string> later_rows(const std::string& question) const {
    Database opened(database_, Database::Use::kRead, {}, later_);
    return rows_of(&opened, question);
  }

  const std::vector<Migration> later_ =
      with({"ALTER TABLE runs ADD COLUMN colour {text}", "UPDATE runs SET colour = 'grey'"});
};

INSTANTIATE_TEST_SUITE_P(Of, Schema, testing::Values(Kind::kSqlite, Kind::kPostgres), name_of_kind);

TEST_P(Schema, GoesForwardWithAllRows) {
  make_runs("runs", 0, 3);
  ASSERT_EQ(collects({"runs"}).status, 0);
  opens(later_);
  EXPECT_EQ(versions(), "12");
  EXPECT_EQ(later_rows("SELECT name || colour FROM runs ORDER BY started"),
            (std::vector<std::string>{"run-0grey", "run-1grey", "run-2grey"}));
  opens(later_);
  EXPECT_EQ(versions(), "12");
}

TEST_P(Schema, NeverGoesBack) {
  opens(later_);
  try {
    opens(database::migrations());
    ADD_FAILURE() << "expected that it is refused";
  } catch (const database::NotUsable& refused) {
    EXPECT_STREQ(refused.what(),
                 "expected version 1 of the schema, found version 2: a newer zirn-run made it; use that one");
  }
  EXPECT_EQ(versions(), "12");
}

TEST_P(Schema, IsNotBroughtForwardByAReader) {
  opens(database::migrations());
  try {
    opens(later_, Database::Use::kRead);
    ADD_FAILURE() << "expected that it is refused";
  } catch (const database::NotUsable& refused) {
    EXPECT_STREQ(
        refused.what(),
        "expected version 2 of the schema, found version 1: zirn-run collect --into brings it forward");
  }
  EXPECT_EQ(count("schema_version"), "1");
}

TEST_P(Schema, StaysAsItWasWhereAMigrationFails) {
  make_runs("runs", 0, 1);
  ASSERT_EQ(collects({"runs"}).status, 0);
  EXPECT_THROW(
      opens(with({"ALTER TABLE runs ADD COLUMN colour {text}", "UPDATE nothing SET colour = 'grey'"})),
      database::NotUsable);
  EXPECT_EQ(count("schema_version"), "1");
  opens(later_);
  EXPECT_EQ(later_rows("SELECT name || colour FROM runs"), std::vector<std::string>{"run-0grey"});
}

TEST_P(Schema, IsMadeAndBroughtForwardOnceByManyAtOnce) {
  for (const std::vector<Migration>& migrations : {database::migrations(), later_}) {
    std::vector<std::unique_ptr<Process>> openers;
    for (int i = 0; i < 20; ++i) {
      openers.push_back(std::make_unique<Process>([&] {
        opens(migrations);
        return 0;
      }));
    }
    for (const auto& opener : openers) EXPECT_EQ(status_number(opener->wait_for_end(kPatience)), 0);
  }
  EXPECT_EQ(versions(), "12");
}

}  // namespace
