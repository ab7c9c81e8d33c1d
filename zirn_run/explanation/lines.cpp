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

// Without a broadcast address, boot script and relay want the same one at the relay's port, and one of them gets it.
bool is_message_port_taken(const Case& c) {
  constexpr std::uint16_t kRelayPort = 12345;
  const auto relay = c.lines_with("UDP: ERROR on binding. <REASON>");
  return c.reading.message_port != kRelayPort ||
         std::any_of(relay.begin(), relay.end(),
                     [](const Case::Line* line) { return contains(line->text, "Address already in use"); });
}

// What the shell writes to standard error for a tool that is not there.
void find_missing_tool(const Case::Line& line, Case* c) {
  const auto tool = std::find_if(std::begin(kBoardTools), std::end(kBoardTools),
                                 [&line](std::string_view name) { return contains(line.text, name); });
  if (tool == std::end(kBoardTools) || !contains(line.text, "not found")) return;
  c->find("board.tool-missing", line.at, "the station's shell wrote " + frames::quoted(line.text),
          seen({}, line.numbers), *tool == kBoardTools[0], std::string(*tool));
}

}  // namespace

void find_lines(Case* c) {
  bool has_no_connection = false;
  std::uint64_t waits_failed = 0;
  for (const Case::Line& line : c->lines) {
    if (line.printed == nullptr) find_missing_tool(line, c);
    if (line.printed == nullptr || line.printed->says != PrintedLine::Says::kCause) continue;
    std::string_view cause = line.printed->cause;
    if (cause == "boot.no-broadcast" && is_message_port_taken(*c)) cause = "boot.port-in-use";
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
