#ifndef PICTURE_LANES_H
#define PICTURE_LANES_H

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "picture/row.h"
#include "story/reading.h"

namespace picture {

// Where everybody stands. From left to right: the time; the units; the station; the PPT server.
//
// Every arrow has the station at one end, so that the station stands in the middle and no arrow crosses a lane but
// those of further units: a unit is the nearer to the station, the earlier it came, since mostly there is one. The
// board has no lane: it is the station's own machine, and what the station prints and runs on it stands beside the
// station, where only the few arrows to the PPT server pass.
//
// The first kMaxUnits units have a lane each, all others, and strangers, one together: there the address stands at
// the arrow. Only who is in the rows has a lane.
class Lanes {
 public:
  static constexpr std::size_t kMaxUnits = 3;

  struct Head {
    double x = 0;
    std::string name;
    std::string address;
  };

  Lanes(const story::Reading& reading, const std::vector<Row>& rows);

  double x(std::size_t party) const;  // pixels
  // Where its arrow ends: at the farthest unit, for one to everyone.
  double target_x(const Row& row) const;
  double axis() const { return 76; }
  double outermost() const;  // of the units
  double innermost() const;
  double station() const { return innermost() + 430; }
  double ppt_server() const { return station() + 440; }
  double width() const { return ppt_server() + 66; }
  const std::vector<Head>& heads() const { return heads_; }
  // ", 172.40.0.7" for who shares a lane, else nothing.
  std::string address_of(std::size_t party) const;

 private:
  const story::Reading& reading_;
  std::map<std::size_t, std::size_t> places_;  // of units, from the station outward
  std::size_t unit_lanes_ = 1;
  bool has_others_ = false;
  std::vector<Head> heads_;
};

}  // namespace picture

#endif
