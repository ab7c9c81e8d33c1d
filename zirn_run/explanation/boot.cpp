// Why no boot script reached a unit, or none answered it.
#include <algorithm>

#include "explanation/case.h"
#include "frames/words.h"

namespace explanation {

namespace {

constexpr std::string_view kFailed = "Error: Failed to initialize sender";
constexpr std::string_view kOptions = "Can't set the socket options the reason is <REASON>";
constexpr std::string_view kInitialized = "Message Sender initialized. IP: <ADDRESS> Port=<PORT>";

void find_none(Case* c) {
  const auto failed = c->lines_with(kFailed);
  if (failed.empty()) return;
  const bool has_reason = std::any_of(c->lines.begin(), c->lines.end(), [](const Case::Line& line) {
    return line.printed != nullptr && line.printed->cause.substr(0, 5) == "boot.";
  });
  if (has_reason) return;
  const auto options = c->lines_with(kOptions);
  const bool is_socket = !options.empty() && options.front()->numbers.first < failed.front()->numbers.first;
  c->find(is_socket ? "boot.no-socket" : "boot.none", failed.front()->at,
          "the station printed " + frames::quoted(failed.front()->text), seen({}, failed.front()->numbers),
          !c->has_unit);
}

void find_no_broadcast(Case* c) {
  for (const Case::Line* line : c->lines_with(kInitialized)) {
    if (values_in(*line->printed, line->text).front() != "0.0.0.0") continue;
    c->find("boot.no-broadcast", line->at, "the station printed " + frames::quoted(line->text),
            seen({}, line->numbers), !c->has_unit);
  }
}

void find_unanswered(Case* c) {
  if (c->has_unit) return;
  if (const auto& script = c->reading.boot_script; script && script->count > script->lost) {
    c->find("boot.unanswered", script->first,
            "the boot script went out " + frames::counted(script->count, "time") + " from " +
                moment(*c, script->first) + " to " + moment(*c, script->last) +
                ", and no unit asked for anything",
            seen(script->frames));
  } else if (const auto lines = c->lines_with(kInitialized); !lines.empty() && !script) {
    c->find("boot.unanswered", lines.front()->at,
            "the station says that it sends the boot script, and no unit asked for anything",
            inferred({}, lines.front()->numbers));
  }
}

}  // namespace

void find_boot(Case* c) {
  find_none(c);
  find_no_broadcast(c);
  find_unanswered(c);
}

}  // namespace explanation
