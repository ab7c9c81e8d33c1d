#ifndef RUN_FILES_PLACED_LINES_H
#define RUN_FILES_PLACED_LINES_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "record/item.h"
#include "story/reading.h"

namespace run_files {

// A line of a log; without a time (0) where that is not certain.
struct PlacedLine {
  record::Nanoseconds at = 0;
  std::uint64_t number = 0;
  std::string text;
};

// Lines without a time, cut to story::kMaxText. Those beyond story::UntimedLine::kMost are counted alone.
struct UntimedLines {
  std::vector<PlacedLine> lines;
  std::uint64_t left_out = 0;

  void add(std::uint64_t number, std::string_view text);
};

// Gives the lines of a log the times of what they speak of. A line that says which file is asked for, or which verdict
// was given, has the time of that request where there are as many such requests on the wire as such lines, none of them
// was sent again, and no two lines would change places. No other line has a time. However long the log is, no more of
// it is held than a line for each request of the reading, and UntimedLines.
class LinePlacer {
 public:
  // The reading must outlive it.
  explicit LinePlacer(const story::Reading& reading);
  // The log's next line.
  void add(const std::string& line);
  // In their order; to be called once, when all were added.
  std::vector<PlacedLine> placed();
  // Lines without a time that are not among these.
  std::uint64_t left_out() const { return untimed_.left_out; }

 private:
  struct Requests {
    std::vector<record::Nanoseconds> at;
    bool are_single = true;  // none was sent again
    std::uint64_t spoken_of = 0;
    std::vector<PlacedLine> lines;  // that may be about them
  };

  static void give_up(Requests* same, UntimedLines* untimed);

  std::map<std::string_view, Requests> requests_;  // by name
  UntimedLines untimed_;
  std::uint64_t number_ = 0;
};

}  // namespace run_files

#endif
