#include <string>

#include "database/runs.h"
#include "frames/words.h"
#include "report/number.h"
#include "report/report.h"

namespace report {

namespace {

std::string attribute(const char* name, const std::string& value) {
  return " " + std::string(name) + "=\"" + frames::markup(value) + "\"";
}

void write_case(const database::Run& run, std::ostream& out) {
  out << "    <testcase" << attribute("classname", run.station) << attribute("name", run.name)
      << attribute("time", text_of(run.duration));
  if (run.verdict == "passed") {
    out << "/>\n";
    return;
  }
  const char* const element = run.verdict == "failed" ? "failure" : "error";
  out << "><" << element << attribute("type", run.fault_cause)
      << attribute("message", run.fault_owner + ": " + run.fault_sentence) << ">"
      << frames::markup(run.record_host) << ":" << frames::markup(run.record) << "</" << element
      << "></testcase>\n";
}

void write_case(const database::File& file, std::ostream& out) {
  out << "    <testcase" << attribute("classname", file.host) << attribute("name", file.path)
      << " time=\"0.000\"><error type=\"unreadable\"" << attribute("message", file.reason.value_or(""))
      << "/></testcase>\n";
}

}  // namespace

void write_junit(soci::session& session, std::ostream& out) {
  const database::Sum all = database::sums(session, {}).front();
  const long long unreadable = database::count_unreadable(session);
  const std::string counts = attribute("tests", std::to_string(all.runs + unreadable)) +
                             attribute("failures", std::to_string(all.failed)) +
                             attribute("errors", std::to_string(all.none + unreadable)) +
                             attribute("time", text_of(all.duration));
  out << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuites" << counts
      << ">\n  <testsuite name=\"zirn-run\"" << counts << ">\n";
  database::each_run(session, [&out](const database::Run& run) { write_case(run, out); });
  database::each_unreadable(session, [&out](const database::File& file) { write_case(file, out); });
  out << "  </testsuite>\n</testsuites>\n";
}

}  // namespace report
