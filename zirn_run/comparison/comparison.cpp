#include "comparison/comparison.h"

#include <algorithm>
#include <set>

#include "comparison/strands.h"

namespace comparison {

namespace {

using story::Reading;

struct Found {
  Nanoseconds at = 0;  // in the first run
  Difference difference;
};

std::optional<Event> event_at(const Strand& strand, std::size_t place) {
  if (place >= strand.items.size()) return std::nullopt;
  return strand.items[place].event;
}

// What the first one has alone is at its own time, what the other has alone at that of the last common thing.
std::optional<Found> in_order(const Strand& one, const Strand& other, Nanoseconds begin) {
  std::size_t place = 0;
  Nanoseconds common = begin;
  for (; place < std::min(one.items.size(), other.items.size()); ++place) {
    if (one.items[place].words != other.items[place].words) break;
    common = one.items[place].event.at;
  }
  if (place == one.items.size() && place == other.items.size()) return std::nullopt;
  const std::optional<Event> event = event_at(one, place);
  return Found{event ? event->at : common, {event, event_at(other, place)}};
}

std::set<std::string> words_of(const Strand& strand) {
  std::set<std::string> words;
  for (const Strand::Item& item : strand.items) words.insert(item.words);
  return words;
}

const Strand::Item* first_beyond(const std::set<std::string>& words, const Strand& strand) {
  const auto item = std::find_if(strand.items.begin(), strand.items.end(),
                                 [&words](const Strand::Item& one) { return words.count(one.words) == 0; });
  return item == strand.items.end() ? nullptr : &*item;
}

std::optional<Found> in_any_order(const Strand& one, const Strand& other, Nanoseconds begin) {
  const std::set<std::string> words = words_of(one);
  if (const Strand::Item* const alone = first_beyond(words_of(other), one))
    return Found{alone->event.at, {alone->event, std::nullopt}};
  const Strand::Item* const more = first_beyond(words, other);
  if (more == nullptr) return std::nullopt;
  Nanoseconds common = begin;
  for (const Strand::Item& item : other.items) {
    if (&item == more) break;
    const auto same = std::find_if(one.items.begin(), one.items.end(),
                                   [&item](const Strand::Item& mine) { return mine.words == item.words; });
    common = same->event.at;
  }
  return Found{common, {std::nullopt, more->event}};
}

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
  std::optional<Found> earliest;
  for (const auto& [name, strand] : strands) {
    const Strand& its = others[name];
    const auto found =
        strand.is_ordered ? in_order(strand, its, first.first) : in_any_order(strand, its, first.first);
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
