#ifndef TERMINAL_PLAIN_LINES_H
#define TERMINAL_PLAIN_LINES_H

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <vector>

#include "story/reading.h"
#include "terminal/judgement.h"

namespace terminal {

// The run for who has no terminal: a line for each step when it is there, and again with its count when it comes again;
// for a file when it is read to its end, or is not; for whose fault it is when that changes. Each is written at once.
class PlainLines {
 public:
  // Both must outlive it.
  PlainLines(const story::Reading& reading, std::ostream& out) : reading_(reading), out_(out) {}

  // To be called after each item.
  void look();
  void tell(const Judgement& judgement);
  // The last lines: how the run came out.
  void finish(const Judgement& judgement);
  // errno of what kept a line from being written, after which there are none; 0: nothing.
  int error() const { return error_; }

 private:
  void look_at_step(std::size_t place);
  void look_at_transfers();
  void print(const std::string& time, const std::string& text);

  const story::Reading& reading_;
  std::ostream& out_;
  std::vector<std::uint64_t> counts_;  // of the steps, as they were told
  std::vector<std::size_t> open_;      // transfers
  std::size_t transfers_ = 0;
  std::size_t gaps_ = 0;
  std::uint64_t revision_ = 0;
  std::string fault_;
  int error_ = 0;
};

}  // namespace terminal

#endif
