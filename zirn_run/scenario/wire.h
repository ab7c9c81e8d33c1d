#ifndef SCENARIO_WIRE_H
#define SCENARIO_WIRE_H

#include <string>
#include <vector>

#include "scenario/writing.h"
#include "story/reading.h"

namespace scenario {

// What the wire does, as steps.
class Wire {
 public:
  // The reads and writes of the unit, in order.
  Wire(const std::vector<const story::Transfer*>& reads, const Writing& writing);

  // Before the read begins, which is the last one so far.
  void write_before(const story::Transfer& read, Script* script);
  bool is_damaged() const { return !now_.empty() && now_[0].find("delays") == std::string::npos; }

 private:
  struct Damage {
    Nanoseconds from = 0;
    Nanoseconds until = 0;
    double percent = 0;
    std::string step;
  };

  template <typename Count>
  Damage damage(const std::vector<const story::Transfer*>& reads, Count count) const;
  void add(const std::string& what, Damage damage);
  bool is_disturbed(const story::Transfer& one) const;
  Nanoseconds delay_of(const story::Transfer& read) const;

  const Writing& writing_;
  std::vector<Damage> damages_;
  std::vector<std::string> now_;
};

}  // namespace scenario

#endif
