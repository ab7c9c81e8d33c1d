#ifndef SCENARIO_WIRE_H
#define SCENARIO_WIRE_H

#include <string>
#include <vector>

#include "scenario/writing.h"
#include "story/reading.h"

namespace scenario {

// The losses as steps of the bench, before then. wire: which: "wire", "ppt wire".
void write_losses(const story::Transfer& transfer, const std::string& wire, Nanoseconds before,
                  const Writing& writing, Script* script);

// Whether the losses of all these are few enough to be said one by one; there may be none.
bool are_few(const std::vector<const story::Transfer*>& transfers, const Writing& writing);

// What the test network does, as steps: which frames of reads are lost where these are few, and a percentage of all frames
// where they are many.
class Wire {
 public:
  // The reads and writes of the unit, in order.
  Wire(const std::vector<const story::Transfer*>& reads, const Writing& writing);

  // Before the read begins, which is the last one so far; all are to be told.
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
  const bool is_exact_;
  std::vector<Damage> damages_;
  std::vector<std::string> now_;
};

}  // namespace scenario

#endif
