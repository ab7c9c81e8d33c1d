#include <optional>
#include <string>

#include "database/runs.h"
#include "report/number.h"
#include "report/report.h"

namespace report {

namespace {

constexpr char kBeginsFormula[] = "=+-@\t\r";

std::string field(long long number) {
  return std::to_string(number);
}

std::string field(double number) {
  return text_of(number);
}

std::string field(const std::string& text) {
  std::string whole = text.find_first_of(kBeginsFormula) == 0 ? "'" + text : text;
  if (whole.find_first_of(",\"\r\n") == std::string::npos) return whole;
  for (std::size_t at = 0; (at = whole.find('"', at)) != std::string::npos; at += 2) whole.insert(at, 1, '"');
  return "\"" + whole + "\"";
}

template <typename Type>
std::string field(const std::optional<Type>& value) {
  return value ? field(*value) : "";
}

}  // namespace

void write_csv(soci::session& session, std::ostream& out) {
  std::string line;
  const auto add = [&line](const std::string& text) { line += (line.empty() ? "" : ",") + text; };
  const auto end = [&] {
    out << line << "\r\n";
    line.clear();
  };
  const database::Run none;
  database::Run::columns(none, [&](const char* name, const auto&) { add(name); });
  end();
  database::each_run(session, [&](const database::Run& run) {
    database::Run::columns(run, [&](const char*, const auto& value) { add(field(value)); });
    end();
  });
}

}  // namespace report
