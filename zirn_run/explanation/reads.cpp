// Reads that came to no end, and what ended them.
#include <algorithm>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "explanation/case.h"
#include "frames/tftp_message.h"
#include "frames/words.h"

namespace explanation {

namespace {

using story::Transfer;
using End = Transfer::End;

constexpr std::uint16_t kFileNotFound = 1;  // RFC 1350
constexpr char kOctet[] = "octet";
// What a unit asks for when it boots.
constexpr std::string_view kBootNames[] = {"bootscript.txt", "F_l_m_t_Bootstrap_loading"};

std::string of(const Transfer& transfer) {
  return frames::printable(transfer.name);
}

// Whether the unit had the same file by a later read.
bool is_overcome(const Case& c, const Transfer& transfer) {
  const auto later = c.read_at.find(transfer.name);
  return later != c.read_at.end() && later->second > transfer.from;
}

void find(std::string_view cause, const Transfer& transfer, const std::string& sentence, bool is_inferred,
          Case* c) {
  c->find(cause, transfer.from, sentence, {transfer.frames, {}, is_inferred}, !is_overcome(*c, transfer),
          of(transfer));
}

std::string error_words(const Transfer& transfer) {
  const char* const no_text = transfer.error_code == kFileNotFound ? " (file not found)" : "";
  return "ERROR " + std::to_string(transfer.error_code) +
         (transfer.error.text.empty() ? no_text : " " + frames::quoted(transfer.error.text));
}

void find_refusal(const Transfer& transfer, Case* c) {
  const std::string when = at(*c, transfer.from);
  const std::string answer = ", and the station answered " + error_words(transfer);
  if (transfer.name.empty()) {
    find("file.no-name", transfer, "the unit asked for a file without a name" + when + answer, false, c);
  } else if (transfer.mode != kOctet && !frames::is_cut(transfer.name) && !frames::is_cut(transfer.mode)) {
    find(
        "file.wrong-mode", transfer,
        "the unit asked for " + of(transfer) + " in mode " + frames::printable(transfer.mode) + when + answer,
        false, c);
  } else {
    find(transfer.error_code == kFileNotFound ? "file.missing" : "file.refused", transfer,
         "the unit asked for " + of(transfer) + when + answer, false, c);
  }
}

void find_given_up(const Transfer& transfer, Case* c) {
  const bool is_over_options = !transfer.acknowledged.empty() && transfer.acknowledged_blocks == 0;
  find(is_over_options ? "read.options-refused" : "read.given-up", transfer,
       "the unit ended its read of " + of(transfer) + " after " +
           frames::counted(transfer.acknowledged_blocks, "block") + " with " + error_words(transfer) +
           at(*c, transfer.until),
       false, c);
}

const story::Step* cut_during(const Transfer& transfer, const Case& c) {
  const auto cut = std::find_if(c.cuts.begin(), c.cuts.end(), [&transfer](const story::Step* step) {
    return step->from <= transfer.until && step->until >= transfer.from;
  });
  return cut == c.cuts.end() ? nullptr : *cut;
}

// Since when only the station has sent.
Nanoseconds silent_since(const Transfer& transfer) {
  Nanoseconds since = transfer.data_until;
  for (auto silence = transfer.silences.rbegin(); silence != transfer.silences.rend(); ++silence) {
    if (silence->ended_by != transfer.server) break;
    since = silence->from;
  }
  return since;
}

std::string words_for(const Transfer& next, const Transfer& broken) {
  const std::string again = next.name == broken.name ? " again" : "";
  return (story::verdict_in(next.name) ? "gave " : "asked for ") + of(next) + again;
}

// What a unit did next, and when.
struct Next {
  Nanoseconds at = 0;
  std::string words;
  bool is_boot = false;  // another one than before the read
};

// What units did, each in the order of time: a run may have very many reads that break off.
class Doings {
 public:
  explicit Doings(const story::Reading& reading) {
    for (const Transfer& transfer : reading.transfers) {
      by_party_[transfer.client].push_back({transfer.from, &transfer, ""});
      if (is_boot_name(transfer.name)) note_boot(transfer);
    }
    for (const auto& connection : reading.connections)
      by_party_[connection.client].push_back({connection.from, nullptr, "opened a connection"});
    for (const auto& relayed : reading.relayed)
      by_party_[relayed.unit].push_back({relayed.from, nullptr, "sent a datagram"});
    for (auto& [party, doings] : by_party_) {
      std::stable_sort(doings.begin(), doings.end(),
                       [](const Doing& one, const Doing& other) { return one.at < other.at; });
    }
  }

  // What the reader of the broken read did after that time; nothing: no more.
  std::optional<Next> next_after(const Transfer& broken, Nanoseconds since) const {
    const std::vector<Doing>& doings = by_party_.at(broken.client);
    const auto next = std::upper_bound(doings.begin(), doings.end(), since,
                                       [](Nanoseconds time, const Doing& doing) { return time < doing.at; });
    if (next == doings.end()) return std::nullopt;
    return Next{next->at, next->transfer != nullptr ? words_for(*next->transfer, broken) : next->words,
                has_booted_again(broken, since)};
  }

 private:
  struct Doing {
    Nanoseconds at;
    const Transfer* transfer;  // null: something else
    const char* words;         // for that
  };
  struct Boots {
    Nanoseconds first, last;
  };

  static bool is_boot_name(std::string_view name) {
    return std::find(std::begin(kBootNames), std::end(kBootNames), name) != std::end(kBootNames);
  }
  void note_boot(const Transfer& transfer) {
    const auto [boots, is_new] =
        boots_.insert({{transfer.client, transfer.name}, {transfer.from, transfer.from}});
    boots->second.first = std::min(boots->second.first, transfer.from);
    boots->second.last = std::max(boots->second.last, transfer.from);
  }
  // Whether the unit asked for what it asks for when it boots before the read, and after that time.
  bool has_booted_again(const Transfer& broken, Nanoseconds since) const {
    return std::any_of(std::begin(kBootNames), std::end(kBootNames), [&](std::string_view name) {
      const auto boots = boots_.find({broken.client, name});
      return name != broken.name && boots != boots_.end() && boots->second.first < broken.from &&
             boots->second.last > since;
    });
  }

  std::map<std::size_t, std::vector<Doing>> by_party_;
  std::map<std::pair<std::size_t, std::string_view>, Boots> boots_;  // by party and name
};

void find_unit_or_station(const Transfer& transfer, bool is_unit_silent, const std::string& told,
                          const Doings& doings, Case* c) {
  const Nanoseconds since = silent_since(transfer);
  const auto next = is_unit_silent ? doings.next_after(transfer, since) : std::nullopt;
  if (!next) return find(is_unit_silent ? "unit.gone" : "read.unanswered", transfer, told, false, c);
  const bool may_lack_silences = transfer.silences.size() == Transfer::kMaxSilences;
  find(next->is_boot ? "unit.restarted" : "read.left", transfer,
       told + "; it was silent for " + (may_lack_silences ? "at least " : "") + seconds(next->at - since) +
           ", and then " + next->words + " at " + moment(*c, next->at),
       false, c);
}

// Where nothing more came from one side.
void find_silence(const Transfer& transfer, bool is_unit_silent, const std::string& told,
                  const Doings& doings, Case* c) {
  const std::uint64_t lost = transfer.data.lost + transfer.acks.lost + transfer.sent_in_vain_lost;
  const bool has_left = is_unit_silent && transfer.closed_ports > 0;
  const story::Step* const cut = cut_during(transfer, *c);
  if (cut != nullptr && !has_left) {
    Evidence evidence = seen(transfer.frames, cut->lines);
    c->find("net.cable-out", transfer.from, told + "; " + cut_in_words(*c, *cut), evidence,
            !is_overcome(*c, transfer));
  } else if (lost > 0 && !has_left) {
    find("net.read-broken", transfer, told + "; " + frames::counted(lost, "frame") + " of it were lost",
         false, c);
  } else if (transfer.inferred_lost > 0 && !has_left) {
    find("net.read-broken", transfer,
         told + "; " + frames::counted(transfer.inferred_lost, "frame") + " of it were lost before, at least",
         true, c);
  } else {
    find_unit_or_station(transfer, is_unit_silent, told, doings, c);
  }
}

// Whether one side was silent for long when the station ended.
bool was_silent_at_end(const Transfer& transfer, const Case& c) {
  constexpr Nanoseconds kLong = 3 * kSecond;
  if (transfer.end != End::kStationEnds) return false;
  return transfer.answered ? transfer.sent_in_vain > 1 && transfer.blocks > transfer.acknowledged_blocks
                           : c.reading.last - transfer.from >= kLong;
}

void find_silent_side(const Transfer& transfer, bool is_unit, const Doings& doings, Case* c) {
  const bool had_everything = transfer.is_last_sent && transfer.acknowledged_blocks + 1 >= transfer.blocks;
  if (had_everything && is_unit) return;
  find_silence(transfer, is_unit,
               std::string(is_unit ? "the unit" : "the station") + " fell silent in the read of " +
                   of(transfer) + " that began" + at(*c, transfer.from) + ", " +
                   frames::counted(transfer.acknowledged_blocks, "block") + " acknowledged of " +
                   std::to_string(transfer.blocks) + " sent",
               doings, c);
}

// Busy with a verdict, it answered a unit that had given up asking.
bool is_answered_too_late(const Transfer& transfer, const Case& c) {
  return transfer.end == End::kAbandoned && transfer.acks.sent == 0 && transfer.closed_ports > 0 &&
         c.waits_for_ppt(transfer.from);
}

void find_of(const Transfer& transfer, const Doings& doings, Case* c) {
  if (is_answered_too_late(transfer, *c)) return;
  const std::string name = of(transfer);
  const bool is_stopped = was_silent_at_end(transfer, *c);
  if (transfer.end == End::kError) {
    if (transfer.ended_by == transfer.server) return find_refusal(transfer, c);
    return find_given_up(transfer, c);
  }
  if (transfer.end == End::kFinished && transfer.bytes == 0 && transfer.blocks == 1) {
    find("file.empty", transfer, "the unit read " + name + at(*c, transfer.from) + ", and it has 0 bytes",
         false, c);
  } else if (transfer.end == End::kAbandoned || (is_stopped && transfer.answered)) {
    find_silent_side(transfer, is_stopped || transfer.ended_by == transfer.client, doings, c);
  } else if ((transfer.end == End::kUnanswered || is_stopped) && !c->waits_for_ppt(transfer.from)) {
    const bool is_lost = transfer.sent_in_vain > 0 && transfer.sent_in_vain_lost == transfer.sent_in_vain;
    find_silence(
        transfer, false,
        "the unit asked for " + name +
            (transfer.requests > 1 ? " " + frames::counted(transfer.requests, "time") + ", first" : "") +
            at(*c, transfer.from) +
            (is_lost ? ", and the request did not reach the station" : ", and got no answer"),
        doings, c);
  }
}

}  // namespace

void find_reads(Case* c) {
  const Doings doings(c->reading);
  for (const Transfer& transfer : c->reading.transfers) {
    if (c->is_read_of_file(transfer) && &c->served_by(transfer) == &transfer) find_of(transfer, doings, c);
  }
}

}  // namespace explanation
