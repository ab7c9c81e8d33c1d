#ifndef EXPLANATION_PRINTED_LINES_H
#define EXPLANATION_PRINTED_LINES_H

#include <string_view>
#include <vector>

namespace explanation {

// A line that the station can print, as docs/operations.md has it: <NAME> stands for any text.
struct PrintedLine {
  enum class Says {
    kCause,     // `cause`
    kEvidence,  // what a cause is found by, with other things
    kHarmless,
  };
  std::string_view text;
  Says says;
  std::string_view cause;  // an id
  std::string_view value;  // that the last <...> begins with; empty: any. The first line that fits counts
};

const std::vector<PrintedLine>& printed_lines();

// What a line is; none of these for one that the station does not print.
const PrintedLine* printed_line(std::string_view line);

// The texts in the place of <...>.
std::vector<std::string_view> values_in(const PrintedLine& printed, std::string_view line);

}  // namespace explanation

#endif
