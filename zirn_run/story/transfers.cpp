#include "story/transfers.h"

#include <algorithm>
#include <string>

namespace story {

namespace {

using frames::Packet;
using frames::TftpMessage;
using Kind = TftpMessage::Kind;

constexpr Nanoseconds kSecond = 1000000000;
constexpr std::size_t kVerdictsBack = 64;  // that a query may be for
constexpr std::uint16_t kLeastFreePort = 1024;

Transfer::Kind kind_of(const TftpMessage& request) {
  if (request.kind == Kind::kReadRequest) return Transfer::Kind::kRead;
  if (request.kind == Kind::kCut) return Transfer::Kind::kCut;
  return request.kind == Kind::kWriteRequest ? Transfer::Kind::kWrite : Transfer::Kind::kOther;
}

Transfer transfer_of(const Packet& packet, const TftpMessage& request, std::size_t client,
                     std::size_t server) {
  Transfer transfer;
  transfer.kind = kind_of(request);
  transfer.client = client;
  transfer.server = server;
  transfer.client_port = packet.source.port;
  transfer.name = request.name.substr(0, kMaxText);
  transfer.mode = request.mode.substr(0, kMaxText);
  for (const auto& [name, value] : request.options) {
    transfer.asked.emplace_back(name.substr(0, kMaxText), value.substr(0, kMaxText));
  }
  transfer.from = packet.at;
  return transfer;
}

bool is_same_request(const Transfer& one, const Transfer& other) {
  return one.kind == other.kind && one.name == other.name && one.mode == other.mode &&
         one.asked == other.asked && one.server == other.server;
}

bool is_answer(const TftpMessage& message) {
  return message.kind == Kind::kData || message.kind == Kind::kAck || message.kind == Kind::kOack ||
         message.kind == Kind::kError;
}

bool is_first_answer(const TftpMessage& message) {
  const bool is_first = message.number == 1 && message.kind == Kind::kData;
  return is_first || message.kind == Kind::kOack || message.kind == Kind::kError;
}

bool is_over(const Transfer& transfer) {
  return transfer.end == Transfer::End::kFinished || transfer.end == Transfer::End::kError;
}

}  // namespace

bool Transfers::take(const Packet& packet, const TftpMessage& message, std::size_t source,
                     std::size_t target) {
  const bool to_server = is_to_server(packet, message, source, target);
  const bool is_new = to_server && frames::is_request(message);
  Place mine = is_new ? tracks_.end() : find(packet.source, packet.destination.port);
  if (mine == tracks_.end() && to_server && !is_new) mine = latest(packet.source);
  if (mine != tracks_.end()) {
    mine->take(packet, message, true);
    touch(mine);
    return true;
  }
  if (!to_server) {
    return take_answer(packet, message, source) || take_midway(packet, message, source, target);
  }
  if (!repeat(packet, message, source, target)) begin(packet, message, source, target);
  return true;
}

bool Transfers::is_to_server(const Packet& packet, const TftpMessage& message, std::size_t source,
                             std::size_t target) const {
  const Reading& reading = book_->reading;
  const std::uint16_t port = packet.destination.port;
  const bool to_station = target == kStation && port == reading.tftp_port;
  const bool to_ppt_server =
      source == kStation && port == reading.ppt_port && reading.parties[target].role == Role::kPptServer;
  const bool asks = frames::is_request(message) && (port == reading.tftp_port || port == reading.ppt_port);
  return to_station || to_ppt_server || asks;
}

// A request that a client sends again before it has gone on.
bool Transfers::repeat(const Packet& packet, const TftpMessage& message, std::size_t source,
                       std::size_t target) {
  const Place before = latest(packet.source);
  if (before == tracks_.end() || before->client_went_on()) return false;
  const Transfer& transfer = before->transfer();
  const bool is_ended = transfer.end == Transfer::End::kError || transfer.end == Transfer::End::kStationEnds;
  if (is_ended && packet.at - transfer.until > kSecond) return false;
  if (!is_same_request(transfer, transfer_of(packet, message, source, target))) return false;
  before->request(packet, source, target);
  // Answers from that very port belong to this request from now on.
  answered_.erase({packet.source, packet.destination.port});
  if (!packet.fate.lost) wait_for_answer(packet.source, before);
  touch(before);
  return true;
}

void Transfers::begin(const Packet& packet, const TftpMessage& message, std::size_t source,
                      std::size_t target) {
  const Place track = follow(transfer_of(packet, message, source, target), packet.source);
  if (track == tracks_.end()) return;
  track->request(packet, source, target);
  answered_.erase({packet.source, packet.destination.port});
  const auto found = clients_.find(packet.source);
  if (found == clients_.end()) {
    clients_.emplace(packet.source, Client{track, {}});
  } else {
    found->second.latest = track;
  }
  if (!packet.fate.lost) wait_for_answer(packet.source, track);
  if (!verdict_in(message.name) || message.kind != Kind::kReadRequest) return;
  if (source == kStation || is_query(message.name)) {
    begin_query(track->place());
  } else {
    begin_verdict(track->place());
  }
}

void Transfers::begin_verdict(std::size_t place) {
  Transfer& transfer = book_->reading.transfers[place];
  Verdict verdict;
  verdict.name = transfer.name;
  verdict.says = verdict_in(transfer.name).value();
  verdict.unit = transfer.client;
  verdict.transfer = place;
  verdict.at = transfer.from;
  transfer.verdict = book_->add(&book_->reading.verdicts, verdict);
}

// Where the unit's own request is not in the record, the query tells of the verdict.
void Transfers::begin_query(std::size_t place) {
  Reading& reading = book_->reading;
  Transfer& transfer = reading.transfers[place];
  transfer.verdict = verdict_asked_by(transfer.name);
  if (transfer.verdict == kNone && is_query(transfer.name)) {
    Verdict verdict;
    verdict.name = verdict_of(transfer.name);
    verdict.says = verdict_in(verdict.name).value_or(Verdict::Says::kStep);
    verdict.at = transfer.from;
    transfer.verdict = book_->add(&reading.verdicts, verdict);
  }
  if (transfer.verdict == kNone) return;
  Verdict& verdict = reading.verdicts[transfer.verdict];
  ++verdict.query_count;
  if (verdict.queries.size() < Verdict::kMaxQueries) verdict.queries.push_back(place);
  book_->changed(&verdict);
}

std::size_t Transfers::verdict_asked_by(const std::string& query) const {
  const std::vector<Verdict>& verdicts = book_->reading.verdicts;
  const std::size_t first = verdicts.size() - std::min(verdicts.size(), kVerdictsBack);
  for (std::size_t i = verdicts.size(); i > first; --i) {
    if (query_for(verdicts[i - 1].name) == query) return i - 1;
  }
  return kNone;
}

Transfers::Place Transfers::follow(Transfer transfer, const Endpoint& client) {
  const std::size_t place = book_->add(&book_->reading.transfers, std::move(transfer));
  if (place == kNone) return tracks_.end();
  if (tracks_.size() >= kMaxFollowed) drop(tracks_.begin());
  tracks_.emplace_back(book_, place, client);
  return std::prev(tracks_.end());
}

void Transfers::wait_for_answer(const Endpoint& client, Place track) {
  std::deque<Place>& waiting = clients_.at(client).waiting;
  if (waiting.size() < kMaxWaiting) waiting.push_back(track);
}

bool Transfers::take_answer(const Packet& packet, const TftpMessage& message, std::size_t source) {
  const Endpoint& receiver = packet.destination;
  const auto client = clients_.find(receiver);
  Place track = find(receiver, packet.source.port);
  // Ports are used again: what is over begins no more, while a younger request waits.
  const bool is_for_younger = track != tracks_.end() && is_first_answer(message) &&
                              is_over(track->transfer()) && client != clients_.end() &&
                              client->second.latest != track && !client->second.waiting.empty();
  if (track == tracks_.end() || is_for_younger) {
    if (client == clients_.end() || client->second.latest->transfer().server != source) return false;
    std::deque<Place>& waiting = client->second.waiting;
    if (waiting.empty() && !is_answer(message)) return false;
    track = waiting.empty() ? client->second.latest : waiting.front();
    if (!waiting.empty()) waiting.pop_front();
    if (track->transfer().answered) track = second_answer(*track);
    if (track == tracks_.end()) return true;
    track->server_port = packet.source.port;
    answered_[{receiver, packet.source.port}] = track;
  }
  track->take(packet, message, false);
  touch(track);
  return true;
}

Transfers::Place Transfers::second_answer(const Track& first) {
  const Transfer& transfer = first.transfer();
  Transfer second;
  second.kind = transfer.kind;
  second.client = transfer.client;
  second.server = transfer.server;
  second.client_port = transfer.client_port;
  second.name = transfer.name;
  second.mode = transfer.mode;
  second.asked = transfer.asked;
  second.second_answer_of = first.place();
  second.verdict = transfer.verdict;
  second.from = transfer.from;
  return follow(std::move(second), first.client);
}

// DATA and ACKs whose request is not in the record. That a read is going on is inferred.
bool Transfers::take_midway(const Packet& packet, const TftpMessage& message, std::size_t source,
                            std::size_t target) {
  const bool is_data = message.kind == Kind::kData && packet.payload_size >= 4;
  const bool is_ack = message.kind == Kind::kAck && packet.payload_size == 4;
  const bool is_free = std::min(packet.source.port, packet.destination.port) >= kLeastFreePort;
  if ((!is_data && !is_ack) || !is_free || packet.is_broadcast) return false;
  Transfer transfer;
  transfer.kind = Transfer::Kind::kMidway;
  transfer.client = is_data ? target : source;
  transfer.server = is_data ? source : target;
  const Endpoint& client = is_data ? packet.destination : packet.source;
  const std::uint16_t server_port = is_data ? packet.source.port : packet.destination.port;
  transfer.client_port = client.port;
  transfer.server_port = server_port;
  transfer.from = packet.at;
  const Place track = follow(std::move(transfer), client);
  if (track == tracks_.end()) return true;
  track->server_port = server_port;
  answered_[{client, server_port}] = track;
  track->take(packet, message, is_ack);
  return true;
}

bool Transfers::take_closed_port(const Packet& packet, std::size_t source, std::size_t target) {
  Place track = find(packet.quoted_source, packet.quoted_destination.port);
  if (track == tracks_.end()) track = find(packet.quoted_destination, packet.quoted_source.port);
  const std::uint16_t port = packet.quoted_destination.port;
  const bool is_server_port = port == book_->reading.tftp_port || port == book_->reading.ppt_port;
  if (track == tracks_.end() && is_server_port) track = latest(packet.quoted_source);
  if (track == tracks_.end()) return false;
  track->closed_port(packet, source, target);
  return true;
}

// The youngest one with these ends: ports are used again.
Transfers::Place Transfers::find(const Endpoint& client, std::uint16_t server_port) {
  const auto found = answered_.find({client, server_port});
  return found == answered_.end() ? tracks_.end() : found->second;
}

Transfers::Place Transfers::latest(const Endpoint& client) {
  const auto found = clients_.find(client);
  return found == clients_.end() ? tracks_.end() : found->second.latest;
}

void Transfers::drop(Place track) {
  track->finish(track->last_at());
  const auto answered = answered_.find({track->client, track->server_port});
  if (answered != answered_.end() && answered->second == track) answered_.erase(answered);
  const auto found = clients_.find(track->client);
  if (found != clients_.end()) {
    std::deque<Place>& waiting = found->second.waiting;
    waiting.erase(std::remove(waiting.begin(), waiting.end(), track), waiting.end());
    if (found->second.latest == track) clients_.erase(found);
  }
  tracks_.erase(track);
}

void Transfers::pass_time(Nanoseconds now) {
  if (now - checked_ < kSecond) return;
  checked_ = now;
  for (Track& track : tracks_) track.pass_time(now);
}

void Transfers::station_ended() {
  for (Track& track : tracks_) track.station_ended();
}

void Transfers::finish(Nanoseconds now) {
  for (Track& track : tracks_) track.finish(now);
}

}  // namespace story
