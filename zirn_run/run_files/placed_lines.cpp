#include "run_files/placed_lines.h"

#include <algorithm>
#include <cstddef>
#include <map>
#include <string_view>

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

struct Requests {
  std::vector<record::Nanoseconds> at;
  bool are_single = true;  // none was sent again
};

std::map<std::string_view, Requests> requests_in(const story::Reading& reading) {
  std::map<std::string_view, Requests> requests;
  for (const story::Transfer& transfer : reading.transfers) {
    if (transfer.kind != story::Transfer::Kind::kRead || transfer.server != story::kStation) continue;
    Requests& same = requests[transfer.name];
    same.at.push_back(transfer.from);
    same.are_single = same.are_single && transfer.requests == 1;
  }
  return requests;
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

std::vector<PlacedLine> placed(const std::vector<std::string>& lines, const story::Reading& reading) {
  std::map<std::string_view, Requests> requests = requests_in(reading);
  std::map<std::string_view, std::size_t> spoken_of;
  for (const std::string& line : lines) ++spoken_of[requested_in(line)];
  std::map<std::string_view, std::size_t> placed_of;
  std::vector<PlacedLine> placed_lines;
  for (const std::string& line : lines) {
    const std::string_view name = requested_in(line);
    const Requests& same = requests[name];
    const bool is_certain = !name.empty() && same.are_single && same.at.size() == spoken_of[name];
    placed_lines.push_back({is_certain ? same.at[placed_of[name]++] : 0, line});
  }
  forget_unless_in_order(&placed_lines);
  return placed_lines;
}

}  // namespace run_files
