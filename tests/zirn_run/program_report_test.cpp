// zirn-run report as it is called.
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <iostream>
#include <iterator>

#include "support/sanitized.h"
#include "zirn_run/collected_runs.h"
#include "zirn_run/many_runs.h"

namespace {

class ProgramReport : public CollectedRuns {
 protected:
  // Runs 0 to 5, of which 4 fails, another without a final verdict, and a file that is none.
  void collect_some() const {
    make_runs("runs", 0, 6);
    write_whole_file("runs/<&\"'>.pcapng", MadeCapture().verdict("F_l_m_01=A\",<b>_PASSED", 2002).contents());
    write_whole_file("runs/text.pcapng", "This is no record.");
    make_old("runs/text.pcapng");
    ASSERT_EQ(collects({"runs"}).status, 0);
  }
  void change(const std::string& statement) const {
    database::Database(database_, database::Database::Use::kWrite, {}).transact([&](soci::session& session) {
      session << statement;
    });
  }
  std::string host() const { return row("SELECT DISTINCT host FROM files"); }
};

INSTANTIATE_TEST_SUITE_P(Of, ProgramReport, testing::Values(Kind::kSqlite, Kind::kPostgres), name_of_kind);

// What python reads of it, a field of each run in a line.
TEST_P(ProgramReport, GivesCsvThatOtherProgramsRead) {
  NEEDS_PROGRAM("python3", "python3");
  collect_some();
  const Result result = calls({"report", "--csv", database_});
  EXPECT_EQ(result.status, 0) << result.errors;
  write_whole_file("runs.csv", result.output);
  Program python(
      {"python3", "-c",
       "import csv\n"
       "for run in csv.DictReader(open('runs.csv', newline='', encoding='utf-8'), strict=True):\n"
       "  assert None not in run and None not in run.values()\n"
       "  print(run['started'], run['name'], run['verdict'], run['fault_cause'], run['duration'])\n"});
  EXPECT_EQ(python.exit_status(kPatience), 0) << python.output();
  EXPECT_EQ(python.output(),
            "2023-11-14T22:13:20.001Z <&\"'> none record.no-end 0.002\n"
            "2023-11-14T22:13:20.001Z run-0 passed passed 0.008\n"
            "2023-11-14T22:13:21.001Z run-1 passed passed 0.008\n"
            "2023-11-14T22:13:22.001Z run-2 passed passed 0.008\n"
            "2023-11-14T22:13:23.001Z run-3 passed passed 0.008\n"
            "2023-11-14T22:13:24.001Z run-4 failed unit.failed 0.008\n"
            "2023-11-14T22:13:25.001Z run-5 passed passed 0.008\n");
}

TEST_P(ProgramReport, KeepsFormulasOutOfSpreadsheets) {
  std::filesystem::create_directory("runs");
  write_whole_file("runs/=1+1.pcapng", run(0));
  ASSERT_EQ(collects({"runs"}).status, 0);
  EXPECT_NE(calls({"report", "--csv", database_}).output.find(",'=1+1,"), std::string::npos);
}

TEST_P(ProgramReport, GivesJUnitsXml) {
  collect_some();
  const Result result = calls({"report", "--junit", database_});
  EXPECT_EQ(result.status, 0) << result.errors;
  const std::string at = host();
  const std::string counts = " tests=\"8\" failures=\"1\" errors=\"2\" time=\"0.050\">\n";
  EXPECT_EQ(result.output.substr(0, result.output.find("    <testcase")),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuites" + counts +
                "  <testsuite name=\"zirn-run\"" + counts);
  const auto expect_case = [&](const std::string& text) {
    EXPECT_NE(result.output.find("    <testcase classname=\"" + at + "\" name=\"" + text), std::string::npos)
        << text << "\n"
        << result.output;
  };
  expect_case("run-3\" time=\"0.008\"/>\n");
  expect_case("run-4\" time=\"0.008\"><failure type=\"unit.failed\" message=\"unit: ");
  expect_case("&lt;&amp;&quot;&#39;&gt;\" time=\"0.002\"><error type=\"record.no-end\" message=\"");
  expect_case(
      directory_.file("runs/text.pcapng\" time=\"0.000\"><error type=\"unreadable\" message=\"") +
      directory_.file("runs/text.pcapng: expected a pcapng or pcap file, found text\"/></testcase>\n"));
  if (!Program::exists("python3")) return;
  write_whole_file("runs.xml", result.output);
  Program python(
      {"python3", "-c",
       "import xml.etree.ElementTree as t; print(len(t.parse('runs.xml').findall('.//testcase')))"});
  EXPECT_EQ(python.exit_status(kPatience), 0);
  EXPECT_EQ(python.output(), "8\n");
}

TEST_P(ProgramReport, WritesSumsForNodeExporter) {
  collect_some();
  write_whole_file("runs.prom", "what was before\n");
  const Result result = calls({"report", "--prometheus", "runs.prom", database_});
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_EQ(result.output, "");
  const std::string station = "{station=\"" + host() + "\"";
  EXPECT_EQ(
      whole_file("runs.prom"),
      "# HELP zirn_runs Runs in the database.\n# TYPE zirn_runs gauge\n"
      "zirn_runs" +
          station +
          ",verdict=\"failed\"} 1\n"
          "zirn_runs" +
          station +
          ",verdict=\"none\"} 1\n"
          "zirn_runs" +
          station +
          ",verdict=\"passed\"} 5\n"
          "# HELP zirn_run_faults Runs by whose fault they are and by what cause.\n# TYPE zirn_run_faults "
          "gauge\n"
          "zirn_run_faults" +
          station +
          ",owner=\"none\",cause=\"passed\"} 5\n"
          "zirn_run_faults" +
          station +
          ",owner=\"unit\",cause=\"unit.failed\"} 1\n"
          "zirn_run_faults" +
          station +
          ",owner=\"unknown\",cause=\"record.no-end\"} 1\n"
          "# HELP zirn_run_frames_lost Frames lost on the test network.\n# TYPE zirn_run_frames_lost gauge\n"
          "zirn_run_frames_lost" +
          station +
          "} 0\n"
          "# HELP zirn_run_blocks_repeated Blocks that were sent again.\n# TYPE zirn_run_blocks_repeated "
          "gauge\n"
          "zirn_run_blocks_repeated" +
          station +
          "} 0\n"
          "# HELP zirn_run_duration_seconds How long the runs took together.\n"
          "# TYPE zirn_run_duration_seconds gauge\n"
          "zirn_run_duration_seconds" +
          station +
          "} 0.050\n"
          "# HELP zirn_run_unreadable_files Files that are no readable run.\n"
          "# TYPE zirn_run_unreadable_files gauge\n"
          "zirn_run_unreadable_files 1\n");
  EXPECT_FALSE(std::filesystem::exists("runs.prom.part"));
}

TEST_P(ProgramReport, CountsFoldersAsItCountsADatabase) {
  collect_some();
  const Result of_folder = calls({"report", "--junit", "runs"});
  EXPECT_EQ(of_folder.status, 0);
  EXPECT_EQ(of_folder.output, calls({"report", "--junit", database_}).output);
  EXPECT_EQ(of_folder.errors,
            "zirn-run: " + directory_.file("runs/text.pcapng: expected a pcapng or pcap file, found text\n"));
}

// Whoever writes into the database says where a record is.
TEST_P(ProgramReport, OpensNothingThatIsNoRecordOrHasNoEnd) {
  make_runs("runs", 4, 1);
  ASSERT_EQ(collects({"runs"}).status, 0);
  const std::string page = "pages/runs/" + row("SELECT content FROM runs") + ".html";
  ASSERT_EQ(mkfifo("pipe", 0600), 0);
  for (const std::string& path : {directory_.file("pipe"), std::string("/dev/zero"),
                                  std::string("/proc/self/pagemap"), directory_.file("missing")}) {
    change("UPDATE runs SET record = '" + path + "'");
    change("UPDATE files SET size = 0, path = '" + path + "'");
    const Result result = calls({"report", "-o", "pages", database_});
    EXPECT_EQ(result.status, 0) << path << "\n" << result.errors;
    EXPECT_NE(whole_file(page).find("The record was not here"), std::string::npos) << path;
  }
}

TEST_P(ProgramReport, FindsARecordWhateverItsName) {
  std::filesystem::create_directory("runs");
  write_whole_file("runs/'); DROP TABLE runs; --:x\\x41\xff\x01\n\u00e4.pcapng", run(4));
  ASSERT_EQ(collects({"runs"}).status, 0);
  EXPECT_EQ(calls({"report", "-o", "pages", database_}).status, 0);
  const std::string page = whole_file("pages/runs/" + row("SELECT content FROM runs") + ".html");
  EXPECT_NE(page.find("<ol class=\"rows\""), std::string::npos) << page;
}

TEST_P(ProgramReport, SaysWhichRunsAreNotInThePlot) {
  make_runs("runs", 0, 3);
  ASSERT_EQ(collects({"runs"}).status, 0);
  const auto overview = [this] {
    EXPECT_EQ(calls({"report", "-o", "pages", database_}).status, 0);
    return whole_file("pages/index.html");
  };
  EXPECT_EQ(overview().find("say when"), std::string::npos);
  change("UPDATE runs SET started = NULL WHERE name = 'run-1'");
  EXPECT_NE(overview().find("1 run does not say when it began and is not in this plot."), std::string::npos);
  change("UPDATE runs SET started = NULL WHERE name = 'run-2'");
  EXPECT_NE(overview().find("2 runs do not say when they began and are not in this plot."),
            std::string::npos);
  change("UPDATE runs SET started = NULL");
  EXPECT_EQ(overview().find("not in this plot"), std::string::npos);  // there is none
  change("DELETE FROM runs");
  const std::string empty = overview();
  EXPECT_NE(empty.find("There are no runs."), std::string::npos);
  EXPECT_EQ(empty.find("Every run passed"), std::string::npos);
}

TEST_P(ProgramReport, ShowsSentencesWholeOnTheRunsPage) {
  make_runs("runs", 4, 1);
  ASSERT_EQ(collects({"runs"}).status, 0);
  std::string name = "a";
  while (name.size() < 400) name += "\u00e4";
  change("UPDATE runs SET fault_sentence = '" + name + "', json = '{\"fault\": {\"sentences\": [\"the " +
         name + " end\"], \"advice\": \"ask " + name + "\"}}'");
  EXPECT_EQ(calls({"report", "-o", "pages", database_}).status, 0);
  const std::string page = whole_file("pages/runs/" + row("SELECT content FROM runs") + ".html");
  EXPECT_NE(page.find("<li><bdi>the " + name + " end</bdi></li>"), std::string::npos) << page;
  EXPECT_NE(page.find("What to do: <bdi>ask " + name + "</bdi>"), std::string::npos) << page;
  EXPECT_NE(whole_file("pages/index.html").find("\"" + name.substr(0, 201) + "...\""), std::string::npos);
}

TEST_P(ProgramReport, CountsWhatIsBeingWrittenInAFolderAsItIs) {
  make_runs("runs", 0, 3);
  const std::ofstream writer("runs/run-1.pcapng", std::ios::app);
  write_whole_file("runs/run-2.pcapng", run(2).substr(0, run(2).size() - 10));
  write_whole_file("runs/text.pcapng", "This is no record.");
  write_whole_file("runs/run-4.pcapng.part", run(4));
  const Result result = calls({"report", "--junit", "runs"});
  EXPECT_EQ(result.status, 0);
  EXPECT_NE(result.output.find("<testsuites tests=\"4\" failures=\"0\" errors=\"1\""), std::string::npos)
      << result.output;
}

// All of the runs would take more than it may have.
TEST_P(ProgramReport, HoldsNoMoreOfManyRunsThanOfFew) {
  constexpr int kRuns = kSanitized ? 10000 : 100000;
  const std::string limit = kSanitized ? "" : "ulimit -d 49152; ";  // KiB
  {
    database::Database made(database_, database::Database::Use::kWrite, {});
    fill_with_runs(&made, kRuns);
  }
  Program report({"sh", "-c",
                  limit + "'" ZIRN_RUN_PROGRAM "' report --csv --prometheus sums '" + database_ +
                      "' > runs.csv && '" + ZIRN_RUN_PROGRAM "' report --junit '" + database_ +
                      "' > runs.xml"});
  EXPECT_EQ(report.exit_status(kPatience), 0) << report.output();
  const auto lines = [](const std::string& file) {
    std::ifstream text(file);
    return std::count(std::istreambuf_iterator<char>(text), {}, '\n');
  };
  EXPECT_EQ(lines("runs.csv"), kRuns + 1);
  EXPECT_EQ(lines("runs.xml"), kRuns + 5);
}

class ProgramReportOfMany : public CalledProgram {};

// What it took is said, too.
TEST_F(ProgramReportOfMany, AMillionRunsInAMinuteAnd200MiBLong) {
  if (ScratchServer::programs().empty()) GTEST_SKIP() << "needs initdb (package postgresql)";
  const ScratchServer server(directory_.path());
  {
    database::Database made(server.url(), database::Database::Use::kWrite, {});
    fill_with_runs(&made, 1'000'000);
  }
  const auto begin = std::chrono::steady_clock::now();
  Program report(
      {"sh", "-c",
       "ulimit -d 204800; exec '" ZIRN_RUN_PROGRAM "' report -o pages '" + server.url() + "'"});  // KiB
  EXPECT_EQ(report.exit_status(std::chrono::seconds(600)), 0) << report.output();
  const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - begin;
  rusage used = {};
  getrusage(RUSAGE_CHILDREN, &used);
  std::cout << "a million runs: " << seconds.count() << " s, " << used.ru_maxrss / 1024 << " MiB"
            << std::endl;
  EXPECT_LT(seconds.count(), 60);
  EXPECT_LT(used.ru_maxrss, 200 * 1024);
  EXPECT_NE(whole_file("pages/index.html").find("1,000,000"), std::string::npos);
}

class ProgramReportCall : public CalledProgram {};

TEST_F(ProgramReportCall, RefusesAWrongCall) {
  expect_refused({"report"}, 2, "--output, --csv, --junit or --prometheus is required");
  expect_refused({"report", "--csv", "--junit"}, 2, "--csv excludes --junit");
  expect_refused({"report", "--csv", "a", "b"}, 3,
                 "zirn-run: expected one database, or folders, found 2 names");
}

TEST_F(ProgramReportCall, MakesNoDatabase) {
  unsetenv("ZIRN_RUN_DATABASE");
  expect_refused({"report", "--csv"}, 3, "zirn-run: runs.db: No such file or directory");
  EXPECT_FALSE(std::filesystem::exists("runs.db"));
  write_whole_file("runs.db", "");
  expect_refused({"report", "--csv"}, 3,
                 "zirn-run: runs.db: expected a database of runs, found no tables of one");
}

// In a folder that may not be written to. What keeps root from that as well: to have lost the right to pass over rights.
class ProgramReportOfKept : public CalledProgram {
 protected:
  static constexpr char kName[] = "odd %20?a=#\xff.db";

  void SetUp() override {
    std::filesystem::create_directory("kept");
    {
      database::Database made("made.db", database::Database::Use::kWrite, {});
      fill_with_runs(&made, 1000);
    }
    std::filesystem::rename("made.db", std::string("kept/") + kName);
    std::filesystem::permissions("kept", std::filesystem::perms(0555));
  }
  void TearDown() override { std::filesystem::permissions("kept", std::filesystem::perms(0755)); }

  // In a shell: the call, whose output something else reads. The exit status.
  static int reports_to(const std::string& reader) {
    const std::string less = geteuid() == 0 ? "setpriv --bounding-set=-dac_override " : "";
    Program shell({"sh", "-c",
                   "{ " + less +
                       "'" ZIRN_RUN_PROGRAM "' report --csv \"kept/$0\" 2>errors; echo $? >status; } | " +
                       reader,
                   kName});
    EXPECT_EQ(shell.exit_status(kPatience), 0) << shell.output();
    return std::stoi(whole_file("status"));
  }
};

TEST_F(ProgramReportOfKept, IsAsOfAnyOther) {
  EXPECT_EQ(reports_to("cat >runs.csv"), 0) << whole_file("errors");
  const std::string csv = whole_file("runs.csv");
  EXPECT_EQ(std::count(csv.begin(), csv.end(), '\n'), 1001);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator("kept"), {}), 1);
}

// What is read then may belong to different times.
TEST_F(ProgramReportOfKept, FailsWhereSomebodyWritesMeanwhile) {
  EXPECT_EQ(reports_to("{ read -r line; touch \"kept/$0\"; cat >/dev/null; }"), 3);
  EXPECT_EQ(whole_file("errors"),
            "zirn-run: kept/odd %20?a=#\\xff.db: somebody wrote to it while it was read\n");
}

TEST_F(ProgramReportCall, LeavesAPipeWhereItIs) {
  write_whole_file("run.pcapng", MadeCapture().verdict("F_l_m_02PPT_PASSED", 2002).contents());
  ASSERT_EQ(calls({"collect", "--into", "runs.db", "run.pcapng"}).status, 0);
  expect_refused({"report", "runs.db", "--prometheus", "/dev/null"}, 3,
                 "zirn-run: /dev/null: expected a file, or none, found something else");
}

}  // namespace
