#include "picture/rows.h"

#include <algorithm>
#include <string>

#include "picture/words.h"

namespace picture {

namespace {

constexpr Microseconds kLongestRest = 2000000;
constexpr std::size_t kMaxPartsOfBundle = 6;
constexpr std::size_t kMaxRows = 400;

bool is_bundle(const Event& event) {
  return event.kind == Event::Kind::kBundle;
}

bool begins_earlier(const Event& one, const Event& other) {
  return one.from < other.from;
}

// When a bundle has to make room.
std::vector<Microseconds> breaks_in(const std::vector<Event>& story) {
  std::vector<Microseconds> breaks;
  for (const Event& event : story) {
    if (!is_bundle(event)) breaks.push_back(event.from);
    if (event.kind == Event::Kind::kCut) breaks.push_back(event.until);
  }
  std::sort(breaks.begin(), breaks.end());
  return breaks;
}

bool has_break_between(const std::vector<Microseconds>& breaks, Microseconds from, Microseconds until) {
  const auto next = std::lower_bound(breaks.begin(), breaks.end(), from);
  return until - from > kLongestRest || (next != breaks.end() && *next < until);
}

void add_parts(const Event& whole, const std::vector<Microseconds>& breaks, std::vector<Event>* rows) {
  const std::vector<BundlePacket>& packets = whole.bundle->packets;
  std::size_t parts = 1;
  Event part = whole;
  for (std::size_t i = whole.first + 1; i < whole.last && parts < kMaxPartsOfBundle; ++i) {
    if (!has_break_between(breaks, packets[i - 1].at, packets[i].at)) continue;
    part.last = i;
    part.until = packets[i - 1].at;
    rows->push_back(part);
    part.first = i;
    part.from = packets[i].at;
    parts += 1;
  }
  part.last = whole.last;
  part.until = whole.until;
  rows->push_back(part);
}

// Whether something that is drawn only once, folded, may have gone on in that time.
bool something_goes_on(const std::vector<Event>& rows, Microseconds from, Microseconds until) {
  return std::any_of(rows.begin(), rows.end(), [from, until](const Event& row) {
    return row.times > 1 && row.from < until && row.until > from;
  });
}

Event pause_of(const std::vector<Event>& rows, Microseconds from, Microseconds until) {
  return event_of(
      Event::Kind::kPause, from, until,
      seconds(until - from, 1) + " s nothing" + (something_goes_on(rows, from, until) ? " else" : ""));
}

std::vector<Event> with_pauses(const std::vector<Event>& rows) {
  std::vector<Event> result;
  Microseconds busy_until = rows.empty() ? 0 : rows.front().from;
  for (const Event& row : rows) {
    if (row.from - busy_until > kLongestRest) result.push_back(pause_of(rows, busy_until, row.from));
    busy_until = std::max(busy_until, is_bundle(row) ? row.until : row.from);
    result.push_back(row);
  }
  return result;
}

}  // namespace

std::vector<Event> rows_of(const std::vector<Event>& story, std::optional<Microseconds> end) {
  std::vector<Event> rows;
  const std::vector<Microseconds> breaks = breaks_in(story);
  for (const Event& event : story) {
    if (is_bundle(event)) {
      add_parts(event, breaks, &rows);
    } else {
      rows.push_back(event);
    }
  }
  std::stable_sort(rows.begin(), rows.end(), begins_earlier);
  if (rows.size() > kMaxRows) {
    const std::string text = counted(rows.size() - kMaxRows, "further row") + " left out";
    rows.resize(kMaxRows);
    rows.push_back(event_of(Event::Kind::kEnd, rows.back().from, rows.back().from, text));
  } else if (end) {
    rows.push_back(event_of(Event::Kind::kEnd, *end, *end, "end of the run"));
    std::stable_sort(rows.begin(), rows.end(), begins_earlier);
  }
  return with_pauses(rows);
}

}  // namespace picture
