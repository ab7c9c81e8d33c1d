#ifndef SCENARIO_WIRE_H
#define SCENARIO_WIRE_H

#include <cstdint>
#include <string>
#include <vector>

#include "scenario/writing.h"
#include "story/reading.h"

namespace scenario {

// Frames that went over a wire together, and what it did to them.
struct Passage {
  Nanoseconds from = 0;  // of what led to it
  std::uint64_t sent = 0;
  std::uint64_t lost = 0;  // of these
  std::uint64_t duplicated = 0;
  std::uint64_t swapped = 0;
};

// The reads and writes of the units; not what more than chance befell.
std::vector<Passage> passages_of(const std::vector<const story::Transfer*>& reads, const Writing& writing);

// One way; 0: it is a quick one, or too short to tell.
Nanoseconds delay_of(const story::Transfer& transfer, const Writing& writing);

// What the wire of a network does, as steps: which frames of transfers are lost where these are few, and a percentage of
// all frames where they are many.
class Wire {
 public:
  // name: "wire", "ppt wire". All in order.
  Wire(std::string name, const std::vector<const story::Transfer*>& transfers,
       const std::vector<Passage>& passages, const Writing& writing);

  // Before the beginning of what leads to the transfer, which is the last one so far; all are to be told.
  void write_before(Nanoseconds beginning, const story::Transfer& transfer, Script* script);
  bool is_damaged() const { return !now_.empty() && now_[0].find("delays") == std::string::npos; }
  // Whether each loss is said.
  bool is_exact() const { return is_exact_; }

 private:
  struct Damage {
    Nanoseconds from = 0;
    Nanoseconds until = 0;
    std::string step;
  };
  void add(const std::string& what, const std::vector<Passage>& passages, std::uint64_t Passage::*count);

  const std::string name_;
  const Writing& writing_;
  const bool is_exact_;
  std::vector<Damage> damages_;
  std::vector<std::string> now_;
};

// What the station asks the PPT server for verdicts, in their order.
std::vector<const story::Transfer*> queries_in(const story::Reading& reading);
// Of the network towards the PPT server; to be written before each verdict that was asked for.
Wire ppt_wire(const Writing& writing);
// Comments for what no step is for: what is lost there of a connection (unless its opening is told), or of a datagram, or
// is damaged before the first verdict; and, where a percentage is lost, which verdicts were.
void write_left_out_of_ppt_wire(bool is_exact, bool is_opening_told, Writing* writing);

}  // namespace scenario

#endif
