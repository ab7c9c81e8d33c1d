// What the station's lines say by themselves.
#include <algorithm>

#include "explanation/case.h"
#include "frames/words.h"

namespace explanation {

namespace {

constexpr std::string_view kWaitFailed = "station.wait-failed";
constexpr std::string_view kNoConnection[] = {"ppt.refused", "ppt.dropped", "ppt.absent", "ppt.no-route",
                                              "ppt.not-connected"};

bool is_of(std::string_view family, std::string_view cause) {
  return cause.substr(0, family.size()) == family;
}

bool is_no_connection(std::string_view cause) {
  return std::find(std::begin(kNoConnection), std::end(kNoConnection), cause) != std::end(kNoConnection);
}

bool contains(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

// What the shell writes to standard error for a tool that is not there.
void find_missing_tool(const Case::Line& line, Case* c) {
  const bool is_tool =
      contains(line.text, "envtool") || contains(line.text, "t1-e1") || contains(line.text, "init.d/voice");
  if (!is_tool || !contains(line.text, "not found")) return;
  c->find("board.tool-missing", line.at, "the station's shell wrote " + frames::quoted(line.text),
          seen({}, line.numbers), contains(line.text, "t1-e1"));
}

}  // namespace

void find_lines(Case* c) {
  bool has_no_connection = false;
  std::uint64_t waits_failed = 0;
  for (const Case::Line& line : c->lines) {
    if (line.printed == nullptr) find_missing_tool(line, c);
    if (line.printed == nullptr || line.printed->says != PrintedLine::Says::kCause) continue;
    const std::string_view cause = line.printed->cause;
    has_no_connection = has_no_connection || is_no_connection(cause);
    // The port that an attempt without a connection has left taken.
    if (cause == "command.port-in-use" && has_no_connection) continue;
    // The station's own alarm cuts one wait short.
    if (cause == kWaitFailed && (waits_failed += line.count) < 2) continue;
    const bool can_explain = !is_of("boot.", cause) || !c->has_unit;
    c->find(cause, line.at,
            "the station printed " + frames::quoted(line.text) +
                (line.count > 1 ? " " + frames::counted(line.count, "time") : ""),
            seen({}, line.numbers), can_explain);
  }
}

}  // namespace explanation
