#include "trial/narrator.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <optional>

#include "explanation/printed_lines.h"
#include "frames/tftp_message.h"
#include "frames/words.h"

namespace trial {

namespace {

using story::Connection;
using story::kStation;
using story::Transfer;

constexpr char kVerdict[] = "Cmd received: <NAME>";
constexpr char kRequest[] = "RRQ <NAME>";
constexpr char kBegins[] = "Starting TFTP server on <ADDRESS>:<PORT> PPT Server: <ADDRESS>";
constexpr char kBootScript[] = "Message Sender initialized. IP: <ADDRESS> Port=<PORT>";

std::string seconds(record::Nanoseconds time) {
  char text[40];
  std::snprintf(text, sizeof text, "%.1f s", static_cast<double>(time) / 1e9);
  return text;
}

std::string megabytes(std::uint64_t bytes) {
  char text[40];
  std::snprintf(text, sizeof text, "%.1f", static_cast<double>(bytes) / 1e6);
  return text;
}

bool contains(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

// "MEMORY" of "F_l_m_01MEMORY_PASSED".
std::string step_in(const std::string& verdict) {
  constexpr std::size_t kBefore = 8;
  std::string name = verdict.size() > kBefore ? verdict.substr(kBefore) : verdict;
  for (const std::string_view result : {"_PASSED", "_FAILED"}) {
    const std::size_t rest = name.size() - std::min(name.size(), result.size());
    if (rest > 0 && name.compare(rest, result.size(), result) == 0) name.resize(rest);
  }
  return frames::printable(name);
}

std::string verdict_in_words(const std::string& name) {
  const auto says = story::verdict_in(name);
  if (says == story::Verdict::Says::kPassed) return "the unit PASSED";
  if (says == story::Verdict::Says::kFailed) return "the unit FAILED";
  const char* const result = contains(name, "FAILED") ? " FAILED" : contains(name, "PASSED") ? " passed" : "";
  return "step " + step_in(name) + result;
}

bool is_read_of_file(const Transfer& transfer) {
  return transfer.server == kStation && transfer.kind == Transfer::Kind::kRead &&
         transfer.second_answer_of == story::kNone && !story::verdict_in(transfer.name);
}

// As the station offered it; 0: not known.
std::uint64_t size_of(const Transfer& transfer) {
  for (const auto& [name, value] : transfer.acknowledged) {
    if (name == "tsize") return std::strtoull(value.c_str(), nullptr, 10);
  }
  return 0;
}

}  // namespace

void Narrator::say(record::Nanoseconds at, const std::string& text) {
  if (++said_ < kMostSaid) say_(at, text);
  if (said_ == kMostSaid) say_(at, "much happens: what is not a verdict is only in the record from here on");
}

std::string Narrator::unit(std::size_t party) const {
  const auto& addresses = reading_.parties[party].addresses;
  return addresses.empty() ? "a unit" : "unit " + frames::dotted(addresses.front());
}

template <typename Thing, typename Tell>
void Narrator::look_at(const std::vector<Thing>& things, Watched* watched, const Tell& tell) {
  for (; watched->seen < things.size(); ++watched->seen) watched->open.push_back({watched->seen, 0});
  const auto is_done = [&](Open& open) { return tell(things[open.place], &open.told); };
  auto& open = watched->open;
  open.erase(std::remove_if(open.begin(), open.end(), is_done), open.end());
}

void Narrator::look() {
  const auto tell = [this](const auto& thing, std::size_t* told) { return this->tell(thing, told); };
  look_at(reading_.transfers, &transfers_, tell);
  look_at(reading_.connections, &connections_, tell);
  look_at(reading_.relayed, &relayed_, tell);
}

bool Narrator::tell(const Transfer& transfer, std::size_t* told) {
  if (transfer.client == kStation) return tell_query(transfer);
  if (!is_read_of_file(transfer)) return true;
  if (*told == 0) say(transfer.from, unit(transfer.client) + " reads " + frames::printable(transfer.name));
  *told = 1;
  if (transfer.end == Transfer::End::kOpen) return false;
  tell_end_of_read(transfer);
  return true;
}

void Narrator::tell_end_of_read(const Transfer& transfer) {
  const std::string who = unit(transfer.client);
  const std::string file = frames::printable(transfer.name);
  if (transfer.end == Transfer::End::kFinished) {
    const std::uint64_t again = transfer.data.again;
    say(transfer.until, who + " has " + file + ": " + frames::counted(transfer.bytes, "byte") + " in " +
                            seconds(transfer.until - transfer.from) +
                            (again > 0 ? ", " + frames::counted(again, "block") + " sent again" : ""));
  } else if (transfer.end == Transfer::End::kError) {
    say(transfer.until, "the read of " + file + " by " + who +
                            " ends: " + (transfer.ended_by == kStation ? "the station" : "the unit") +
                            " says " + frames::quoted(transfer.error.text));
  } else if (transfer.end == Transfer::End::kUnanswered || transfer.end == Transfer::End::kAbandoned) {
    say(transfer.until, "the read of " + file + " by " + who + " came to no end");
  }
}

// What the station asks the PPT server for a verdict: of use where that does not go well.
bool Narrator::tell_query(const Transfer& query) {
  const std::string verdict = step_in(story::verdict_of(query.name));
  if (query.end == Transfer::End::kError)
    say(query.until,
        "the PPT server refuses the verdict " + verdict + ": " + frames::quoted(query.error.text));
  if (query.end == Transfer::End::kUnanswered)
    say(query.until, "the PPT server does not answer the verdict " + verdict);
  return query.end != Transfer::End::kOpen;
}

bool Narrator::tell(const Connection& connection, std::size_t* told) {
  if (connection.client == kStation) return tell_ppt_connection(connection);
  if (connection.server != kStation) return true;
  const std::string who = unit(connection.client);
  for (; *told < connection.texts.size(); ++*told) {
    const Connection::Text& text = connection.texts[*told];
    say(text.at, who + (text.is_from_client ? " asks " : " is told ") + frames::quoted(text.said.text));
  }
  if (connection.state == Connection::State::kRefused)
    say(connection.until, "a command of " + who + " is refused");
  return connection.state != Connection::State::kConnecting && connection.state != Connection::State::kOpen;
}

bool Narrator::tell_ppt_connection(const Connection& connection) {
  if (connection.state == Connection::State::kConnecting) return false;
  const bool is_refused = connection.state == Connection::State::kRefused;
  say(connection.until,
      is_refused ? "the PPT server refuses the connection" : "the PPT server has taken the connection");
  return true;
}

bool Narrator::tell(const story::Relayed& relayed, std::size_t*) {
  if (relayed.passed_on == 0) return false;
  say(*relayed.passed_on_at, "a datagram of " + unit(relayed.unit) +
                                 " goes on to the PPT server: " + frames::quoted(relayed.said.text));
  return true;
}

void Narrator::hear(const std::string& line, record::Nanoseconds at) {
  using Says = explanation::PrintedLine::Says;
  const explanation::PrintedLine* const printed = explanation::printed_line(line);
  if (printed == nullptr || printed->says == Says::kCause)
    return say(at, "the station says: " + frames::printable(line));
  if (printed->text == kBegins) return say(at, "the station has begun");
  if (printed->text == kBootScript) return say(at, "the boot script goes out, once a second");
  if (printed->text != kVerdict && printed->text != kRequest) return;
  const std::string name(explanation::values_in(*printed, line).front());
  if (printed->text == kVerdict) return say_(at, verdict_in_words(name));
  if (!reading_.has_frames && !story::verdict_in(name)) say(at, "a unit reads " + frames::printable(name));
}

std::string Narrator::progress() const {
  const Transfer* latest = nullptr;
  for (const Open& open : transfers_.open) {
    const Transfer& transfer = reading_.transfers[open.place];
    const bool is_later = latest == nullptr || transfer.until > latest->until;
    if (is_read_of_file(transfer) && transfer.bytes > 0 && is_later) latest = &transfer;
  }
  if (latest == nullptr) return "";
  const std::uint64_t size = size_of(*latest);
  return unit(latest->client) + " reads " + frames::printable(latest->name) + ": " +
         megabytes(latest->bytes) + (size > 0 ? " of " + megabytes(size) : "") + " MB";
}

}  // namespace trial
