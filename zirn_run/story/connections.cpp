#include "story/connections.h"

#include <algorithm>

namespace story {

namespace {

using frames::Packet;
using State = Connection::State;

// Whether a sequence number is before another one, across the wrap.
bool is_before(std::uint32_t one, std::uint32_t other) {
  return static_cast<std::int32_t>(one - other) < 0;
}

// Sequence numbers that the segment takes.
std::uint32_t extent(const Packet& packet) {
  return static_cast<std::uint32_t>(packet.payload_size) + (packet.syn ? 1 : 0) + (packet.fin ? 1 : 0);
}

bool is_over(State state) {
  return state == State::kRefused || state == State::kClosed || state == State::kBrokenOff;
}

}  // namespace

void Connections::take(const Packet& packet, std::size_t source, std::size_t target) {
  const Place place = talk_of(packet, source, target);
  if (place == talks_.end()) return;
  talks_.splice(talks_.end(), talks_, place);
  Talk& talk = *place;
  Connection& connection = this->connection(talk);
  const bool is_from_client = packet.source == talk.client;
  connection.until = std::max(connection.until, packet.until);
  connection.frames.add(packet.frames);
  connection.lost += packet.fate.lost ? 1 : 0;
  book_->changed(&connection);
  const bool again = is_again(packet, &talk.sides[is_from_client]);
  if (packet.rst) {
    take_end(packet, &talk, source, target);
  } else if (packet.syn) {
    // An opening that is sent again shows that nobody answers; anything else is only counted.
    if (again) ++connection.again;
    if (!again || !packet.ack) take_opening(packet, &talk, source, target);
  } else if (again) {
    ++connection.again;
  } else {
    if (packet.payload_size > 0) take_text(packet, &talk, is_from_client);
    if (packet.fin) take_end(packet, &talk, source, target);
  }
}

// Notes how far this side is. Whether the segment takes sequence numbers, and none that are new.
bool Connections::is_again(const Packet& packet, Side* side) const {
  const std::uint32_t end = packet.sequence + extent(packet);
  const bool takes = end != packet.sequence;
  const bool again = side->began && takes && !is_before(side->next_sequence, end);
  if (!packet.rst && (!side->began || is_before(side->next_sequence, end))) side->next_sequence = end;
  side->began = side->began || !packet.rst;
  return again;
}

Connections::Place Connections::talk_of(const Packet& packet, std::size_t source, std::size_t target) {
  auto found = by_ends_.find({packet.source, packet.destination});
  if (found == by_ends_.end()) found = by_ends_.find({packet.destination, packet.source});
  const bool connects = packet.syn && !packet.ack;
  if (found != by_ends_.end()) {
    const Talk& talk = *found->second;
    const Side& side = talk.sides[packet.source == talk.client];
    const bool is_new = connects && side.began && packet.sequence + 1 != side.next_sequence &&
                        (is_over(connection(talk).state) || connection(talk).opened);
    if (!is_new) return found->second;
    drop(found->second);
  }
  if (connects) {
    const Place again = attempt_again(packet);
    if (again != talks_.end()) return again;
  } else if (packet.rst || (packet.payload_size == 0 && !packet.syn && !packet.fin)) {
    return talks_.end();  // tells nothing of a connection that is not known
  }
  return open(packet, source, target);
}

// The connection of the last attempt, if that was in vain.
Connections::Place Connections::attempt_again(const Packet& packet) {
  for (Place talk = talks_.end(); talk != talks_.begin();) {
    --talk;
    if (talk->client.address != packet.source.address || !(talk->server == packet.destination)) continue;
    Connection& before = connection(*talk);
    if (before.opened || before.is_midway ||
        (before.state != State::kRefused && before.state != State::kConnecting)) {
      break;
    }
    by_ends_.erase({talk->client, talk->server});
    talk->client = packet.source;
    talk->sides[0] = talk->sides[1] = Side();
    by_ends_[{talk->client, talk->server}] = talk;
    before.client_port = packet.source.port;
    return talk;
  }
  return talks_.end();
}

// Of a connection that was there before, the message port is the server's, or else the lower one.
Connections::Place Connections::open(const Packet& packet, std::size_t source, std::size_t target) {
  const std::uint16_t known = book_->reading.message_port;
  const bool has_known = packet.source.port == known || packet.destination.port == known;
  const bool to_server =
      has_known ? packet.destination.port == known : packet.destination.port < packet.source.port;
  const bool is_from_client = packet.syn ? !packet.ack : to_server;
  Talk talk;
  talk.client = is_from_client ? packet.source : packet.destination;
  talk.server = is_from_client ? packet.destination : packet.source;
  Connection connection;
  connection.client = is_from_client ? source : target;
  connection.server = is_from_client ? target : source;
  connection.client_port = talk.client.port;
  connection.server_port = talk.server.port;
  connection.is_midway = !packet.syn || packet.ack;
  if (connection.is_midway) connection.state = State::kOpen;
  connection.from = connection.until = packet.at;
  talk.place = book_->add(&book_->reading.connections, connection);
  if (talk.place == kNone) return talks_.end();
  if (talks_.size() >= kMaxFollowed) drop(talks_.begin());
  talks_.push_back(talk);
  return by_ends_[{talk.client, talk.server}] = std::prev(talks_.end());
}

void Connections::drop(Place talk) {
  const auto found = by_ends_.find({talk->client, talk->server});
  if (found != by_ends_.end() && found->second == talk) by_ends_.erase(found);
  talks_.erase(talk);
}

void Connections::take_opening(const Packet& packet, Talk* talk, std::size_t source, std::size_t target) {
  Connection& connection = this->connection(*talk);
  if (packet.ack) {
    if (!connection.opened) connection.opened = packet.at;
    if (connection.state == State::kConnecting) connection.state = State::kOpen;
    return;
  }
  ++connection.attempts;
  if (connection.state == State::kRefused) connection.state = State::kConnecting;
  if (talk->connect_step == kNone) {
    talk->connect_step = book_->add_step(Step::Kind::kConnect, packet, source, target, talk->place);
    if (Step* step = book_->step(talk->connect_step)) step->port = packet.destination.port;
  } else {
    book_->fold(talk->connect_step, packet);
  }
}

// Equal texts in a row are one; so is, in the steps, whatever comes after the first kMaxTexts.
void Connections::take_text(const Packet& packet, Talk* talk, bool is_from_client) {
  Connection& connection = this->connection(*talk);
  const Said text = said(packet.payload, packet.payload_size);
  const bool repeats = !connection.texts.empty() && connection.text_count == connection.texts.size() &&
                       connection.texts.back().is_from_client == is_from_client &&
                       connection.texts.back().said == text;
  (is_from_client ? connection.bytes_from_client : connection.bytes_from_server) += packet.payload_size;
  const bool is_full = connection.texts.size() >= Connection::kMaxTexts;
  if (repeats) {
    ++connection.texts.back().count;
    connection.texts.back().frames.add(packet.frames);
  } else {
    ++connection.text_count;
    if (!is_full) connection.texts.push_back({is_from_client, packet.at, text, 1, packet.frames});
  }
  std::size_t& place = talk->says_steps[is_from_client];
  if (place != kNone && (repeats || is_full)) {
    book_->fold(place, packet);
    return;
  }
  const std::size_t client = connection.client;
  const std::size_t server = connection.server;
  place = book_->add_step(Step::Kind::kSays, packet, is_from_client ? client : server,
                          is_from_client ? server : client, talk->place);
  if (Step* step = book_->step(place)) step->said = text;
}

void Connections::take_end(const Packet& packet, Talk* talk, std::size_t source, std::size_t target) {
  Connection& connection = this->connection(*talk);
  const bool refuses = packet.rst && connection.state == State::kConnecting && source == connection.server;
  if (refuses) {
    connection.state = State::kRefused;
    connection.ended = packet.at;
    connection.ended_by = source;
    if (talk->refused_step != kNone) {
      book_->fold(talk->refused_step, packet);
      return;
    }
    talk->refused_step = book_->add_step(Step::Kind::kRefused, packet, source, target, talk->place);
    if (Step* step = book_->step(talk->refused_step)) step->port = packet.source.port;
    return;
  }
  if (!is_over(connection.state)) {
    connection.state = packet.rst ? State::kBrokenOff : State::kClosed;
    connection.ended = packet.at;
    connection.ended_by = source;
  } else if (packet.rst) {
    if (connection.resets++ == 0) connection.reset_by = source;
    if (talk->reset_step == kNone) {
      talk->reset_step = book_->add_step(Step::Kind::kResets, packet, source, target, talk->place);
    } else {
      book_->fold(talk->reset_step, packet);
    }
    return;
  }
  std::size_t& place = talk->end_steps[source == connection.client];
  if (place != kNone) {
    book_->fold(place, packet);
    return;
  }
  const Step::Kind kind = packet.rst ? Step::Kind::kBreaksOff : Step::Kind::kCloses;
  place = book_->add_step(kind, packet, source, target, talk->place);
}

}  // namespace story
