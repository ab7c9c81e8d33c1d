#include "picture/connections.h"

#include <string>

#include "picture/arrows.h"
#include "picture/words.h"

namespace picture {

namespace {

// Whether a sequence number is before another one, across the wrap.
bool is_before(std::uint32_t one, std::uint32_t other) {
  return static_cast<std::int32_t>(one - other) < 0;
}

// Sequence numbers that the segment takes.
std::uint32_t extent(const Packet& packet) {
  return static_cast<std::uint32_t>(packet.payload_size) + (packet.syn ? 1 : 0) + (packet.fin ? 1 : 0);
}

}  // namespace

// Empty for what is not told.
std::string Connections::words_for(const Packet& packet, const Talk& talk, const Talk& other) {
  if (packet.rst) return other.began && !talk.began ? "refuses the connection" : "breaks the connection off";
  if (packet.syn && packet.ack) return "accepts the connection";
  if (packet.syn) return "connects to port " + std::to_string(packet.destination_port);
  std::string text = packet.payload.empty() ? "" : quoted(packet.payload);
  if (packet.fin) text += text.empty() ? "closes the connection" : " and closes the connection";
  return text;
}

void Connections::take(const Packet& packet) {
  const Direction here{packet.source, packet.source_port, packet.destination, packet.destination_port};
  const Direction back{packet.destination, packet.destination_port, packet.source, packet.source_port};
  Talk& talk = talks_[here];
  const bool is_new_connection = packet.syn && talk.began && packet.sequence + 1 != talk.next_sequence;
  if (is_new_connection) talk = Talk();
  const std::string text = words_for(packet, talk, talks_[back]);
  if (text.empty()) return;

  const std::uint32_t end = packet.sequence + extent(packet);
  const bool is_again = !packet.rst && talk.began && is_before(packet.sequence, talk.next_sequence);
  if (!talk.began || is_before(talk.next_sequence, end)) talk.next_sequence = end;
  talk.began = talk.began || !packet.rst;
  const std::string told = is_again ? text + ", again" : text;
  if (is_again && talk.told && events_[talk.last_event].text == told) {
    fold_into(&events_[talk.last_event], packet.at, packet.fate);
    return;
  }
  talk.told = true;
  talk.last_event = events_.size();
  events_.push_back(arrow_of(packet, Event::Look::kTcp, told));
}

}  // namespace picture
