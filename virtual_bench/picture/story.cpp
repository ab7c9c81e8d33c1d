#include "picture/story.h"

#include <algorithm>
#include <map>
#include <string>
#include <utility>

#include "picture/arrows.h"
#include "picture/connections.h"
#include "picture/transfers.h"
#include "picture/words.h"

namespace picture {

namespace {

constexpr std::uint16_t kRelayPort = 12345;
constexpr std::size_t kMinLinesToFold = 3;
constexpr Microseconds kLongestPauseInARow = 2000000;

// UDP that is no TFTP, and closed ports: boot script, relay, and what nobody expected. Equal ones in a row
// are folded from the second on, boot scripts from the first on, whatever stands between them.
class Datagrams {
 public:
  explicit Datagrams(const Ports& ports) : ports_(ports) {}

  void take(const Packet& packet) {
    if (is_boot_script(packet)) {
      take_boot_script(packet);
      return;
    }
    const bool unreachable = packet.protocol == Packet::Protocol::kPortUnreachable;
    const Event event =
        arrow_of(packet, unreachable ? Event::Look::kUnreachable : Event::Look::kDatagram, words_for(packet));
    const bool repeats = event.text == last_text_ && event.source == last_source_ &&
                         packet.at - last_at_ <= kLongestPauseInARow;
    last_at_ = packet.at;
    last_text_ = event.text;
    last_source_ = event.source;
    if (repeats && last_was_repetition_) {
      fold_into(&events_.back(), packet.at, packet.fate);
      return;
    }
    last_was_repetition_ = repeats;
    events_.push_back(event);
  }

  std::vector<Event> events() const {
    std::vector<Event> all = boot_scripts_;
    all.insert(all.end(), events_.begin(), events_.end());
    return all;
  }

 private:
  bool is_boot_script(const Packet& packet) const {
    return packet.protocol == Packet::Protocol::kUdp && packet.source_lane == Lane::kStation &&
           is_broadcast(packet.destination) && packet.destination_port == ports_.message;
  }

  void take_boot_script(const Packet& packet) {
    if (boot_scripts_.empty()) {
      boot_scripts_.push_back(arrow_of(packet, Event::Look::kBroadcast, "boot script"));
    } else {
      fold_into(&boot_scripts_.back(), packet.at, packet.fate);
    }
  }

  static std::string words_for(const Packet& packet) {
    const std::string port = std::to_string(packet.destination_port);
    if (packet.protocol == Packet::Protocol::kPortUnreachable) return "port " + port + " is closed";
    if (packet.destination_port != kRelayPort) {
      return "datagram to port " + port + ", " + counted(packet.payload_size, "byte");
    }
    if (packet.target_lane == Lane::kPptServer) return "relays " + quoted(packet.payload);
    return "datagram " + quoted(packet.payload);
  }

  const Ports ports_;
  std::vector<Event> boot_scripts_;
  std::vector<Event> events_;
  std::string last_text_;
  Lane last_source_ = Lane::kBoard;
  Microseconds last_at_ = 0;
  bool last_was_repetition_ = false;
};

Event note_of(const TimedLine& line) {
  return event_of(Event::Kind::kNote, line.at, line.at, printable(line.text));
}

// The station's output; of three and more equal lines in a row, one with their count.
std::vector<Event> notes_of(const std::vector<TimedLine>& lines) {
  std::vector<Event> notes;
  for (std::size_t begin = 0; begin < lines.size();) {
    std::size_t end = begin;
    while (end < lines.size() && lines[end].text == lines[begin].text) ++end;
    if (end - begin < kMinLinesToFold) {
      for (std::size_t i = begin; i < end; ++i) notes.push_back(note_of(lines[i]));
    } else {
      notes.push_back(note_of(lines[begin]));
      for (std::size_t i = begin + 1; i < end; ++i) fold_into(&notes.back(), lines[i].at, {});
    }
    begin = end;
  }
  // Without words there is nothing to stand in the picture.
  notes.erase(
      std::remove_if(notes.begin(), notes.end(),
                     [](const Event& note) { return note.text.find_first_not_of(' ') == std::string::npos; }),
      notes.end());
  return notes;
}

Event board_call_of(const BoardCall& line) {
  Event event = event_of(Event::Kind::kArrow, line.at, line.at, printable(line.text));
  event.target = Lane::kBoard;
  event.look = Event::Look::kBoard;
  return event;
}

Event cut_of(const Cut& cut) {
  return event_of(Event::Kind::kCut, cut.from, cut.until,
                  "cable pulled, " + seconds(cut.until - cut.from, 1) + " s");
}

void append(std::vector<Event>* all, const std::vector<Event>& more) {
  all->insert(all->end(), more.begin(), more.end());
}

}  // namespace

std::vector<Event> story_of(const std::vector<Packet>& packets, const RunRecord& run) {
  Transfers transfers(run.ports);
  Connections connections;
  Datagrams datagrams(run.ports);
  for (const Packet& packet : packets) {
    if (packet.protocol == Packet::Protocol::kTcp) {
      connections.take(packet);
    } else if (packet.protocol == Packet::Protocol::kPortUnreachable || !transfers.take(packet)) {
      datagrams.take(packet);
    }
  }
  std::vector<Event> all = datagrams.events();
  append(&all, transfers.events());
  append(&all, connections.events());
  append(&all, notes_of(run.station_lines));
  for (const BoardCall& call : run.board_calls) all.push_back(board_call_of(call));
  for (const Cut& cut : run.fates.cuts) all.push_back(cut_of(cut));
  std::stable_sort(all.begin(), all.end(),
                   [](const Event& one, const Event& other) { return one.from < other.from; });
  return all;
}

}  // namespace picture
