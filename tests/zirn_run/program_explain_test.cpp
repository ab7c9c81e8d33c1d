// zirn-run explain as it is called.
#include <algorithm>

#include "zirn_run/called_program.h"
#include "zirn_run/made_capture.h"

namespace {

class ProgramExplain : public CalledProgram {
 protected:
  // A unit gives these verdicts, and reads nothing else.
  static std::string capture_with(const std::vector<std::string>& verdicts) {
    MadeCapture capture;
    std::uint16_t port = 2000;
    for (const std::string& name : verdicts) capture.verdict(name, ++port);
    return capture.contents();
  }
  void SetUp() override {
    write_whole_file("passed.pcapng", capture_with({"F_l_m_09PPT_PASSED"}));
    write_whole_file("failed.pcapng", capture_with({"F_l_m_09PPT_FAILED"}));
    write_whole_file("none.pcapng", capture_with({"F_l_m_01MEMORY_PASSED"}));
  }
  // What a JSON Schema validator says of the lines; skipped where there is none.
  void expect_valid(const std::string& lines) const {
    write_whole_file("lines.json", lines);
    const std::string check =
        "import json, sys\n"
        "try: import jsonschema\n"
        "except ImportError: sys.exit(77)\n"
        "schema = json.load(open(sys.argv[1]))\n"
        "for line in open('lines.json', encoding='utf-8'): jsonschema.validate(json.loads(line), schema)\n";
    Process python({"python3", "-c", check, EXPLANATION_SCHEMA}, [] { append_errors_to("errors"); });
    const int status = status_number(python.wait_for_end(kPatience));
    if (status == 77 || status == 127) GTEST_SKIP() << "no python3 with jsonschema (python3-jsonschema)";
    EXPECT_EQ(status, 0) << whole_file("errors");
  }
};

TEST_F(ProgramExplain, SaysTheVerdictAndWhoseFaultItIs) {
  const Result result = calls({"explain", "passed.pcapng"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.output.substr(0, 8), "passed  ");
  EXPECT_NE(result.output.find("  PASSED\n  Fault: none\n"), std::string::npos) << result.output;
  EXPECT_EQ(result.errors, "");
}

TEST_F(ProgramExplain, GivesOneWord) {
  const auto word = [this](const std::string& file, int status) {
    const Result result = calls({"explain", "--result", file});
    EXPECT_EQ(result.status, status) << file;
    return result.output;
  };
  EXPECT_EQ(word("passed.pcapng", 0), "passed\n");
  EXPECT_EQ(word("failed.pcapng", 1), "failed\n");
  EXPECT_EQ(word("none.pcapng", 1), "none\n");
}

TEST_F(ProgramExplain, AnswersTheOthersWhereAFileCannotBeRead) {
  const Result result = calls({"explain", "--result", "passed.pcapng", "missing", "failed.pcapng"});
  EXPECT_EQ(result.status, 3);
  EXPECT_EQ(result.output, "passed\nfailed\n");
  EXPECT_EQ(result.errors, "zirn-run: missing: No such file or directory\n");
}

TEST_F(ProgramExplain, ReadsStandardInput) {
  EXPECT_EQ(calls({"explain", "--result", "-"}, whole_file("failed.pcapng")).output, "failed\n");
}

// Of several runs the last one.
TEST_F(ProgramExplain, ReadsLinesAlone) {
  const std::string run =
      "Starting TFTP server on 172.40.0.1:69 PPT Server: 172.30.0.254\n"
      "Cmd received: F_l_m_09PPT_PASSED\nTFTP Server was shut down\n";
  write_whole_file("lines", "Cmd received: F_l_m_01PPT_FAILED\n" + run);
  EXPECT_EQ(calls({"explain", "--result", "--log", "lines"}).output, "passed\n");
  write_whole_file("lines", run);
  EXPECT_EQ(calls({"explain", "none.pcapng", "--log", "lines", "--result"}).output, "passed\n");
}

TEST_F(ProgramExplain, RefusesAWrongCall) {
  expect_refused({"explain"}, 2, "FILE is required");
  expect_refused({"explain", "a", "b", "--log", "c"}, 2,
                 "--journal and --log: expected one FILE beside them, found 2");
  expect_refused({"explain", "a", "--json", "--result"}, 2, "--json excludes --result");
}

TEST_F(ProgramExplain, GivesJsonThatTheSchemaDescribes) {
  // Names as somebody hostile would choose them.
  write_whole_file("odd.pcapng",
                   capture_with({std::string("F_l_m_\x1b[2J\xff\"\\\n_PPT_FAILED", 24), "F_l_m_1"}));
  const Result result =
      calls({"explain", "--json", "passed.pcapng", "failed.pcapng", "none.pcapng", "odd.pcapng"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(std::count(result.output.begin(), result.output.end(), '\n'), 4);
  EXPECT_EQ(result.output.find('\x1b'), std::string::npos);
  EXPECT_EQ(result.output.rfind("{\"schemaVersion\":1,\"file\":\"passed.pcapng\",\"name\":\"passed\"", 0), 0U)
      << result.output;
  expect_valid(result.output);
}

TEST_F(ProgramExplain, PrintsTheCauses) {
  const Result result = calls({"explain", "--causes"});
  EXPECT_EQ(result.status, 0);
  EXPECT_NE(result.output.find("ppt.silent  PPT server\n"), std::string::npos);
}

TEST_F(ProgramExplain, ShowsNothingThatMovesACursor) {
  write_whole_file("odd.pcapng", capture_with({"F_l_m_\x1b[2J_PPT_FAILED"}));
  const Result result = calls({"explain", "odd.pcapng"});
  EXPECT_EQ(result.output.find('\x1b'), std::string::npos);
  EXPECT_NE(result.output.find("F_l_m_\\x1b[2J_PPT_FAILED"), std::string::npos) << result.output;
}

}  // namespace
