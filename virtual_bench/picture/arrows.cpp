#include "picture/arrows.h"

namespace picture {

namespace {

constexpr std::uint32_t kUnit = 0xac280002;       // 172.40.0.2
constexpr std::uint32_t kPptServer = 0xac1e00fe;  // 172.30.0.254

bool is_usual(std::uint32_t address) {
  return address == kUnit || address == kPptServer || lane_of(address) == Lane::kStation ||
         is_broadcast(address);
}

void count(const Fate& fate, Event* event) {
  event->times_lost += fate.lost ? 1 : 0;
  event->times_duplicated += fate.duplicated ? 1 : 0;
  event->times_swapped += fate.swapped ? 1 : 0;
  event->fate.lost = event->times_lost == event->times;
  event->fate.duplicated = event->times_duplicated > 0;
  event->fate.swapped = event->times_swapped > 0;
}

}  // namespace

Event arrow_of(const Packet& packet, Event::Look look, const std::string& text) {
  Event event = event_of(Event::Kind::kArrow, packet.at, packet.at, text);
  event.source = packet.source_lane;
  event.target = packet.target_lane;
  event.look = look;
  if (!is_usual(packet.source)) event.text += " (from " + dotted(packet.source) + ")";
  if (!is_usual(packet.destination)) event.text += " (to " + dotted(packet.destination) + ")";
  count(packet.fate, &event);
  return event;
}

void fold_into(Event* event, Microseconds at, const Fate& fate) {
  event->until = at;
  event->times += 1;
  count(fate, event);
}

}  // namespace picture
