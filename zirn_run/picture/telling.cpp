#include "picture/telling.h"

#include <algorithm>

#include "frames/tftp_message.h"
#include "frames/words.h"
#include "picture/words.h"

namespace picture {

namespace {

using frames::counted;
using frames::printable;
using story::Connection;
using story::Reading;
using story::Transfer;

constexpr std::uint64_t kMaxBlocksOfAnArrow = 3;
constexpr std::size_t kMaxPlaces = 5;
constexpr std::size_t kMaxSilences = 3;
constexpr Nanoseconds kLongSilence = 2000000000;
constexpr char kPmcTest[] = "/mnt/ramdisk/t1-e1 ";

std::string options_in_words(const Transfer::Options& options) {
  std::string text;
  for (const auto& [name, value] : options) add_words(&text, printable(name) + " " + printable(value));
  return text;
}

std::string file_of(const Transfer& transfer) {
  if (!transfer.name.empty()) return printable(transfer.name);
  return transfer.kind == Transfer::Kind::kMidway ? "a transfer" : "(no name)";
}

// Blocks and ACKs of which one thing is true, as "2 blocks and 1 ACK lost".
std::string pair_in_words(std::uint64_t blocks, std::uint64_t acks, const std::string& what) {
  std::string words;
  if (blocks > 0) words = counted(blocks, "block");
  if (acks > 0) words += (words.empty() ? "" : " and ") + counted(acks, "ACK");
  return words.empty() ? "" : words + " " + what;
}

std::string time_and_speed(const Transfer& transfer) {
  const Nanoseconds time = transfer.data_until - transfer.data_from;
  std::string text = seconds(time, 3) + " s";
  const double per_second =
      static_cast<double>(transfer.bytes) / std::max(static_cast<double>(time) / 1e9, 1e-9);
  if (time <= 0 || per_second < 1) return text;
  return text + ", " + size_in_words(per_second) + "/s";
}

std::string damage_in_words(const Transfer& transfer) {
  const story::Flow& data = transfer.data;
  const story::Flow& acks = transfer.acks;
  std::string text = pair_in_words(data.lost, acks.lost, "lost");
  add_words(&text, pair_in_words(data.duplicated, acks.duplicated, "duplicated"));
  add_words(&text, pair_in_words(data.swapped, acks.swapped, "swapped with the next one"));
  add_words(&text, pair_in_words(data.again, acks.again, "sent again"));
  if (transfer.inferred_lost > 0) {
    add_words(&text, "at least " + std::to_string(transfer.inferred_lost) + " lost (inferred)");
  }
  if (transfer.blocks_missing > 0)
    add_words(&text, counted(transfer.blocks_missing, "block") + " missing in the record");
  return text;
}

// "lost at 1.420 s, 6.415 s (2)"; nothing for so many that only a drawing shows them.
std::string places_in_words(const Transfer& transfer, story::Mark::Times story::Mark::*times,
                            const std::string& what, Nanoseconds start) {
  std::string text;
  std::size_t places = 0;
  std::uint32_t before = 0;
  for (const story::Mark& mark : transfer.marks) {
    const std::uint32_t here = (mark.*times).count - before;
    before = (mark.*times).count;
    if (here == 0 || ++places > kMaxPlaces) continue;
    add_words(&text, seconds((mark.*times).last - start, 3) + " s" +
                         (here > 1 ? " (" + std::to_string(here) + ")" : ""));
  }
  return places == 0 || places > kMaxPlaces ? "" : what + " at " + text;
}

// The block at which it was then. Of many datagrams, only some are marked.
std::string block_at(const Transfer& transfer, Nanoseconds at) {
  std::uint64_t blocks = 0;
  for (const story::Mark& mark : transfer.marks) {
    if (mark.at <= at) blocks = mark.blocks;
  }
  const bool is_exact = transfer.data.sent + transfer.acks.sent < Transfer::kMaxMarks;
  return (is_exact ? "block " : "about block ") + std::to_string(blocks);
}

// "silent until the unit spoke again: for 5.0 s from 1.420 s (block 3)"
std::string silences_in_words(const Reading& reading, const Transfer& transfer, std::size_t speaker) {
  std::string text;
  std::size_t places = 0;
  for (const story::Silence& silence : transfer.silences) {
    const Nanoseconds time = silence.until - silence.from;
    if (silence.ended_by != speaker || time < kLongSilence || ++places > kMaxSilences) continue;
    add_words(&text, (text.empty() ? "for " : "") + seconds(time, 1) + " s from " +
                         seconds(silence.from - reading.first, 3) + " s (" +
                         block_at(transfer, silence.from) + ")");
  }
  if (places > kMaxSilences) add_words(&text, "and " + counted(places - kMaxSilences, "other time"));
  return text.empty() ? "" : "silent until " + name_of(reading, speaker) + " spoke again: " + text;
}

std::string text_in_words(const Connection::Text& text) {
  return quoted(text.said) + (text.count > 1 ? " " + std::to_string(text.count) + " times" : "");
}

std::string datagram_in_words(const story::Step& step) {
  if (step.thread != kNone) return "datagram " + quoted(step.said);
  return "datagram to port " + std::to_string(step.port) + ", " + counted(step.said.size, "byte");
}

std::string drops_in_words(const Reading& reading, const story::Step& step) {
  const bool is_known = step.thread < reading.networks.size() && !reading.networks[step.thread].name.empty();
  return counted(step.count, "frame") + " missing: the kernel dropped them, " +
         (is_known ? printable(reading.networks[step.thread].name) : "of one network");
}

std::string station_end_in_words(const Reading& reading, const story::Step& step) {
  record::StationEnds end{step.status, 0};
  if (reading.station_end && reading.station_end->status == step.status) end = *reading.station_end;
  return "ends: " + story::in_words(end);
}

std::string blocks_in_words(const Reading& reading, const Transfer& transfer) {
  return few_blocks_in_words(transfer).value_or(in_short(reading, transfer));
}

bool is_small(const Transfer& transfer) {
  return transfer.blocks > 0 && transfer.blocks <= kMaxBlocksOfAnArrow && transfer.blocks_missing == 0 &&
         transfer.data.again + transfer.acks.again + transfer.data.lost + transfer.acks.lost == 0;
}

}  // namespace

std::string quoted(const story::Said& said) {
  const bool is_whole = said.text.size() >= std::min<std::uint64_t>(said.size, story::kMaxText);
  return frames::quoted(said.text) + (is_whole ? "" : frames::kCut + (" of " + counted(said.size, "byte")));
}

std::string name_of(const Reading& reading, std::size_t party) {
  if (party == kNone) return "somebody";
  const story::Party& one = reading.parties[party];
  switch (one.role) {
    case story::Role::kStation:
      return "the station";
    case story::Role::kBoard:
      return "the board";
    case story::Role::kEveryone:
      return "everyone";
    case story::Role::kPptServer:
      return "the PPT server";
    case story::Role::kUnit:
    case story::Role::kOther:
      break;
  }
  const auto units = std::count_if(reading.parties.begin(), reading.parties.end(),
                                   [](const story::Party& any) { return any.role == story::Role::kUnit; });
  if (one.role == story::Role::kUnit && units == 1) return "the unit";
  return one.addresses.empty() ? "somebody" : frames::dotted(one.addresses.front());
}

std::string step_in_words(const Reading& reading, const story::Step& step) {
  using Kind = story::Step::Kind;
  const bool is_of_thread = is_of_transfer(step.kind) || is_of_connection(step.kind);
  if (is_of_thread && step.thread == kNone) return "further datagrams";  // the story had no room for it
  const std::string port = "port " + std::to_string(step.port);
  switch (step.kind) {
    case Kind::kRunBegins:
      return "a run begins";
    case Kind::kTimeout:
      return "longer than " + seconds(reading.timeout->after, 1) + " s: the station is asked to end";
    case Kind::kStationEnds:
      return station_end_in_words(reading, step);
    case Kind::kRunEnds:
      return "end of the run";
    case Kind::kLine:
      return printable(step.said.text);
    case Kind::kBoardCall:
      return board_call_in_words(step);
    case Kind::kCut:
      return "cable pulled, " + seconds(step.until - step.from, 1) + " s";
    case Kind::kDrops:
      return drops_in_words(reading, step);
    case Kind::kBootScript:
      return "boot script";
    case Kind::kRequest:
      return request_in_words(reading.transfers[step.thread]);
    case Kind::kOack:
      return oack_in_words(reading.transfers[step.thread]);
    case Kind::kBlocks:
      return blocks_in_words(reading, reading.transfers[step.thread]);
    case Kind::kError:
      return error_in_words(reading.transfers[step.thread]);
    case Kind::kOtherTftp:
      return "no TFTP answer";
    case Kind::kCutTftp:
      return "frame cut by the capture";
    case Kind::kClosedPort:
      return port + " is closed" + (is_harmless(reading, step) ? " (harmless)" : "");
    case Kind::kOtherClosedPort:
      return port + " is closed";
    case Kind::kConnect:
      return "connects to " + port;
    case Kind::kRefused:
      return "refuses the connection";
    case Kind::kSays:
      return quoted(step.said);
    case Kind::kCloses:
      return "closes the connection";
    case Kind::kBreaksOff:
      return "breaks the connection off";
    case Kind::kResets:
      return "RST after the end";
    case Kind::kDatagram:
      return datagram_in_words(step);
    case Kind::kRelayed:
      return "relays " + quoted(step.said);
  }
  return "";
}

bool is_harmless(const Reading& reading, const story::Step& closed_port) {
  const Transfer& transfer = reading.transfers[closed_port.thread];
  const bool is_verdict =
      transfer.verdict != kNone && closed_port.source == story::kStation && transfer.answered;
  return is_verdict || transfer.end == Transfer::End::kFinished || transfer.second_answer_of != kNone;
}

std::string request_in_words(const Transfer& transfer) {
  std::string text;
  switch (transfer.kind) {
    case Transfer::Kind::kRead:
      text = "read " + file_of(transfer);
      break;
    case Transfer::Kind::kWrite:
      text = "write " + file_of(transfer);
      break;
    case Transfer::Kind::kOther:
      return "no TFTP request";
    case Transfer::Kind::kCut:
      return "frame cut by the capture";
    case Transfer::Kind::kMidway:
      return "a transfer that began before the record";
  }
  if (!transfer.mode.empty() && transfer.mode != "octet")
    add_words(&text, "mode " + printable(transfer.mode));
  add_words(&text, options_in_words(transfer.asked));
  return text;
}

// Its ACK has the number 0, and is one more than those of the blocks.
std::string oack_in_words(const Transfer& transfer) {
  std::string text = "OACK " + options_in_words(transfer.acknowledged);
  const bool is_acknowledged = transfer.acks.sent - transfer.acks.again > transfer.acknowledged_blocks;
  if (is_acknowledged && transfer.kind == Transfer::Kind::kRead) add_words(&text, "ACK 0");
  return text;
}

std::string error_in_words(const Transfer& transfer) {
  const std::string text = transfer.error.text.empty() ? "no text" : quoted(transfer.error);
  return "ERROR " + std::to_string(transfer.error_code) + ", " + text;
}

std::optional<std::string> few_blocks_in_words(const Transfer& transfer) {
  if (transfer.blocks == 0 && transfer.kind != Transfer::Kind::kMidway)
    return "ACK " + std::to_string(transfer.acknowledged_blocks);
  if (!is_small(transfer)) return std::nullopt;
  std::string text = transfer.blocks == 1 ? "DATA 1" : "DATA 1 to " + std::to_string(transfer.blocks);
  add_words(&text, counted(transfer.bytes, "byte"));
  if (transfer.acknowledged_blocks > 0)
    add_words(&text, "ACK " + std::to_string(transfer.acknowledged_blocks));
  return text;
}

std::vector<std::string> facts_of(const Reading& reading, const Transfer& transfer) {
  const std::string size = transfer.block_size > 0 ? " of " + counted(transfer.block_size, "byte") : "";
  std::vector<std::string> facts = {
      counted(transfer.bytes, "byte") + ", " + counted(transfer.blocks, "block") + size,
      time_and_speed(transfer)};
  std::string places = places_in_words(transfer, &story::Mark::lost, "lost", reading.first);
  add_words(&places, places_in_words(transfer, &story::Mark::duplicated, "duplicated", reading.first));
  add_words(&places, places_in_words(transfer, &story::Mark::swapped, "swapped", reading.first));
  add_words(&places, places_in_words(transfer, &story::Mark::again, "again", reading.first));
  for (const std::string& more :
       {damage_in_words(transfer), places, silences_in_words(reading, transfer, transfer.server),
        silences_in_words(reading, transfer, transfer.client), end_in_words(reading, transfer)}) {
    if (!more.empty()) facts.push_back(more);
  }
  if (transfer.second_answer_of != kNone) facts.emplace_back("second answer to the same request");
  return facts;
}

std::string in_short(const Reading& reading, const Transfer& transfer) {
  std::string text = request_in_words(transfer);
  if (transfer.blocks > 0 && transfer.bytes > 0) {
    text = file_of(transfer) + ", " + size_in_words(static_cast<double>(transfer.bytes)) + " in " +
           seconds(transfer.data_until - transfer.data_from, 3) + " s";
  } else if (transfer.blocks > 0) {
    add_words(&text, "answered");
  }
  const std::uint64_t lost = transfer.data.lost + transfer.acks.lost;
  const std::uint64_t again = transfer.data.again + transfer.acks.again;
  const std::uint64_t duplicated = transfer.data.duplicated + transfer.acks.duplicated;
  const std::uint64_t swapped = transfer.data.swapped + transfer.acks.swapped;
  if (lost > 0) add_words(&text, std::to_string(lost) + " lost");
  if (duplicated > 0) add_words(&text, std::to_string(duplicated) + " duplicated");
  if (swapped > 0) add_words(&text, std::to_string(swapped) + " swapped");
  if (again > 0) add_words(&text, std::to_string(again) + " sent again");
  if (transfer.end == Transfer::End::kError) add_words(&text, error_in_words(transfer));
  add_words(&text, end_in_words(reading, transfer));
  return text;
}

std::string end_in_words(const Reading& reading, const Transfer& transfer) {
  // Nobody goes on with these.
  if (transfer.second_answer_of != kNone || transfer.kind == Transfer::Kind::kOther) return "";
  const std::string who = name_of(reading, transfer.ended_by);
  std::string text;
  switch (transfer.end) {
    case Transfer::End::kFinished:
      text = transfer.is_end_inferred ? "finished (inferred)" : "";
      break;
    case Transfer::End::kError:
      text = transfer.blocks > 0 ? "not finished: " + who + " sent an ERROR" : "";
      break;
    case Transfer::End::kUnanswered:
      text = "not answered";
      break;
    case Transfer::End::kAbandoned:
      text = "not finished: " + who + " was silent";
      break;
    case Transfer::End::kStationEnds:
      text = "not finished: the station ended";
      break;
    case Transfer::End::kOpen:
    case Transfer::End::kUnknown:
      text = reading.is_cut_short || !reading.has_ended ? "" : "its end is not in the record";
      break;
  }
  if (transfer.is_answered_late) add_words(&text, "answered too late");
  return text;
}

std::string opening_in_words(const Connection& connection, bool has_answers) {
  std::string text = connection.is_midway
                         ? "a connection that began before the record (who opened it is inferred)"
                         : "connects to port " + std::to_string(connection.server_port);
  if (connection.state == Connection::State::kRefused) add_words(&text, "refused");
  if (connection.state == Connection::State::kConnecting) add_words(&text, "not answered");
  if (connection.opened) add_words(&text, "accepted");
  for (const Connection::Text& one : connection.texts) {
    if (!one.is_from_client && !has_answers) continue;
    add_words(&text, (one.is_from_client ? "" : "is told ") + text_in_words(one));
  }
  const std::uint64_t more = connection.text_count - connection.texts.size();
  if (more > 0) add_words(&text, counted(more, "further text"));
  return text;
}

std::string answers_in_words(const Connection& connection) {
  std::string text;
  for (const Connection::Text& one : connection.texts) {
    if (!one.is_from_client) add_words(&text, text_in_words(one));
  }
  return text;
}

bool is_one_exchange(const Connection& connection) {
  const auto& texts = connection.texts;
  return texts.size() == connection.text_count && !texts.empty() && !texts.back().is_from_client &&
         std::is_sorted(texts.begin(), texts.end(), [](const auto& one, const auto& other) {
           return one.is_from_client && !other.is_from_client;
         });
}

std::string closing_in_words(const Reading& reading, const Connection& connection, bool by_both) {
  std::string text;
  const bool was_asked = std::any_of(connection.texts.begin(), connection.texts.end(),
                                     [](const Connection::Text& one) { return one.is_from_client; });
  if (was_asked && connection.bytes_from_server == 0) text = "no answer";
  const std::size_t other = connection.ended_by == connection.client ? connection.server : connection.client;
  if (connection.state == Connection::State::kClosed) {
    add_words(&text, "closed by " + name_of(reading, connection.ended_by));
    if (by_both) add_words(&text, "then by " + name_of(reading, other));
  } else if (connection.state == Connection::State::kBrokenOff) {
    add_words(&text, "broken off by " + name_of(reading, connection.ended_by));
  }
  if (connection.resets > 0) {
    add_words(&text, (connection.resets > 1 ? std::to_string(connection.resets) + " RSTs" : "RST") +
                         " after that, by " + name_of(reading, connection.reset_by));
  }
  if (connection.lost > 0) add_words(&text, counted(connection.lost, "segment") + " lost");
  if (connection.again > 0 && connection.attempts <= 1)
    add_words(&text, std::to_string(connection.again) + " sent again");
  return text;
}

// Of the T1/E1 tool only status 0 is bad news for the unit.
std::string board_call_in_words(const story::Step& step) {
  std::string text = printable(step.said.text);
  if (!step.status) return text;
  add_words(&text, "status " + std::to_string(*step.status));
  if (step.said.text.rfind(kPmcTest, 0) == 0) text += *step.status == 0 ? ", so FAIL" : ", not 0, so READY";
  return text;
}

}  // namespace picture
