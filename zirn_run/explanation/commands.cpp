// What became of the unit's commands.
#include <algorithm>
#include <cstddef>
#include <optional>

#include "explanation/case.h"
#include "frames/words.h"

namespace explanation {

namespace {

using story::Connection;
using story::kStation;
using State = Connection::State;
using Text = Connection::Text;

constexpr char kAsksForMac[] = "ZIRN_ASKS_FOR_HIS_MAC";
constexpr char kInitializesPmc[] = "DO_PMC_INIT";
constexpr char kDefaultMac[] = "02:00:00:00:00:03";
constexpr char kEmptyMac[] = "00:00:00:00:00:02";
constexpr char kTool[] = "/mnt/ramdisk/t1-e1";
constexpr Nanoseconds kHangs = 10 * kSecond;     // what takes so long
constexpr Nanoseconds kHeldUp = 5 * kSecond;     // an end that follows its verdict so late
constexpr std::ptrdiff_t kConnectionsBack = 64;  // that are looked at
constexpr std::string_view kWhyNoPort[] = {"ppt.refused",        "ppt.dropped",       "ppt.absent",
                                           "ppt.no-route",       "ppt.not-connected", "command.port-in-use",
                                           "command.no-address", "command.no-port",   "command.port-closed"};

// What is known of the command port in the whole run.
struct Port {
  std::optional<Finding> why;  // there is none
  bool is_served = false;
  Nanoseconds opened = 0;           // as the station says, the first time; 0: it does not
  Nanoseconds last_connection = 0;  // of the station's to the PPT server
};

// What the board is called with for a command; empty: the command does not say.
std::string tool_of(const std::string& command) {
  if (command.find(kAsksForMac) != std::string::npos) return "envtool show tempmac";
  constexpr char kDigits[] = "0123456789";
  const std::size_t mode = command.find(kInitializesPmc) + sizeof kInitializesPmc;  // behind its colon
  if (mode >= command.size()) return "";
  const std::string digits = command.substr(mode, command.find_first_not_of(kDigits, mode) - mode);
  return digits.empty() ? "" : std::string(kTool) + " " + digits + " -1";
}

bool contains(const std::string& text, const char* part) {
  return text.find(part) != std::string::npos;
}

// The first finding that leaves the unit without a command port; null: there is none.
const Finding* why_no_port(const Case& c) {
  const Finding* first = nullptr;
  for (const Finding& finding : c.findings) {
    const bool closes =
        std::find(std::begin(kWhyNoPort), std::end(kWhyNoPort), finding.cause->id) != std::end(kWhyNoPort);
    if (closes && (first == nullptr || finding.at < first->at)) first = &finding;
  }
  return first;
}

// The port opens a moment after the first verdict, right before the station connects to the PPT server.
bool opens_after(Nanoseconds when, const Port& port) {
  return port.opened > when || port.last_connection > when;
}

Port port_of(const Case& c) {
  Port port;
  if (const Finding* const why = why_no_port(c)) port.why = *why;
  const auto lines = c.lines_with("Message receiver initialized. IP: <ADDRESS> Port=<PORT>");
  if (!lines.empty()) port.opened = lines.front()->at;
  port.is_served = !lines.empty() || c.has_line("Mode detected: <NUMBER>");
  for (const Connection& connection : c.reading.connections) {
    const bool is_to_ppt = connection.client == kStation;
    if (is_to_ppt) port.last_connection = std::max(port.last_connection, connection.from);
    port.is_served =
        port.is_served || (is_to_ppt ? connection.opened.has_value() : connection.bytes_from_server > 0);
  }
  return port;
}

void find_refused_at(Nanoseconds when, const Connection& connection, const Port& port, Case* c) {
  const auto& why = port.why;
  const bool has_verdict = !c->verdicts.empty() && c->verdicts.front().at <= when;
  const bool is_early = !has_verdict && !(why && why->at <= when);
  const bool waits = c->waits_for_ppt(when);  // which has a cause of its own
  if (!is_early && !why && (waits || opens_after(when, port))) return;
  const std::string_view id = is_early ? "command.too-early" : why ? why->cause->id : "command.refused";
  const std::string again = connection.attempts > 1 ? " and" + at(*c, connection.until) : "";
  c->find(id, when,
          "the station's command port refused the unit's connection" + at(*c, connection.from) + again,
          seen(connection.frames));
}

// Several attempts are one connection.
void find_refused(const Connection& connection, const Port& port, Case* c) {
  find_refused_at(connection.from, connection, port, c);
  if (connection.attempts > 1) find_refused_at(connection.until, connection, port, c);
}

void find_reply(const Text& question, const Text& reply, Case* c) {
  if (is_cut(question.said) || is_cut(reply.said)) return;
  const auto find = [&](std::string_view cause, const std::string& what) {
    Numbers frames = question.frames;
    frames.add(reply.frames);
    c->find(cause, reply.at, what + at(*c, reply.at), seen(frames), true, tool_of(question.said.text));
  };
  const std::string& asked = question.said.text;
  const std::string& told = reply.said.text;
  if (contains(asked, kAsksForMac)) {
    if (told == kDefaultMac) find("board.mac-default", "the unit was told the address " + told);
    if (told == kEmptyMac) find("board.mac-empty", "the unit was told the address " + told);
  } else if (contains(asked, kInitializesPmc)) {
    if (told == "FAIL")
      find("board.tool-failed", "the unit asked " + frames::quoted(asked) + " and was told FAIL");
  } else if (told == asked) {
    find("command.unknown", "the unit sent " + frames::quoted(asked) + ", which is no command,");
  }
}

bool was_another_open(const Connection& connection, const Text& question, const Case& c) {
  const auto& all = c.reading.connections;
  const auto end = all.begin() + (&connection - all.data());
  const auto begin = end - std::min<std::ptrdiff_t>(end - all.begin(), kConnectionsBack);
  return std::any_of(begin, end, [&](const Connection& other) {
    return other.server == kStation && other.opened && *other.opened < connection.from &&
           !other.texts.empty() && (!other.ended || *other.ended > question.at);
  });
}

// A port that is not served takes connections all the same.
void find_no_reply(const Connection& connection, const Text& question, const Port& port, Case* c) {
  const auto& why = port.why;
  // What the unit has broken off cannot be answered; what it has closed still can.
  const bool is_over =
      connection.ended && (connection.ended_by == kStation || connection.state == State::kBrokenOff);
  const Nanoseconds until = is_over ? *connection.ended : c->reading.last;
  const bool is_open_at_end = !connection.ended && !c->reading.station_end;
  const bool is_command =
      contains(question.said.text, kAsksForMac) || contains(question.said.text, kInitializesPmc);
  const std::string told = "the unit asked " + frames::quoted(question.said.text) + at(*c, question.at) +
                           (is_over ? " and had no answer for " : " and had no answer in the ") +
                           seconds(until - question.at) + (is_over ? "" : " until the record ends");
  if (why && why->at <= until) {
    c->find(why->cause->id, question.at, told, seen(question.frames));
  } else if (was_another_open(connection, question, *c)) {
    c->find("command.second", question.at, told + "; another connection of the unit was still open",
            seen(question.frames));
  } else if (is_command && connection.opened && until - question.at >= kHangs && port.is_served) {
    c->find("board.tool-hangs", question.at, told, inferred(question.frames), true,
            tool_of(question.said.text));
  } else if (is_command && (until - question.at >= kHangs || is_open_at_end)) {
    c->find("command.unanswered", question.at, told, inferred(question.frames));
  }
}

void find_in_texts(const Connection& connection, const Port& port, Case* c) {
  const std::vector<Text>& texts = connection.texts;
  for (std::size_t i = 0; i < texts.size(); ++i) {
    if (!texts[i].is_from_client) continue;
    if (i + 1 < texts.size() && !texts[i + 1].is_from_client) {
      find_reply(texts[i], texts[i + 1], c);
    } else if (i + 1 == texts.size() && connection.text_count == texts.size()) {
      find_no_reply(connection, texts[i], port, c);
    }
  }
}

// The end waits for a connection that its peer does not close.
void find_held_open(const Connection& connection, Case* c) {
  if (c->verdicts.empty() || !story::is_final(c->verdicts.back().says) || !connection.opened) return;
  const Nanoseconds verdict = c->verdicts.back().at;
  const Nanoseconds ended = connection.ended.value_or(c->reading.last);
  if (connection.texts.empty() || *connection.opened > verdict || ended < verdict + kHeldUp) return;
  c->find("command.held-open", verdict,
          "the unit's command connection stayed open for " + seconds(ended - verdict) +
              " after the final verdict",
          seen(connection.frames));
}

// What the unit was not told of explains nothing.
void find_calls(Case* c) {
  for (const story::Step& step : c->reading.steps) {
    if (step.kind != story::Step::Kind::kBoardCall || step.status != 0) continue;
    if (step.said.text.rfind(kTool, 0) != 0) continue;
    c->find("board.tool-failed", step.from,
            "the board ran " + frames::printable(step.said.text) + ", which ended with 0",
            seen({}, step.lines), false, frames::printable(step.said.text));
  }
}

}  // namespace

void find_commands(Case* c) {
  const Port port = port_of(*c);
  for (const Connection& connection : c->reading.connections) {
    if (connection.server != kStation || connection.client == kStation) continue;
    if (connection.server_port != c->reading.message_port) continue;
    if (connection.state == State::kRefused) find_refused(connection, port, c);
    find_in_texts(connection, port, c);
    find_held_open(connection, c);
  }
  find_calls(c);
}

}  // namespace explanation
