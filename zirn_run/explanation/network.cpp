// What the test network did to frames.
#include <algorithm>
#include <iterator>
#include <map>
#include <utility>
#include <vector>

#include "explanation/case.h"
#include "frames/words.h"

namespace explanation {

namespace {

using story::kStation;
using story::Step;
using story::Transfer;

struct Damage {
  std::uint64_t lost = 0, duplicated = 0, swapped = 0;
  Numbers lost_in, duplicated_in, swapped_in;
};

bool is_of_ppt(const story::Reading& reading, std::size_t party) {
  return party != story::kNone && reading.parties[party].role == story::Role::kPptServer;
}

// Since when the cable was out, and until when at the most of all that began by then.
std::map<Nanoseconds, Nanoseconds> times_out(const Case& c) {
  std::map<Nanoseconds, Nanoseconds> out;
  for (const Step* cut : c.cuts) {
    Nanoseconds& until = out.emplace(cut->from, cut->until).first->second;
    until = std::max(until, cut->until);
  }
  Nanoseconds latest = 0;
  for (auto& [from, until] : out) latest = until = std::max(latest, until);
  return out;
}

Damage damage_seen(const Case& c) {
  const story::Reading& reading = c.reading;
  // The cable's fault, which is told as such.
  const std::map<Nanoseconds, Nanoseconds> out = times_out(c);
  const auto is_cut = [&out](const Step& step) {
    const auto later = out.upper_bound(step.from);
    return later != out.begin() && step.until <= std::prev(later)->second;
  };
  Damage damage;
  const auto add = [](std::uint64_t count, const Numbers& frames, std::uint64_t* sum, Numbers* in) {
    *sum += count;
    if (count > 0) in->add(frames);
  };
  for (const Step& step : reading.steps) {
    if (step.frames.count == 0 || is_of_ppt(reading, step.source) || is_of_ppt(reading, step.target))
      continue;
    if (!is_cut(step)) add(step.lost, step.frames, &damage.lost, &damage.lost_in);
    add(step.duplicated, step.frames, &damage.duplicated, &damage.duplicated_in);
    add(step.swapped, step.frames, &damage.swapped, &damage.swapped_in);
  }
  return damage;
}

// How long the unit's reads rested in which frames were lost; reads that rested at once rested once.
std::string waited(const story::Reading& reading) {
  std::vector<std::pair<Nanoseconds, Nanoseconds>> rests;
  for (const Transfer& transfer : reading.transfers) {
    if (transfer.client == kStation || transfer.data.lost + transfer.acks.lost + transfer.inferred_lost == 0)
      continue;
    for (const story::Silence& silence : transfer.silences) {
      if (silence.until - silence.from >= kSecond) rests.emplace_back(silence.from, silence.until);
    }
  }
  std::sort(rests.begin(), rests.end());
  Nanoseconds rested = 0, until = 0;
  for (const auto& rest : rests) {
    rested += std::max<Nanoseconds>(rest.second - std::max(rest.first, until), 0);
    until = std::max(until, rest.second);
  }
  return rested == 0 ? "" : ", and reads waited " + seconds(rested) + " for them";
}

void find_inferred(Case* c) {
  std::uint64_t lost = 0;
  Numbers frames;
  for (const Transfer& transfer : c->reading.transfers) {
    if (transfer.inferred_lost == 0 || transfer.client == kStation) continue;
    lost += transfer.inferred_lost;
    frames.add(transfer.frames);
  }
  if (lost == 0) return;
  c->find("net.loss", c->reading.first,
          "at least " + frames::counted(lost, "frame") + " lost" + waited(c->reading), inferred(frames));
}

void find_cuts(Case* c) {
  for (const Step* cut : c->cuts) {
    const bool came_no_further = std::max(c->last_success, c->last_read) <= cut->from;
    c->find("net.cable-out", cut->from, cut_in_words(*c, *cut), seen({}, cut->lines), came_no_further);
  }
}

}  // namespace

void find_network(Case* c) {
  const Damage damage = damage_seen(*c);
  const auto tell = [c](std::string_view cause, std::uint64_t count, const std::string& what,
                        const Numbers& frames) {
    if (count > 0) c->find(cause, c->reading.first, frames::counted(count, "frame") + what, seen(frames));
  };
  tell("net.loss", damage.lost, " lost" + waited(c->reading), damage.lost_in);
  tell("net.duplicates", damage.duplicated, " came twice", damage.duplicated_in);
  tell("net.swaps", damage.swapped, " overtaken by the next one", damage.swapped_in);
  find_inferred(c);
  find_cuts(c);
}

}  // namespace explanation
