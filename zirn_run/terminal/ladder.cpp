#include "terminal/ladder.h"

#include <algorithm>

namespace terminal {

namespace {

using story::kNone;
using story::Role;

constexpr std::size_t kBoardLane = 0;
constexpr std::size_t kStationLane = 1;
constexpr std::size_t kFirstUnitLane = 2;
constexpr std::size_t kLeastSpacing = 7;  // columns from lane to lane
constexpr std::size_t kMostSpacing = 12;
constexpr std::size_t kOtherLanes = 4;  // board, station, others, PPT server
constexpr std::size_t kGap = 3;         // columns, from the last lane to the words
constexpr std::size_t kBarCells = 8;

constexpr char kLaneLine[] = "│";
constexpr char kArrowLine[] = "─";
constexpr char kBulkLine[] = "═";
constexpr char kCrossing[] = "┼";
constexpr char kOwn[] = "●";

std::string bar(double fraction) {
  std::string text;
  const auto full = static_cast<std::size_t>(fraction * static_cast<double>(kBarCells));
  for (std::size_t i = 0; i < kBarCells; ++i) text += i < full ? "█" : "░";
  const std::string number = std::to_string(static_cast<int>(fraction * 100));
  return text + std::string(4 - std::min<std::size_t>(number.size(), 4), ' ') + number + " % ";
}

void add(const std::string& text, Style style, Line* line) {
  if (!line->spans.empty() && line->spans.back().style == style) {
    line->spans.back().text += text;
  } else {
    line->spans.push_back({text, style});
  }
}

}  // namespace

Ladder::Ladder(const story::Reading& reading, std::size_t columns) : reading_(reading), columns_(columns) {
  if (is_narrow()) return;
  const std::size_t room = columns / 2 - kTimeColumns;  // the other half is for the words
  const std::size_t most_units = std::max(room / kLeastSpacing, kOtherLanes + 1) - kOtherLanes;
  for (std::size_t i = 0; i < reading.parties.size(); ++i) {
    const Role role = reading.parties[i].role;
    const bool has_lane = role == Role::kUnit && units_.size() < most_units;
    if (has_lane) units_.push_back(i);
    has_others_ = has_others_ || (!has_lane && (role == Role::kOther || role == Role::kUnit));
  }
  add_lane("board");
  add_lane("station");
  for (const std::size_t unit : units_) {
    const std::string address = short_name(reading, unit);
    add_lane(units_.size() == 1 ? "unit" : address.substr(std::min(address.rfind('.'), address.size())));
  }
  if (units_.empty()) add_lane("unit");
  if (has_others_) add_lane("others");
  add_lane("PPT");
  spacing_ = std::clamp(room / lanes_.size(), kLeastSpacing, kMostSpacing);
  for (std::size_t i = 0; i < lanes_.size(); ++i) lanes_[i].column = i * spacing_ + spacing_ / 2;
}

Line Ladder::heads() const {
  if (is_narrow()) return {{{"     time", Style::kHeading}}};
  std::string text = "     time";
  for (const Lane& lane : lanes_) {
    const std::size_t middle = kTimeColumns + lane.column;
    const std::string name = cut(lane.name, spacing_);
    text = filled(text, std::max(middle - name.size() / 2, text.size()));
    text += name;
  }
  return {{{cut(text, columns_), Style::kHeading}}};
}

std::size_t Ladder::ladder_columns() const {
  return lanes_.empty() ? 0 : lanes_.back().column + kGap;
}

// kNone: it is nobody's.
std::size_t Ladder::lane_of(std::size_t party) const {
  if (party == kNone) return kNone;
  const auto unit = std::find(units_.begin(), units_.end(), party);
  if (unit != units_.end()) return kFirstUnitLane + static_cast<std::size_t>(unit - units_.begin());
  switch (reading_.parties[party].role) {
    case Role::kStation:
      return kStationLane;
    case Role::kBoard:
      return kBoardLane;
    case Role::kPptServer:
      return lanes_.size() - 1;
    case Role::kEveryone:
      return kFirstUnitLane + std::max<std::size_t>(units_.size(), 1) - 1;
    case Role::kUnit:
    case Role::kOther:
      break;
  }
  return has_others_ ? lanes_.size() - 2 : kFirstUnitLane;
}

void Ladder::add_arrow(const Told& told, Line* line) const {
  const std::size_t from = lane_of(told.source);
  const std::size_t to = lane_of(told.target);
  const bool is_arrow = from != kNone && to != kNone && from != to;
  const std::size_t begin = is_arrow ? lanes_[std::min(from, to)].column : columns_;
  const std::size_t end = is_arrow ? lanes_[std::max(from, to)].column : 0;
  std::size_t lane = 0;
  for (std::size_t column = 0; column < ladder_columns(); ++column) {
    const bool is_lane = lane < lanes_.size() && lanes_[lane].column == column;
    const bool is_inside = column > begin && column < end;
    if (is_lane && !is_arrow && lane == from) {
      add(kOwn, told.style, line);
    } else if (is_lane && !is_inside) {
      add(kLaneLine, Style::kFaint, line);
    } else if (!is_inside) {
      add(" ", Style::kFaint, line);
    } else if (to > from ? column + 1 == end : column == begin + 1) {
      add(to > from ? ">" : "<", told.style, line);
    } else {
      add(is_lane ? kCrossing : told.is_bulk ? kBulkLine : kArrowLine, told.style, line);
    }
    if (is_lane) ++lane;
  }
}

Line Ladder::line_of(const Told& told) const {
  Line line;
  line.spans.push_back({time_in_words(reading_, told.at), Style::kFaint});
  std::string words;
  if (is_narrow()) {
    const std::string name = who(reading_, told);
    words = " " + name + (name.empty() ? "" : ": ");
  } else {
    add_arrow(told, &line);
    const bool is_unknown = has_others_ && (lane_of(told.source) == lanes_.size() - 2 ||
                                            lane_of(told.target) == lanes_.size() - 2);
    if (is_unknown) words = who(reading_, told) + ": ";
  }
  if (told.fraction) words += bar(*told.fraction);
  words += told.text;
  const std::size_t taken = kTimeColumns + ladder_columns();
  line.spans.push_back({cut(words, columns_ - std::min(columns_, taken)), told.style});
  return line;
}

Line Ladder::line_below(const std::string& text) const {
  return {{{cut("    " + text, columns_), Style::kFaint}}};
}

}  // namespace terminal
