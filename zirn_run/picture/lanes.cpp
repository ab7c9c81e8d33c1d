#include "picture/lanes.h"

#include <algorithm>

namespace picture {

namespace {

constexpr double kFirstX = 134;
constexpr double kDistance = 110;

std::string first_address(const story::Party& party) {
  return party.addresses.empty() ? "" : frames::dotted(party.addresses.front());
}

}  // namespace

Lanes::Lanes(const story::Reading& reading, const std::vector<Row>& rows) : reading_(reading) {
  for (const Row& row : rows) {
    if (row.kind == Row::Kind::kUnit) continue;  // it says whose it is
    for (const std::size_t party : {row.source, row.target}) {
      if (party == kNone) continue;
      const story::Role role = reading.parties[party].role;
      if (role == story::Role::kUnit && places_.size() < kMaxUnits) places_.emplace(party, places_.size());
      has_others_ |= role == story::Role::kOther || (role == story::Role::kUnit && places_.count(party) == 0);
    }
  }
  unit_lanes_ = std::max<std::size_t>(places_.size() + (has_others_ ? 1 : 0), 1);
  if (has_others_) heads_.push_back({outermost(), "others", ""});
  for (const auto& [party, place] : places_)
    heads_.push_back({x(party), "unit", first_address(reading.parties[party])});
  if (places_.empty() && !has_others_) {
    const auto is_unit = [](const story::Party& party) { return party.role == story::Role::kUnit; };
    const bool has_units = std::any_of(reading.parties.begin(), reading.parties.end(), is_unit);
    heads_.push_back({outermost(), has_units ? "units" : "unit", has_units ? "" : "none seen"});
  }
  std::sort(heads_.begin(), heads_.end(), [](const Head& one, const Head& other) { return one.x < other.x; });
  heads_.push_back({station(), "station", first_address(reading.parties[story::kStation])});
  const auto server =
      std::find_if(reading.parties.begin(), reading.parties.end(),
                   [](const story::Party& party) { return party.role == story::Role::kPptServer; });
  heads_.push_back(
      {ppt_server(), "PPT server", server == reading.parties.end() ? "" : first_address(*server)});
}

double Lanes::outermost() const {
  return kFirstX;
}

double Lanes::innermost() const {
  return kFirstX + static_cast<double>(unit_lanes_ - 1) * kDistance;
}

double Lanes::x(std::size_t party) const {
  const story::Role role = party == kNone ? story::Role::kStation : reading_.parties[party].role;
  if (role == story::Role::kStation || role == story::Role::kBoard) return station();
  if (role == story::Role::kPptServer) return ppt_server();
  const auto found = places_.find(party);
  return found == places_.end() ? outermost() : innermost() - static_cast<double>(found->second) * kDistance;
}

double Lanes::target_x(const Row& row) const {
  if (row.target != story::kEveryone) return x(row.target);
  return x(row.source) > outermost() ? outermost() : station();
}

std::string Lanes::address_of(std::size_t party) const {
  if (party == kNone || places_.count(party) > 0) return "";
  const story::Role role = reading_.parties[party].role;
  if (role != story::Role::kUnit && role != story::Role::kOther) return "";
  const std::string address = first_address(reading_.parties[party]);
  return address.empty() ? "" : ", " + address;
}

}  // namespace picture
