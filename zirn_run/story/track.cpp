#include "story/track.h"

#include <algorithm>
#include <string>
#include <utility>

namespace story {

namespace {

using frames::Packet;
using frames::TftpMessage;
using End = Transfer::End;

constexpr Nanoseconds kSecond = 1000000000;
constexpr Nanoseconds kPause = 50000000;           // what is repeated sooner is no answer to silence
constexpr Nanoseconds kStationWaits = 4500000000;  // for the answer to a query, at least

Transfer::Options clipped(const Transfer::Options& options) {
  Transfer::Options result;
  for (const auto& [name, value] : options)
    result.emplace_back(name.substr(0, kMaxText), value.substr(0, kMaxText));
  return result;
}

std::int16_t ahead_of(std::uint16_t number, std::uint16_t last) {
  return static_cast<std::int16_t>(static_cast<std::uint16_t>(number - last));
}

}  // namespace

std::size_t number_of(const Transfer::Options& options, const char* name) {
  TftpMessage message;
  message.options = options;
  return frames::option_number(message, name);
}

void Track::request(const Packet& packet, std::size_t source, std::size_t target) {
  Transfer& transfer = mine();
  if (++transfer.requests > 1) {
    const Nanoseconds patience = packet.at - last_at_;
    if (transfer.requests == 2 || patience < transfer.request_patience) transfer.request_patience = patience;
  }
  note_repetition(packet, {}, true);
  note(packet);
  if (packet.fate.lost && !packet.fate.nobody_took_it)
    add_loss({Loss::What::kRequest, 0, 1, packet.at, false});
  tell(Step::Kind::kRequest, &request_step_, packet, source, target);
}

void Track::take(const Packet& packet, const TftpMessage& message, bool is_from_client) {
  Transfer& transfer = mine();
  const std::size_t source = is_from_client ? transfer.client : transfer.server;
  const std::size_t target = is_from_client ? transfer.server : transfer.client;
  if (!is_from_client && !transfer.answered) answer_ = message.kind;
  if (!is_from_client) take_first_answer(packet);
  add_silence(packet, source);
  judge_silence(packet, source);
  client_went_on_ |= is_from_client;
  note_repetition(packet, message, is_from_client);
  switch (message.kind) {
    case Kind::kData:
    case Kind::kAck:
      take_block_or_ack(packet, message, is_from_client);
      break;
    case Kind::kOack:
      if (!is_from_client) take_oack(message);
      tell(Step::Kind::kOack, &oack_step_, packet, source, target);
      break;
    case Kind::kError:
      tell(Step::Kind::kError, &error_step_, packet, source, target);
      take_error(packet, message, source);
      break;
    case Kind::kCut:
      has_cut_ = true;
      tell(Step::Kind::kCutTftp, &cut_steps_[is_from_client], packet, source, target);
      break;
    default:
      tell(Step::Kind::kOtherTftp, &other_step_, packet, source, target);
  }
  if (packet.fate.lost && !packet.fate.nobody_took_it) note_loss(packet, message, is_from_client);
  note(packet);
}

void Track::note_loss(const Packet& packet, const TftpMessage& message, bool is_from_client) {
  const Transfer& transfer = mine();
  const bool is_first_block = message.kind == Kind::kData && transfer.blocks <= 1;
  if (!is_from_client && message.kind == answer_ && (is_first_block || message.kind != Kind::kData)) {
    add_loss({Loss::What::kAnswer, 0, 1, packet.at, false});
  } else if (message.kind == Kind::kData && has_block_) {
    const std::uint64_t last = transfer.blocks + transfer.blocks_missing;
    const std::uint64_t back = static_cast<std::uint16_t>(last_block_ - message.number);
    add_loss({Loss::What::kBlock, last - std::min(back, last), 1, packet.at, false});
  } else if (message.kind == Kind::kAck) {
    const std::uint64_t last = transfer.acknowledged_blocks;
    const std::uint64_t back = static_cast<std::uint16_t>(last_ack_ - message.number);
    add_loss({Loss::What::kAck, last - std::min(back, last), 1, packet.at, false});
  }
}

void Track::add_loss(Loss loss) {
  Transfer& transfer = mine();
  const auto same = std::find_if(transfer.losses.begin(), transfer.losses.end(), [&loss](const Loss& one) {
    return one.what == loss.what && one.number == loss.number;
  });
  if (loss.times == 0) return;
  if (same != transfer.losses.end()) {
    same->times += loss.times;
    same->at = loss.at;
  } else if (transfer.losses.size() < Transfer::kMaxLosses) {
    transfer.losses.push_back(loss);
  } else {
    transfer.losses_left_out += loss.times;
  }
}

// One of the last one that was inferred.
void Track::take_loss_back() {
  std::vector<Loss>& losses = mine().losses;
  if (!losses.empty() && losses.back().is_inferred && --losses.back().times == 0) losses.pop_back();
}

// Who speaks again was not gone. The station says by its ACK that it waits for no answer any more.
void Track::judge_silence(const Packet& packet, std::size_t source) {
  const Transfer& transfer = mine();
  const bool is_ended_by_silence = transfer.end == End::kAbandoned || transfer.end == End::kUnanswered ||
                                   transfer.end == End::kStationEnds;
  if (is_ended_by_silence && source == transfer.ended_by && !client_gave_up_) end(End::kOpen, kNone);
  if (source == kStation && transfer.client == kStation && !transfer.answered &&
      packet.at - transfer.from >= kStationWaits) {
    client_gave_up_ = true;
    end(End::kUnanswered, transfer.server);
  }
}

void Track::note(const Packet& packet) {
  Transfer& transfer = mine();
  transfer.until = std::max(transfer.until, packet.until);
  transfer.frames.add(packet.frames);
  last_at_ = std::max(last_at_, packet.at);
  last_frames_ = packet.frames;
  book_->changed(&transfer);
}

// Also where an ACK or a request is repeated without anything in between.
void Track::note_repetition(const Packet& packet, const TftpMessage& message, bool is_from_client) {
  Transfer& transfer = mine();
  const bool repeats = last_frames_.count > 0 && message.kind == last_kind_ && message.kind != Kind::kCut &&
                       message.number == last_number_ && is_from_client == last_from_client_;
  if (!repeats) {
    transfer.sent_in_vain = transfer.sent_in_vain_lost = 0;
    in_vain_since_ = packet.at;
  }
  // An ACK that arrives is followed by the next block, at once.
  const bool is_block_again = has_block_ && message.kind == Kind::kData && message.number == last_block_ &&
                              last_kind_ == Kind::kAck && last_number_ == last_block_;
  const bool is_ack_again = repeats && message.kind == Kind::kAck;
  const bool is_part = (is_ack_again || is_block_again) && goes_its_way(message, is_from_client);
  if (is_part && !last_lost_ && packet.at - last_at_ >= kPause) ++acks_in_vain_;
  ++transfer.sent_in_vain;
  transfer.sent_in_vain_lost += packet.fate.lost ? 1 : 0;
  last_kind_ = message.kind;
  last_number_ = message.number;
  last_from_client_ = is_from_client;
  last_lost_ = packet.fate.lost;
}

void Track::tell(Step::Kind kind, std::size_t* step, const Packet& packet, std::size_t source,
                 std::size_t target) {
  if (*step == kNone) {
    *step = book_->add_step(kind, packet, source, target, place_);
  } else {
    book_->fold(*step, packet);
  }
}

void Track::take_first_answer(const Packet& packet) {
  Transfer& transfer = mine();
  if (transfer.answered) return;
  transfer.answered = packet.at;
  transfer.server_port = packet.source.port;
  transfer.is_answered_late = client_gave_up_;
}

// DATA from the one side, ACKs from the other.
bool Track::goes_its_way(const TftpMessage& message, bool is_from_client) const {
  const bool server_sends = transfer().kind != Transfer::Kind::kWrite;
  return (message.kind == Kind::kData) == (is_from_client != server_sends);
}

void Track::take_block_or_ack(const Packet& packet, const TftpMessage& message, bool is_from_client) {
  Transfer& transfer = mine();
  const bool server_sends = transfer.kind != Transfer::Kind::kWrite;
  const std::size_t sender = server_sends ? transfer.server : transfer.client;
  const std::size_t receiver = server_sends ? transfer.client : transfer.server;
  if (!goes_its_way(message, is_from_client)) {
    tell(Step::Kind::kOtherTftp, &other_step_, packet, is_from_client ? transfer.client : transfer.server,
         is_from_client ? transfer.server : transfer.client);
    return;
  }
  tell(Step::Kind::kBlocks, &blocks_step_, packet, sender, receiver);
  if (transfer.data.sent + transfer.acks.sent == 0) transfer.data_from = packet.at;
  transfer.data_until = std::max(transfer.data_until, packet.until);
  if (message.kind == Kind::kData) {
    take_data(packet, message);
  } else {
    take_ack(packet, message);
  }
  mark(packet.at);
}

void Track::count(const Packet& packet, Flow* flow) {
  ++flow->sent;
  flow->lost += packet.fate.lost ? 1 : 0;
  flow->duplicated += packet.fate.duplicated ? 1 : 0;
  flow->swapped += packet.fate.swapped ? 1 : 0;
}

void Track::take_data(const Packet& packet, const TftpMessage& message) {
  Transfer& transfer = mine();
  count(packet, &transfer.data);
  if (!has_block_ && transfer.kind == Transfer::Kind::kMidway) {
    last_block_ = static_cast<std::uint16_t>(message.number - 1);
  }
  const std::int16_t ahead = ahead_of(message.number, last_block_);
  if (ahead > 0) {
    take_new_block(message, static_cast<std::uint16_t>(ahead), packet.fate.lost);
  } else {
    ++transfer.data.again;
    if (ahead < 0) return;
    if (acknowledged_ == 0 && !sent_lost_ && packet.at - sent_at_ >= kPause) ++pauses_;
    if (!packet.fate.lost) ++arrived_;
  }
  sent_at_ = packet.at;
  sent_lost_ = packet.fate.lost;
}

void Track::take_new_block(const TftpMessage& message, std::uint16_t ahead, bool is_lost) {
  Transfer& transfer = mine();
  const bool is_judged = ahead == 1 && acknowledged_ > 0 && arrived_ > acknowledged_;
  owed_before_ = is_judged ? std::min(pauses_, arrived_ - acknowledged_) : 0;
  transfer.inferred_lost += owed_before_ + acks_in_vain_;
  const std::uint64_t last = transfer.blocks + transfer.blocks_missing;
  add_loss({Loss::What::kAck, last, acks_in_vain_, sent_at_, true});
  add_loss({Loss::What::kBlock, last, owed_before_, sent_at_, true});
  acks_in_vain_ = 0;
  arrived_ = is_lost ? 0 : 1;
  pauses_ = 0;
  acknowledged_ = 0;
  has_block_ = true;
  last_block_ = message.number;
  transfer.blocks_missing += ahead - 1U;
  transfer.blocks += 1;
  transfer.bytes += message.data_size;
  if (transfer.block_size == 0 && transfer.kind != Transfer::Kind::kMidway)
    transfer.block_size = frames::kDefaultBlockBytes;
  transfer.is_last_sent = message.data_size < transfer.block_size;
  transfer.block_size = std::max(transfer.block_size, message.data_size);
  if (transfer.end == End::kFinished) end(End::kOpen, kNone);
}

void Track::take_ack(const Packet& packet, const TftpMessage& message) {
  Transfer& transfer = mine();
  count(packet, &transfer.acks);
  if (!has_ack_ && transfer.kind == Transfer::Kind::kMidway) {
    last_ack_ = static_cast<std::uint16_t>(message.number - 1);
  }
  const std::int16_t ahead = ahead_of(message.number, last_ack_);
  if (ahead > 0) {
    transfer.acknowledged_blocks += static_cast<std::uint64_t>(ahead);
    last_ack_ = message.number;
    if (!has_block_) {
      transfer.inferred_lost += acks_in_vain_;
      add_loss({Loss::What::kAck, 0, std::exchange(acks_in_vain_, 0), packet.at, true});
    }
  } else if (ahead < 0 || has_ack_) {
    ++transfer.acks.again;
  }
  has_ack_ = true;
  if (!has_block_) return;
  if (message.number == last_block_) {
    ++acknowledged_;
    if (transfer.is_last_sent && !packet.fate.lost && transfer.end != End::kError) end(End::kFinished, kNone);
  } else if (ahead_of(last_block_, message.number) == 1 && owed_before_ > 0) {
    // It was not lost, but late.
    --owed_before_;
    --transfer.inferred_lost;
    take_loss_back();
  }
}

void Track::take_oack(const TftpMessage& message) {
  Transfer& transfer = mine();
  transfer.acknowledged = clipped(message.options);
  const std::size_t size = number_of(transfer.acknowledged, "blksize");
  if (size > 0) transfer.block_size = size;
}

void Track::take_error(const Packet& packet, const TftpMessage& message, std::size_t source) {
  Transfer& transfer = mine();
  const Said text = said(message.error_text, message.error_text.size());
  if (Step* step = book_->step(error_step_)) {
    step->status = message.number;
    step->said = text;
  }
  if (transfer.end == End::kFinished || transfer.end == End::kError) return;
  transfer.error_code = message.number;
  transfer.error = text;
  end(End::kError, source);
  transfer.until = std::max(transfer.until, packet.until);
}

void Track::closed_port(const Packet& packet, std::size_t source, std::size_t target) {
  Transfer& transfer = mine();
  ++transfer.closed_ports;
  transfer.frames.add(packet.frames);
  std::size_t& closed_step = closed_steps_[source == transfer.client];
  tell(Step::Kind::kClosedPort, &closed_step, packet, source, target);
  if (Step* step = book_->step(closed_step)) step->port = packet.quoted_destination.port;
  if (transfer.end == End::kOpen) end(transfer.answered ? End::kAbandoned : End::kUnanswered, source);
  book_->changed(&transfer);
}

void Track::add_silence(const Packet& packet, std::size_t ended_by) {
  if (last_frames_.count == 0 || packet.at - last_at_ < Transfer::kShortestSilence) return;
  std::vector<Silence>& silences = mine().silences;
  Silence silence{last_at_, packet.at, ended_by, last_frames_};
  silence.frames.add(packet.frames);
  silences.push_back(silence);
  if (silences.size() <= Transfer::kMaxSilences) return;
  silences.erase(
      std::min_element(silences.begin(), silences.end(), [](const Silence& one, const Silence& other) {
        return one.until - one.from < other.until - other.from;
      }));
}

Mark Track::mark_now(Nanoseconds at) const {
  const Transfer& one = transfer();
  Mark mark = one.marks.empty() ? Mark() : one.marks.back();
  mark.at = std::max(at, mark.at);
  mark.blocks = std::max(one.blocks, one.acknowledged_blocks);
  const auto count = [&](std::uint64_t Flow::*flow, Mark::Times* times) {
    const auto sum = static_cast<std::uint32_t>(one.data.*flow + one.acks.*flow);
    if (sum != times->count) *times = {sum, at};
  };
  count(&Flow::again, &mark.again);
  count(&Flow::lost, &mark.lost);
  count(&Flow::duplicated, &mark.duplicated);
  count(&Flow::swapped, &mark.swapped);
  return mark;
}

// The last mark is where the transfer is now; those before are `mark_every_` datagrams apart, or more.
void Track::mark(Nanoseconds at) {
  Transfer& transfer = mine();
  std::vector<Mark>& marks = transfer.marks;
  const std::uint64_t datagrams = transfer.data.sent + transfer.acks.sent;
  const Mark now = mark_now(at);
  if (marks.size() >= 2 && datagrams - marked_ < mark_every_) {
    marks.back() = now;
    return;
  }
  if (marks.size() == Transfer::kMaxMarks) {
    for (std::size_t i = 1; i < marks.size() / 2; ++i) marks[i] = marks[2 * i];
    marks.resize(marks.size() / 2);
    mark_every_ *= 2;
  }
  marks.push_back(now);
  marked_ = datagrams;
}

void Track::end(End end, std::size_t ended_by) {
  Transfer& transfer = mine();
  transfer.end = end;
  transfer.ended_by = ended_by;
  transfer.is_end_inferred = false;
  book_->changed(&transfer);
}

void Track::pass_time(Nanoseconds now) {
  const Transfer& transfer = mine();
  if (transfer.end != End::kOpen) return;
  const auto timeout = static_cast<Nanoseconds>(number_of(transfer.acknowledged, "timeout"));
  if (now - in_vain_since_ > std::max(kLeastPatience, 3 * timeout * kSecond)) resolve_silence();
}

// Whether what the server said it would send is acknowledged, by the sizes alone.
bool Track::is_all_acknowledged() const {
  const Transfer& transfer = book_->reading.transfers[place_];
  const std::size_t size = number_of(transfer.acknowledged, "tsize");
  return size > 0 && transfer.block_size > 0 &&
         transfer.acknowledged_blocks == size / transfer.block_size + 1;
}

// Nothing more came: who was silent, unless one side's datagrams are missing altogether.
void Track::resolve_silence() {
  Transfer& transfer = mine();
  const bool lacks_data =
      transfer.data.sent == 0 && transfer.acks.sent > 0 && transfer.acknowledged_blocks > 0;
  const bool lacks_acks = transfer.acks.sent == 0 && transfer.blocks > 1;
  if (!has_cut_ && (lacks_data || lacks_acks)) {
    const bool is_finished =
        lacks_data ? is_all_acknowledged() : transfer.is_last_sent && transfer.sent_in_vain == 1;
    end(is_finished ? End::kFinished : End::kUnknown, kNone);
    transfer.is_end_inferred = is_finished;
  } else if (has_cut_ || (transfer.kind == Transfer::Kind::kMidway && transfer.sent_in_vain < 2)) {
    end(End::kUnknown, kNone);
  } else if (transfer.answered || transfer.kind == Transfer::Kind::kMidway) {
    end(End::kAbandoned, last_from_client_ ? transfer.server : transfer.client);
  } else {
    end(client_went_on_ ? End::kUnknown : End::kUnanswered, client_went_on_ ? kNone : transfer.server);
  }
}

void Track::station_ended() {
  const Transfer& transfer = mine();
  if (transfer.end == End::kOpen && (transfer.client == kStation || transfer.server == kStation)) {
    end(End::kStationEnds, kStation);
  }
}

void Track::finish(Nanoseconds now) {
  pass_time(now);
  if (mine().end != End::kOpen) return;
  resolve_silence();
  if (mine().end != End::kFinished) end(End::kUnknown, kNone);
}

}  // namespace story
