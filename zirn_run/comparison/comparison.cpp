#include "comparison/comparison.h"

#include <algorithm>
#include <map>
#include <string_view>

#include "comparison/strands.h"

namespace comparison {

namespace {

using story::Reading;

struct Found {
  Nanoseconds at = 0;  // in the first run
  Difference difference;
};

using Item = Strand::Item;

bool is_same(const Item& one, const Item& other) {
  const std::size_t certain = std::min(one.certain, other.certain);
  return one.words.compare(0, certain, other.words, 0, certain) == 0;
}

const Item* item_at(const Strand& strand, std::size_t place) {
  return place < strand.items.size() ? &strand.items[place] : nullptr;
}

// What stands at one place in two strands; one of them may have nothing there.
struct Pair {
  const Item* first = nullptr;
  const Item* other = nullptr;
};

std::optional<Event> event_of(const Item* item) {
  return item == nullptr ? std::nullopt : std::optional(item->event);
}

std::size_t step_of(const Item* item, const Item* common, const Reading& reading) {
  if (item == nullptr) return common == nullptr ? story::kNone : common->event.step;
  return item->event.step == story::kNone && !reading.order.empty() ? reading.order.back() : item->event.step;
}

// What holds two strands against each other.
class Comparing {
 public:
  Comparing(const Reading& first, const Reading& other) : first_(first), other_(other) {}

  std::optional<Found> in_order(const Strand& one, const Strand& other) const {
    std::size_t place = 0;
    Pair common;
    for (; place < std::min(one.items.size(), other.items.size()); ++place) {
      if (!is_same(one.items[place], other.items[place])) break;
      common = {&one.items[place], &other.items[place]};
    }
    if (place == one.items.size() && place == other.items.size()) return std::nullopt;
    return found({item_at(one, place), item_at(other, place)}, common);
  }

  std::optional<Found> in_any_order(const Strand& one, const Strand& other) const {
    const Places its = places_in(one), others = places_in(other);
    Pair common;
    for (const auto& item : one.items) {
      const auto same = others.find(item.words);
      if (same == others.end()) return found({&item, nullptr}, common);
      common = {&item, same->second};
    }
    common = {};
    for (const auto& item : other.items) {
      const auto same = its.find(item.words);
      if (same == its.end()) return found({nullptr, &item}, common);
      common = {same->second, &item};
    }
    return std::nullopt;
  }

 private:
  using Places = std::map<std::string_view, const Item*>;

  static Places places_in(const Strand& strand) {
    Places places;
    for (const Item& item : strand.items) places.emplace(item.words, &item);
    return places;
  }

  // What the first one has is at its own time, what the other has alone at that of the last common thing.
  Found found(const Pair& pair, const Pair& common) const {
    const Item* const timed = pair.first != nullptr ? pair.first : common.first;
    return {timed == nullptr ? first_.first : timed->event.at,
            {event_of(pair.first), event_of(pair.other), step_of(pair.first, common.first, first_),
             step_of(pair.other, common.other, other_)}};
  }

  const Reading& first_;
  const Reading& other_;
};

Known known_of_both(const Reading& first, const Reading& other) {
  Known known = known_of(first);
  const Known too = known_of(other);
  for (bool Known::*const what :
       {&Known::networks, &Known::ppt_network, &Known::lines, &Known::board, &Known::end})
    known.*what = known.*what && too.*what;
  return known;
}

std::string numbers(const Numbers& numbers, const std::string& thing) {
  if (numbers.count == 0) return "";
  if (numbers.first == numbers.last) return thing + " " + std::to_string(numbers.first);
  return thing + "s " + std::to_string(numbers.first) + " to " + std::to_string(numbers.last);
}

}  // namespace

std::optional<Difference> first_difference(const Reading& first, const Reading& other) {
  const Known known = known_of_both(first, other);
  auto strands = strands_of(first, known);
  auto others = strands_of(other, known);
  for (const auto& [name, strand] : others) strands[name].is_ordered = strand.is_ordered;
  const Comparing comparing(first, other);
  std::optional<Found> earliest;
  for (const auto& [name, strand] : strands) {
    const Strand& its = others[name];
    const auto found =
        strand.is_ordered ? comparing.in_order(strand, its) : comparing.in_any_order(strand, its);
    if (found && (!earliest || found->at < earliest->at)) earliest = found;
  }
  if (!earliest) return std::nullopt;
  return earliest->difference;
}

std::string in_words(const std::optional<Event>& event) {
  if (!event) return "nothing";
  std::string evidence = numbers(event->frames, "frame");
  const std::string lines = numbers(event->lines, "line");
  if (!evidence.empty() && !lines.empty()) evidence += ", ";
  evidence += lines;
  return event->sentence + (evidence.empty() ? "" : " (" + evidence + ")");
}

}  // namespace comparison
