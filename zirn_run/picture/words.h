#ifndef PICTURE_WORDS_H
#define PICTURE_WORDS_H

#include <cstddef>
#include <string>
#include <vector>

#include "record/item.h"

namespace picture {

using record::Nanoseconds;

// Seconds with this many decimals, without a unit; never "-0".
std::string seconds(Nanoseconds time, int decimals);

// A number with this many decimals, with a point in every locale.
std::string decimal(double number, int decimals);

// "20 bytes", "3.2 KiB", "5.0 MiB".
std::string size_in_words(double bytes);

// Appends the words, after ", " where there are words already. Nothing, where there is nothing to say.
void add_words(std::string* text, const std::string& words);

// Lines of at most `width` pixels by `width_of`, broken at blanks where there are any. After `max_lines` the
// rest is "...".
std::vector<std::string> wrapped(const std::string& text, double width,
                                 double (*width_of)(const std::string&), std::size_t max_lines);

// Pixels of a line of labels (13 px, DejaVu Sans or narrower) and of the station's output (12 px, monospace),
// in UTF-8. Never less than what is drawn.
double label_width(const std::string& text);
double bold_label_width(const std::string& text);
double output_width(const std::string& text);

}  // namespace picture

#endif
