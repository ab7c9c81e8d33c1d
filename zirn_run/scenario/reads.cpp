// What the units read and wrote.
#include <signal.h>

#include <algorithm>
#include <map>
#include <optional>

#include "frames/tftp_message.h"
#include "scenario/files.h"
#include "scenario/manner.h"
#include "scenario/read_end.h"
#include "scenario/wire.h"
#include "scenario/writing.h"

namespace scenario {

namespace {

using story::Transfer;
using End = Transfer::End;

constexpr std::uint64_t kMostBlocks = 65535;  // that can be counted
constexpr std::uint64_t kMostCount = 1000;    // of what is repeated
constexpr std::size_t kProgressBytes = 8192;  // its file grows by
constexpr char kTries[] = " tries 9";
// About as long as the station waits for the PPT server, and some units for the station.
constexpr Nanoseconds kAlmostBusy = 4 * kSecond;
constexpr Nanoseconds kBusy = 6 * kSecond;
constexpr char kAnyText[] = "hello";  // where something came that is not in the story

std::uint64_t blocks_until(const Transfer& read, Nanoseconds when) {
  std::uint64_t blocks = 0;
  for (const story::Mark& mark : read.marks) {
    if (mark.at <= when) blocks = mark.blocks;
  }
  return blocks;
}

// Of a read that the client abandoned, whose server repeated its last block some times.
Nanoseconds last_said_by_client(const Transfer& one) {
  const std::uint64_t repeated = one.sent_in_vain == 0 ? 0 : one.sent_in_vain - 1;
  if (repeated == 0 || one.silences.size() < repeated) return one.until;
  return one.silences[one.silences.size() - repeated].from;
}

class Reads {
 public:
  explicit Reads(Writing* writing) : writing_(*writing), script_(writing->script) {
    for (const Transfer& one : writing_.reading.transfers) {
      if (one.server != story::kStation) continue;
      if (one.second_answer_of != story::kNone)
        take_second_answer(one);
      else if (writing_.has_unit(one.client))
        reads_.push_back(&one);
      else
        script_.cannot_say(one.from, "another unit reads or writes " + one.name, one.frames);
    }
  }

  void write() {
    write_files(reads_, &writing_);
    if (reads_.empty()) return;
    const auto& boot = writing_.reading.boot_script;
    if (boot && boot->first < reads_[0]->from)
      script_.waits(reads_[0]->from - 3, of(*reads_[0], "unit hears the boot script"), {}, boot->frames);
    Wire wire("wire", reads_, passages_of(reads_, writing_), writing_);
    for (std::size_t i = 0; i < reads_.size(); ++i) {
      wire.write_before(reads_[i]->from, *reads_[i], &script_);
      const std::size_t begin = i;
      for (const std::size_t last = last_try(i, has_tries(wire)); i < last;) {
        ++i;
        wire.write_before(reads_[i]->from, *reads_[i], &script_);
      }
      const bool is_tried = i > begin || has_tries(wire) || was_busy_for(*reads_[i]);
      write_one(*reads_[i], next_of(i), is_tried ? kTries : "");
    }
  }

 private:
  // The unit may go on with it instead of the first one.
  void take_second_answer(const Transfer& one) {
    const auto first =
        std::find(reads_.begin(), reads_.end(), &writing_.reading.transfers[one.second_answer_of]);
    if (first != reads_.end() && is_finished(one) && !is_finished(**first)) *first = &one;
  }

  std::string of(const Transfer& one, const std::string& form) const {
    return writing_.of_unit(one.client, form);
  }

  bool has_tries(const Wire& wire) const { return wire.is_damaged() || writing_.waits_by_chance; }

  // When the same unit begins its next one.
  Nanoseconds next_of(std::size_t place) const {
    const auto next = std::find_if(reads_.begin() + static_cast<std::ptrdiff_t>(place) + 1, reads_.end(),
                                   [&](const Transfer* one) { return one->client == reads_[place]->client; });
    return next == reads_.end() ? writing_.reading.last : (*next)->from;
  }

  // Of reads of one file that follow each other and ask alike, all but the last are tries where the wire is damaged, or
  // where the station was busy: whether it answers before the unit gives up depends on the moment.
  std::size_t last_try(std::size_t first, bool is_damaged) const {
    std::size_t last = first;
    for (; last + 1 < reads_.size(); ++last) {
      const Transfer &one = *reads_[last], &next = *reads_[last + 1];
      const bool is_again = next.name == one.name && next.client == one.client && next.asked == one.asked;
      const bool is_try =
          is_damaged || (is_unheard(one) && next.from - one.from < kBusy && next.losses.empty() &&
                         !script_.has_act_between(one.from, next.from));
      if (!is_again || !is_try || is_finished(one)) break;
    }
    return last;
  }

  static bool was_busy_for(const Transfer& one) {
    return one.answered.value_or(one.from) - one.from >= kAlmostBusy;
  }

  static bool is_unheard(const Transfer& one) {
    return one.acks.sent == 0 && one.losses.empty() && one.end != End::kError;
  }

  // What the read says besides its name, once the unit is like a loader that reads so.
  std::string options_of(const Transfer& one) {
    const Manner manner = manner_of(one, &script_);
    const auto before = habits_.find(one.client);
    const bool is_first = before == habits_.end();
    if (manner.habit != (is_first ? std::begin(kHabits) : before->second)) {
      const std::string step = of(one, "unit is like " + std::string(manner.habit->name));
      is_first ? script_.starts(step) : script_.waits(one.from - 1, step, {}, one.frames);
    }
    habits_[one.client] = manner.habit;
    return manner.options;
  }

  // With an answer that does not come.
  Nanoseconds patience_of(std::size_t unit) const {
    return static_cast<Nanoseconds>(habits_.at(unit)->patience_seconds * kSecond);
  }

  void write_one(const Transfer& one, Nanoseconds next, const std::string& tries) {
    if (one.kind == Transfer::Kind::kWrite) {
      act(one, "unit writes NAME");
    } else if (one.kind == Transfer::Kind::kOther && writing_.reading.tftp_port != 0) {
      script_.acts(one.from, one.until,
                   of(one, "unit sends TEXT to port " + std::to_string(writing_.reading.tftp_port)),
                   {kAnyText}, one.frames);
    } else if (one.kind != Transfer::Kind::kRead) {
      script_.cannot_say(one.from, "a transfer whose request is not in the record", one.frames);
    } else if (one.requests > 1 && one.answered && one.asked.empty() && one.acks.sent == 0) {
      script_.acts(one.from, one.answered.value_or(one.until), of(one, "unit repeats NAME TIMES times"),
                   {one.name, std::to_string(std::min(one.requests, kMostCount))}, one.frames);
    } else if (!is_finished(one) && one.end == End::kError && (one.name.empty() || one.mode != "octet")) {
      script_.acts(
          one.from, one.until,
          of(one, one.mode == "octet" ? "unit is refused NAME" : "unit is refused NAME in mode MODE"),
          {one.name, one.mode}, one.frames);
    } else if (one.name.size() >= story::kMaxText || one.mode != "octet") {
      script_.cannot_say(one.from, "a read whose name is too long or not whole, or whose mode is not octet",
                         one.frames);
    } else {
      write_octet_read(one, next, tries);
    }
  }

  void write_octet_read(const Transfer& one, Nanoseconds next, const std::string& tries) {
    if (one.end == End::kError && one.ended_by == one.client) return write_given_up(one);
    const std::string asked = options_of(one);
    const Nanoseconds given_up = one.from + patience_of(one.client);
    if (one.answered.value_or(0) > given_up && one.acks.sent == 0) {
      write_read(one, std::min(given_up, next), asked, "", false);
    } else if (is_finished(one)) {
      write_read(one, std::min(one.until, next), asked, tries, true);
    } else if (is_crash(one)) {
      write_crash(one, next, asked);
    } else if (is_read_in_vain(one) && !is_left(one, next)) {
      if (is_station_stopped(one)) return write_stopped(one, asked);
      const bool is_told = one.end == End::kError;
      write_read(one, is_told ? one.until : std::min(one.until + patience_of(one.client), next), asked, "",
                 false);
    } else if (one.end == End::kAbandoned || is_left(one, next)) {
      script_.acts(one.from, std::min(last_said_by_client(one), next),
                   of(one, "unit reads NAME" + asked + " dies after " +
                               size_in_words(one.acknowledged_blocks * one.block_size)),
                   {one.name}, one.frames);
    } else {
      script_.cannot_say(one.from, "how the read of " + one.name + " ended", one.frames);
    }
  }

  // The unit went on with another read, and the station ended before it noticed.
  bool is_left(const Transfer& one, Nanoseconds next) const {
    return one.end == End::kStationEnds && one.acks.sent > 0 && next < writing_.reading.last;
  }

  void write_given_up(const Transfer& one) {
    const std::string blocks = std::to_string(std::min<std::uint64_t>(one.acknowledged_blocks, kMostBlocks));
    act(one, "unit gives up NAME blksize " +
                 std::to_string(std::max(one.block_size, frames::kDefaultBlockBytes)) +
                 (one.acknowledged_blocks == 0 ? "" : " after " + blocks + " blocks"));
  }

  void write_crash(const Transfer& one, Nanoseconds next_read, const std::string& asked) {
    const Nanoseconds crash = std::min(last_said_by_client(one), next_read - 8);  // before it boots again
    script_.acts(one.from, one.from, of(one, "unit begins reading NAME" + asked), {one.name}, one.frames);
    if (const std::uint64_t bytes = whole(one.bytes))
      script_.waits(crash - 1, of(one, "unit has read " + size_in_words(bytes)), {}, one.frames);
    script_.acts(crash, crash, of(one, "unit crashes"), {}, one.frames);
    if (const auto next = next_word_of(one.client, crash + 1))
      script_.acts(*next - 4, *next - 4, of(one, "unit boots again"), {}, one.frames);
  }

  // When the unit is heard again.
  std::optional<Nanoseconds> next_word_of(std::size_t unit, Nanoseconds since) const {
    for (const std::size_t place : writing_.reading.order) {
      const story::Step& step = writing_.reading.steps[place];
      if (step.source == unit && step.from >= since) return step.from;
    }
    return std::nullopt;
  }

  bool is_station_stopped(const Transfer& one) const {
    return one.server_port == 0 && one.end != End::kError && writing_.has_cause("read.unanswered");
  }

  // What could be seen is that nothing came.
  void write_stopped(const Transfer& one, const std::string& asked) {
    const Nanoseconds until = one.from + patience_of(one.client);
    script_.acts(one.from - 1, one.from - 1, "station gets SIGSTOP", {}, one.frames);
    script_.acts(one.from, until, of(one, "unit cannot read NAME" + asked), {one.name}, one.frames);
    const auto& end = writing_.reading.station_end;
    if (!end || end->signal != SIGKILL || &one != reads_.back())
      script_.waits(one.from + 1, "station gets SIGCONT", {}, one.frames);
  }

  // In two steps where something else happens in its midst.
  void write_read(const Transfer& one, Nanoseconds until, const std::string& asked, const std::string& tries,
                  bool succeeds) {
    const Nanoseconds margin = kSecond / 5;  // a lost answer's patience is not measured so well
    const Nanoseconds latest = succeeds || one.end == End::kError ? until : until - margin;
    if (!script_.has_act_between(one.from, latest) && !is_another_begun(one, latest)) {
      const std::string form = (succeeds ? "unit reads NAME" : "unit cannot read NAME") + asked + tries;
      return script_.acts(one.from, until, of(one, form), {one.name}, one.frames);
    }
    script_.acts(one.from, one.from, of(one, "unit begins reading NAME" + asked), {one.name}, one.frames);
    write_progress(one);
    script_.waits(until, of(one, succeeds ? "unit ends reading" : "unit ends reading in vain"), {},
                  one.frames);
  }

  bool is_another_begun(const Transfer& one, Nanoseconds until) const {
    return std::any_of(reads_.begin(), reads_.end(), [&](const Transfer* other) {
      return other->client != one.client && other->from > one.from && other->from < until;
    });
  }

  // How far it was when the cable was taken out, or the station was stopped or ended, or a stray datagram came.
  void write_progress(const Transfer& one) {
    std::vector<const story::Step*> disturbances = writing_.disturbances;
    for (const story::Step& step : writing_.reading.steps) {
      if (step.kind == story::Step::Kind::kDatagram && one.server_port != 0 && step.port == one.server_port)
        disturbances.push_back(&step);
    }
    for (const story::Step* const step : disturbances) {
      if (step->from <= one.from || step->from >= one.until) continue;
      const std::uint64_t bytes = whole(blocks_until(one, step->from) * one.block_size);
      if (bytes > 0 && bytes < one.bytes)
        script_.waits(step->from - 1, of(one, "unit has read " + size_in_words(bytes)), {}, one.frames);
    }
  }

  // What its file has shown of so many bytes.
  static std::uint64_t whole(std::uint64_t bytes) { return bytes - bytes % kProgressBytes; }

  void act(const Transfer& one, const std::string& form) {
    script_.acts(one.from, one.until, of(one, form), {one.name}, one.frames);
  }

  Writing& writing_;
  Script& script_;
  std::vector<const Transfer*> reads_;          // and writes, of all units, in order
  std::map<std::size_t, const Habit*> habits_;  // of the units, by now
};

}  // namespace

void write_reads(Writing* writing) {
  Reads(writing).write();
}

}  // namespace scenario
