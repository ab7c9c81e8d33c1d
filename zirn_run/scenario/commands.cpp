// What the unit asked on command connections, and what it sent.
#include <algorithm>
#include <cstdlib>
#include <optional>
#include <sstream>

#include "frames/words.h"
#include "scenario/writing.h"

namespace scenario {

namespace {

using story::Connection;
using story::kStation;
using story::Step;
using Text = Connection::Text;

constexpr char kAsksForMac[] = "ZIRN_ASKS_FOR_HIS_MAC";  // also where nothing shows what it was about to ask
constexpr std::string_view kUsesTool = "DO_PMC_INIT";
constexpr std::string_view kFail = "FAIL";
constexpr std::uint64_t kUsualMac = 0x02000000172a;  // that the bench's board has
constexpr std::uint64_t kAdded = 2;                  // what the unit is told more
constexpr Nanoseconds kVainTime = 3 * kSecond;       // that `in vain` takes
constexpr std::uint64_t kMostRepetitions = 20;       // of a datagram

// The board's, of the one that the unit was told; nothing for what is no address, and for the usual one.
std::optional<std::string> board_mac_in(const std::string& told) {
  std::uint64_t mac = 0;
  std::istringstream bytes(told);
  int count = 0;
  for (std::string byte; std::getline(bytes, byte, ':'); ++count) {
    if (byte.size() != 2 || byte.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) return {};
    mac = mac << 8 | std::strtoul(byte.c_str(), nullptr, 16);
  }
  if (count != 6 || mac == kUsualMac + kAdded) return {};
  std::string board;
  for (int shift = 40; shift >= 0; shift -= 8) board += static_cast<char>((mac - kAdded) >> shift & 0xffU);
  return frames::hexadecimal(board, ":");
}

bool is_another_begun(const Connection& held, Nanoseconds from, const story::Reading& reading) {
  return std::any_of(reading.connections.begin(), reading.connections.end(), [&](const Connection& other) {
    return &other != &held && other.client == held.client && other.from > from && held.ended &&
           other.from < *held.ended;
  });
}

// Whether more is said on it than one question and its answer, or another one is begun meanwhile, or the unit never
// closes it.
bool is_held(const Connection& one, Nanoseconds answered, const story::Reading& reading) {
  return one.texts.size() > 2 || one.ended_by == kStation || is_another_begun(one, answered, reading);
}

// The port opens with the first verdict: what was asked before was asked in vain, and again.
bool is_asked_twice(const Connection& one, const story::Reading& reading) {
  return one.opened &&
         std::any_of(reading.verdicts.begin(), reading.verdicts.end(), [&one](const auto& verdict) {
           return verdict.at > one.from && verdict.at < *one.opened;
         });
}

Nanoseconds last_asked(const Connection& one, const story::Reading& reading) {
  return is_asked_twice(one, reading) ? *one.opened : one.from;
}

void write_in_vain(const Connection& one, const std::string& question, Writing* writing) {
  writing->script.acts(one.from, one.from + kVainTime, writing->of_unit(one.client, "unit asks TEXT in vain"),
                       {question}, one.frames);
}

void write_answered(const Connection& one, const Text& question, const Text& reply, Writing* writing) {
  Script& script = writing->script;
  const bool holds = is_held(one, reply.at, writing->reading);
  script.acts(last_asked(one, writing->reading), reply.at,
              writing->of_unit(one.client, holds ? "unit asks TEXT expects REPLY and holds on"
                                                 : "unit asks TEXT expects REPLY"),
              {question.said.text, reply.said.text}, one.frames);
  const Text* asked = nullptr;
  for (const Text& text : one.texts) {
    if (text.at <= reply.at) continue;
    if (text.is_from_client) {
      if (asked != nullptr)
        script.cannot_say(asked->at, "a question without an answer of its own", asked->frames);
      asked = &text;
    } else if (asked != nullptr) {
      script.acts(asked->at, text.at, writing->of_unit(one.client, "unit asks on TEXT expects REPLY"),
                  {asked->said.text, text.said.text}, one.frames);
      asked = nullptr;
    } else {
      script.acts(text.at, text.at, writing->of_unit(one.client, "unit is told REPLY"), {text.said.text},
                  text.frames);
    }
  }
  if (holds && one.ended_by == one.client)
    script.acts(*one.ended, *one.ended, writing->of_unit(one.client, "unit hangs up"), {}, one.frames);
  const bool is_board_known =
      writing->has_cause("board.mac-default") || writing->has_cause("board.mac-empty");
  if (question.said.text.find(kAsksForMac) == std::string::npos || is_board_known) return;
  if (const auto mac = board_mac_in(reply.said.text)) script.sets("board has tempmac TEXT", {*mac});
}

// The tool hangs meanwhile, so that the unit is the faster one.
void write_left(const Connection& one, const std::string& question, const std::string& form,
                Writing* writing) {
  Script* const script = &writing->script;
  const Nanoseconds begin = last_asked(one, writing->reading);
  const bool uses_tool = question.compare(0, kUsesTool.size(), kUsesTool) == 0;
  const Nanoseconds end = one.ended.value_or(one.until);
  if (uses_tool) script->acts(begin - 1, begin - 1, "board tool hangs", {}, one.frames);
  script->acts(begin, end, form, {question}, one.frames);
  if (uses_tool) script->acts(end, end, "board tool goes on", {}, one.frames);
}

// The tool's status, before the first question that the unit was told it by, and where it changes.
void write_tool(Writing* writing) {
  Script& script = writing->script;
  std::optional<bool> failed;
  for (const Connection& one : writing->reading.connections) {
    for (std::size_t i = 1; i < one.texts.size(); ++i) {
      const Text &question = one.texts[i - 1], &reply = one.texts[i];
      const bool is_told = question.is_from_client && !reply.is_from_client;
      if (!is_told || question.said.text.find(kUsesTool) == std::string::npos) continue;
      const bool fails = reply.said.text == kFail;
      const std::string form = fails ? "board tool exits 0" : "board tool exits 1";
      const Nanoseconds before = (i == 1 ? last_asked(one, writing->reading) : question.at) - 1;
      if (!failed && fails) script.sets(form, {}, reply.frames);
      if (failed && *failed != fails) script.acts(before, before, form, {}, reply.frames);
      failed = fails;
    }
  }
}

void write_connection(const Connection& one, Writing* writing) {
  Script& script = writing->script;
  if (std::any_of(one.texts.begin(), one.texts.end(),
                  [](const Text& text) { return text.said.text.size() < text.said.size; }))
    return script.cannot_say(one.from, "a text that is too long or not whole", one.frames);
  const auto is_said_by = [](bool is_from_client) {
    return [is_from_client](const Text& text) { return text.is_from_client == is_from_client; };
  };
  const auto question = std::find_if(one.texts.begin(), one.texts.end(), is_said_by(true));
  const auto reply = std::find_if(question, one.texts.end(), is_said_by(false));
  const std::string asked = question == one.texts.end() ? kAsksForMac : question->said.text;
  const bool is_by_unit = one.ended_by == one.client;
  if (is_asked_twice(one, writing->reading)) write_in_vain(one, asked, writing);
  if (reply != one.texts.end()) {
    write_answered(one, *question, *reply, writing);
  } else if (one.state == Connection::State::kBrokenOff && is_by_unit) {
    write_left(one, asked, writing->of_unit(one.client, "unit asks TEXT and breaks off"), writing);
  } else if (one.resets > 0 && one.reset_by == one.client) {
    write_left(one, asked, writing->of_unit(one.client, "unit asks TEXT and leaves"), writing);
  } else {
    write_in_vain(one, asked, writing);
  }
  if (one.text_count > one.texts.size())
    script.cannot_say(one.from, "more is said on one connection", one.frames);
}

void write_datagram(const Step& datagram, std::uint16_t relay, Writing* writing) {
  const std::string& text = datagram.said.text;
  const bool is_text = can_be_written(text);
  std::string form = writing->of_unit(datagram.source, is_text ? "unit sends TEXT" : "unit sends bytes HEX");
  if (datagram.port != relay) form += " to port " + std::to_string(datagram.port);
  for (std::uint64_t i = 0; i < std::min(datagram.count, kMostRepetitions); ++i)
    writing->script.acts(datagram.from, datagram.until, form, {is_text ? text : frames::hexadecimal(text)},
                         datagram.frames);
  if (datagram.count > kMostRepetitions)
    writing->script.cannot_say(datagram.until, "the same, many times more", datagram.frames);
}

}  // namespace

void write_commands(Writing* writing) {
  const story::Reading& reading = writing->reading;
  write_tool(writing);
  for (const Connection& one : reading.connections) {
    if (one.client == kStation) continue;
    if (writing->has_unit(one.client) && one.server_port == reading.message_port)
      write_connection(one, writing);
    else
      writing->script.cannot_say(one.from, "another connection than the unit's for commands", one.frames);
  }
  for (const Step& step : reading.steps) {
    if (step.kind != Step::Kind::kDatagram) continue;
    const bool can_be_said = step.port != 0 && step.said.size == step.said.text.size();
    if (writing->has_unit(step.source) && step.target == kStation && can_be_said)
      write_datagram(step, kRelayPort, writing);
    else
      writing->script.cannot_say(
          step.from, "a datagram that is too long, or to port 0, or not the unit's to the station",
          step.frames);
  }
}

}  // namespace scenario
