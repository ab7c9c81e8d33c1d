#include <string>

#include "database/runs.h"
#include "report/number.h"
#include "report/report.h"

namespace report {

namespace {

using database::Key;
using database::Sum;

// {station="a",verdict="passed"}
std::string labels(const std::vector<const char*>& names, const Sum& sum) {
  std::string text;
  for (std::size_t i = 0; i < names.size(); ++i) {
    text += (text.empty() ? "" : ",") + std::string(names[i]) + "=\"";
    for (const char letter : sum.keys[i].value_or("")) {
      if (letter == '\\' || letter == '"') text += '\\';
      text += letter;
    }
    text += "\"";
  }
  return "{" + text + "}";
}

void head(const std::string& name, const char* help, std::ostream& out) {
  out << "# HELP " << name << " " << help << "\n# TYPE " << name << " gauge\n";
}

template <typename Value>
void family(const std::string& name, const char* help, const std::vector<const char*>& names,
            const std::vector<Sum>& sums, const Value& value, std::ostream& out) {
  head(name, help, out);
  for (const Sum& sum : sums) out << name << labels(names, sum) << " " << value(sum) << "\n";
}

}  // namespace

// Gauges: what is deleted in the database is no longer counted.
void write_prometheus(soci::session& session, std::ostream& out) {
  const auto runs = [](const Sum& sum) { return sum.runs; };
  family("zirn_runs", "Runs in the database.", {"station", "verdict"},
         database::sums(session, {Key::kStation, Key::kVerdict}), runs, out);
  family("zirn_run_faults", "Runs by whose fault they are and by what cause.", {"station", "owner", "cause"},
         database::sums(session, {Key::kStation, Key::kOwner, Key::kCause}), runs, out);
  const std::vector<Sum> stations = database::sums(session, {Key::kStation});
  const std::vector<const char*> station = {"station"};
  family(
      "zirn_run_frames_lost", "Frames lost on the test network.", station, stations,
      [](const Sum& sum) { return sum.frames_lost; }, out);
  family(
      "zirn_run_blocks_repeated", "Blocks that were sent again.", station, stations,
      [](const Sum& sum) { return sum.blocks_repeated; }, out);
  family(
      "zirn_run_duration_seconds", "How long the runs took together.", station, stations,
      [](const Sum& sum) { return text_of(sum.duration); }, out);
  head("zirn_run_unreadable_files", "Files that are no readable run.", out);
  out << "zirn_run_unreadable_files " << database::count_unreadable(session) << "\n";
}

}  // namespace report
