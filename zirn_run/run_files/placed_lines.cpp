#include "run_files/placed_lines.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace run_files {

namespace {

constexpr std::string_view kRequest = "RRQ ";
constexpr std::string_view kVerdict = "Cmd received: ";

// The name that a request has on the wire of which the line speaks; empty: it speaks of none.
std::string_view requested_in(std::string_view line) {
  for (const std::string_view beginning : {kRequest, kVerdict}) {
    if (line.substr(0, beginning.size()) == beginning) return line.substr(beginning.size());
  }
  return {};
}

// Where times would run backwards it is not known which of the lines is wrong: none keeps its time.
void forget_unless_in_order(std::vector<PlacedLine>* lines) {
  record::Nanoseconds before = 0;
  bool are_in_order = true;
  for (const PlacedLine& line : *lines) {
    if (line.at == 0) continue;
    are_in_order = are_in_order && before <= line.at;
    before = line.at;
  }
  if (are_in_order) return;
  for (PlacedLine& line : *lines) line.at = 0;
}

}  // namespace

void UntimedLines::add(std::uint64_t number, std::string_view text) {
  if (lines.size() < story::UntimedLine::kMost) {
    lines.push_back({0, number, std::string(text.substr(0, story::kMaxText))});
  } else {
    ++left_out;
  }
}

LinePlacer::LinePlacer(const story::Reading& reading) {
  for (const story::Transfer& transfer : reading.transfers) {
    if (transfer.kind != story::Transfer::Kind::kRead || transfer.server != story::kStation) continue;
    Requests& same = requests_[transfer.name];
    same.at.push_back(transfer.from);
    same.are_single = same.are_single && transfer.requests == 1;
  }
}

void LinePlacer::add(const std::string& line) {
  ++number_;
  const std::string_view name = requested_in(line);
  const auto found = name.empty() ? requests_.end() : requests_.find(name);
  if (found == requests_.end() || !found->second.are_single) return untimed_.add(number_, line);
  Requests& same = found->second;
  if (++same.spoken_of <= same.at.size()) {
    same.lines.push_back({0, number_, line});
  } else {
    give_up(&same, &untimed_);
    untimed_.add(number_, line);
  }
}

// The lines that are held already come before any that is left out.
void LinePlacer::give_up(Requests* same, UntimedLines* untimed) {
  std::move(same->lines.begin(), same->lines.end(), std::back_inserter(untimed->lines));
  same->lines.clear();
}

std::vector<PlacedLine> LinePlacer::placed() {
  for (auto& [name, same] : requests_) {
    const bool is_certain = same.spoken_of == same.at.size();
    for (std::size_t i = 0; is_certain && i < same.lines.size(); ++i) same.lines[i].at = same.at[i];
    give_up(&same, &untimed_);
  }
  std::vector<PlacedLine> lines = std::move(untimed_.lines);
  std::sort(lines.begin(), lines.end(),
            [](const PlacedLine& one, const PlacedLine& other) { return one.number < other.number; });
  forget_unless_in_order(&lines);
  return lines;
}

}  // namespace run_files
