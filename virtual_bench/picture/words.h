#ifndef PICTURE_WORDS_H
#define PICTURE_WORDS_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "picture/event.h"

namespace picture {

// The bytes as ASCII text: every other byte as \xNN, and of what is very long the beginning and "...".
std::string printable(std::string_view bytes);

// The same in quotation marks; NUL as \0, line ends as \r and \n.
std::string quoted(std::string_view bytes);

// "1 block", "2 blocks".
std::string counted(std::size_t count, const std::string& thing);

// Seconds with this many decimals, without a unit; never "-0".
std::string seconds(Microseconds time, int decimals);

// A number with this many decimals, with a point in every locale.
std::string decimal(double number, int decimals);

// Lines of at most `width` pixels by `width_of`, broken at blanks where there are any. After `max_lines` the
// rest is "...".
std::vector<std::string> wrapped(const std::string& text, double width,
                                 double (*width_of)(const std::string&), std::size_t max_lines);

// Pixels of a line of labels (13 px, DejaVu Sans or narrower) and of the station's output (13 px, monospace).
// Never less than what is drawn.
double label_width(const std::string& text);
double bold_label_width(const std::string& text);
double output_width(const std::string& text);

}  // namespace picture

#endif
