// What the PPT server made of the verdicts and of the station's connection.
#include <algorithm>

#include "explanation/case.h"
#include "frames/words.h"

namespace explanation {

namespace {

using story::Connection;
using story::kNone;
using story::kStation;
using story::PassedOn;
using story::Reading;
using story::Transfer;

constexpr std::uint64_t kUnansweredAttempts = 3;  // SYNs, from where on their answers are not merely missing
constexpr Nanoseconds kAskedAgain = kSecond;      // what comes sooner is the network's

// What became of a verdict is what became of its last query. The first one that ended so is when it began.
const Transfer& telling_query(const Reading& reading, const story::Verdict& verdict) {
  const story::Transfer::End end = reading.transfers[verdict.queries.back()].end;
  const auto first = std::find_if(verdict.queries.begin(), verdict.queries.end(),
                                  [&](std::size_t query) { return reading.transfers[query].end == end; });
  return reading.transfers[*first];
}

void find_of(const story::Verdict& verdict, Case* c) {
  if (verdict.queries.empty()) return;
  const Reading& reading = c->reading;
  const Transfer& query = telling_query(reading, verdict);
  const std::string told =
      frames::printable(verdict.name) + " went to " + address_of(reading, query.server) + at(*c, query.from);
  const PassedOn passed = story::passed_on(reading, verdict);
  const auto find = [&](std::string_view cause, const std::string& what) {
    c->find(cause, query.from, told + what, seen(query.frames));
  };
  if (passed == PassedOn::kRefused) {
    find("ppt.error", "; the answer was ERROR " + std::to_string(query.error_code) + " " +
                          frames::quoted(query.error.text));
  } else if (passed == PassedOn::kClosedPort) {
    find("ppt.closed", "; UDP port " + std::to_string(reading.ppt_port) + " is closed there");
  } else if (passed == PassedOn::kSilent && !query.losses.empty()) {
    const bool is_request = query.losses[0].what == story::Loss::What::kRequest;
    find("net.ppt-loss", is_request ? " and was lost on its way" : "; the answer was lost on its way");
  } else if (passed == PassedOn::kSilent) {
    find("ppt.silent", "; no answer came within " + seconds(query.until - query.from));
  } else if (query.is_answered_late) {
    find("ppt.late", "; the answer came " + seconds(*query.answered - query.from) + " later");
  }
}

// A unit that asks again meanwhile, as far as it is not the network that doubles its requests.
void find_repeated(const story::Verdict& verdict, Case* c) {
  if (verdict.transfer == kNone) return;
  const Transfer& transfer = c->reading.transfers[verdict.transfer];
  const bool is_late = transfer.answered && *transfer.answered - transfer.from >= kAskedAgain;
  if (transfer.requests < 2 || !is_late) return;
  c->find("verdict.repeated", verdict.at,
          "the unit gave " + frames::printable(verdict.name) + " " +
              frames::counted(transfer.requests, "time") + " from " + moment(*c, transfer.from) +
              " on; the station takes each for a verdict of its own",
          seen(transfer.frames));
}

void find_connection(const Connection& connection, Case* c) {
  const Reading& reading = c->reading;
  if (connection.client != kStation || reading.parties[connection.server].role != story::Role::kPptServer)
    return;
  const std::string told = "the station's connection to " + address_of(reading, connection.server) +
                           ", port " + std::to_string(connection.server_port) + at(*c, connection.from) + " ";
  if (connection.state == Connection::State::kRefused) {
    c->find("ppt.refused", connection.from, told + "was refused", seen(connection.frames));
  } else if (connection.state == Connection::State::kConnecting &&
             connection.attempts >= kUnansweredAttempts) {
    c->find("ppt.dropped", connection.from, told + "was not answered", seen(connection.frames));
  } else if (connection.opened && connection.attempts > 1) {
    c->find("net.ppt-loss", connection.from,
            told + "was opened by the attempt number " + std::to_string(connection.attempts),
            inferred(connection.frames));
  }
}

}  // namespace

void find_ppt(Case* c) {
  for (const story::Verdict& verdict : c->reading.verdicts) {
    find_of(verdict, c);
    find_repeated(verdict, c);
  }
  for (const Connection& connection : c->reading.connections) find_connection(connection, c);
}

}  // namespace explanation
