#include "story/story.h"

#include <algorithm>
#include <variant>

#include "frames/tftp_message.h"

namespace story {

namespace {

using frames::Packet;

constexpr Nanoseconds kLatest = INT64_MAX / 2;  // so that lengths of time can be reckoned
constexpr Nanoseconds kFoldLines = 15000000000;
constexpr std::size_t kMaxNetworks = 64;
constexpr std::size_t kMaxGaps = 1000;

Nanoseconds in_bounds(Nanoseconds at) {
  return std::clamp<Nanoseconds>(at, 0, kLatest);
}

}  // namespace

Story::Story(const Given& given)
    : roles_(given, &book_),
      transfers_(&book_),
      connections_(&book_),
      datagrams_(&book_),
      decoder_([this](const Packet& packet) { take(packet); }) {}

// The time as it can be reckoned with, noted as told.
Nanoseconds Story::meet(Nanoseconds at) {
  at = in_bounds(at);
  Reading& reading = book_.reading;
  reading.first = has_begun_ ? std::min(reading.first, at) : at;
  has_begun_ = true;
  reading.last = std::max(reading.last, at);
  ++reading.revision;
  return at;
}

void Story::take(const record::Item& item) {
  const auto* const entry = std::get_if<record::Entry>(&item);
  if (entry != nullptr) {
    const std::optional<record::RunEntry> said = record::said_by(*entry);
    if (said) take(*said, entry->at, entry->number);
  } else if (const auto* const network = std::get_if<record::Interface>(&item)) {
    take(*network);
  } else if (const auto* const frame = std::get_if<record::Frame>(&item)) {
    take(*frame);
  } else if (const auto* const statistics = std::get_if<record::Statistics>(&item)) {
    take(*statistics);
  }
}

void Story::take(const record::Interface& network) {
  book_.add_unmarked(&book_.reading.networks, {network.name, network.filter, std::nullopt, std::nullopt},
                     kMaxNetworks);
  ++book_.reading.revision;
}

void Story::take(const Packet& told) {
  Packet packet = told;
  packet.at = meet(told.at);
  packet.until = meet(std::max(told.at, told.until));
  book_.reading.has_frames = true;
  frames::TftpMessage message;
  if (packet.protocol == Packet::Protocol::kUdp) {
    message = frames::tftp_message_in(packet.payload, packet.payload_size);
  }
  const bool is_cut = packet.payload.size() < packet.payload_size;
  if (is_cut && message.kind != frames::TftpMessage::Kind::kData) ++book_.reading.not_whole;
  roles_.learn(packet, message);
  const std::size_t source = roles_.sender_of(packet);
  const std::size_t target = roles_.receiver_of(packet);
  transfers_.pass_time(packet.at);
  switch (packet.protocol) {
    case Packet::Protocol::kTcp:
      connections_.take(packet, source, target);
      break;
    case Packet::Protocol::kPortUnreachable:
      if (!transfers_.take_closed_port(packet, source, target))
        datagrams_.take_closed_port(packet, source, target);
      break;
    case Packet::Protocol::kUdp:
      take_udp(packet, message, source, target);
      break;
  }
}

void Story::take_udp(const Packet& packet, const frames::TftpMessage& message, std::size_t source,
                     std::size_t target) {
  note_answer_to_boot_script(packet, message, source, target);
  if (source == kStation && roles_.is_boot_script(packet)) {
    datagrams_.take_boot_script(packet, source);
  } else if (!datagrams_.take_relayed(packet, source, target) &&
             !transfers_.take(packet, message, source, target)) {
    datagrams_.take_other(packet, source, target);
  }
}

void Story::note_answer_to_boot_script(const Packet& packet, const frames::TftpMessage& message,
                                       std::size_t source, std::size_t target) {
  std::optional<BootScript>& script = book_.reading.boot_script;
  if (!script || script->answered || target != kStation || !frames::is_request(message) ||
      packet.destination.port != book_.reading.tftp_port)
    return;
  script->answered = packet.at;
  script->answered_by = source;
}

void Story::take(const record::Statistics& statistics) {
  std::vector<Network>& networks = book_.reading.networks;
  if (statistics.interface >= networks.size()) return;
  const Nanoseconds at = meet(statistics.at);
  Network& network = networks[statistics.interface];
  const std::uint64_t before = network.dropped.value_or(0);
  if (statistics.received) network.received = statistics.received;
  if (!statistics.dropped) return;
  network.dropped = statistics.dropped;
  if (*statistics.dropped <= before) return;
  Step step = Book::step_at(Step::Kind::kDrops, at);
  step.source = kNone;
  step.thread = statistics.interface;
  step.count = *statistics.dropped - before;
  book_.add_step(step);
}

void Story::take(const record::RunEntry& entry, Nanoseconds at, std::uint64_t number) {
  const Numbers lines{number, number, 1};
  const auto* const line = std::get_if<record::Line>(&entry);
  if (line != nullptr && at == 0) {
    roles_.read_line(line->text);
    book_.add_unmarked(&book_.reading.untimed_lines, {line->text.substr(0, kMaxText), lines},
                       UntimedLine::kMost);
    ++book_.reading.revision;
    return;
  }
  const Moment moment{meet(at), lines};
  transfers_.pass_time(moment.at);
  std::visit([&](const auto& told) { tell(told, moment); }, entry);
}

Step Story::step_of(Step::Kind kind, const Moment& moment) const {
  Step step = Book::step_at(kind, moment.at);
  step.lines = moment.lines;
  return step;
}

void Story::tell(const record::RunBegins& run, const Moment& moment) {
  book_.reading.run = run;
  roles_.read_command(run.command);
  book_.add_step(step_of(Step::Kind::kRunBegins, moment));
}

void Story::tell(const record::Line& line, const Moment& moment) {
  roles_.read_line(line.text);
  const Said text = said(line.text, line.text.size());
  Step* const before = book_.step(line_step_);
  if (before != nullptr && before->said == text && moment.at - before->until <= kFoldLines) {
    before->until = std::max(before->until, moment.at);
    ++before->count;
    before->lines.add(moment.lines);
    book_.changed(before);
    return;
  }
  Step step = step_of(Step::Kind::kLine, moment);
  step.said = text;
  line_step_ = book_.add_step(step);
}

void Story::tell(const record::BoardCall& call, const Moment& moment) {
  Step step = step_of(Step::Kind::kBoardCall, moment);
  step.target = kBoard;
  step.status = call.status;
  step.said = said(call.command, call.command.size());
  book_.add_step(step);
}

void Story::tell(const record::Cut& cut, const Moment& moment) {
  Step step = step_of(Step::Kind::kCut, moment);
  step.source = kNone;
  step.until = in_bounds(moment.at + in_bounds(cut.lasts));
  book_.add_step(step);
}

void Story::tell(const record::StationEnds& end, const Moment& moment) {
  book_.reading.station_end = end;
  transfers_.station_ended();
  Step* const before = book_.step(end_step_);
  if (before != nullptr) {  // systemd told it without the status, which follows
    before->status = end.status;
    before->lines.add(moment.lines);
    book_.changed(before);
    return;
  }
  Step step = step_of(Step::Kind::kStationEnds, moment);
  step.status = end.status;
  end_step_ = book_.add_step(step);
}

void Story::tell(const record::RunEnds& end, const Moment& moment) {
  book_.reading.run_end = end;
  book_.add_step(step_of(Step::Kind::kRunEnds, moment));
}

void Story::tell(const record::Gap& gap, const Moment& moment) {
  book_.add_unmarked(&book_.reading.gaps, {moment.at, gap.text.substr(0, kMaxText), moment.lines}, kMaxGaps);
}

void Story::tell(const record::Timeout& timeout, const Moment& moment) {
  book_.reading.timeout = {in_bounds(timeout.after)};
  book_.add_step(step_of(Step::Kind::kTimeout, moment));
}

void Story::pass_time(Nanoseconds now) {
  transfers_.pass_time(in_bounds(now));
}

void Story::finish(bool is_cut_short) {
  decoder_.finish();
  Reading& reading = book_.reading;
  transfers_.finish(reading.last);
  reading.has_ended = true;
  reading.is_cut_short = is_cut_short;
  ++reading.revision;
}

}  // namespace story
