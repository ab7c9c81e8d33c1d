#ifndef EXPLANATION_TEXT_H
#define EXPLANATION_TEXT_H

#include <string>

#include "explanation/explanation.h"

namespace explanation {

// "passed", "failed" or "none".
std::string_view name_of(Outcome outcome);

// "2026-11-22T03:12:40.123Z"
std::string in_utc(Nanoseconds at);

// The explanation for people: a line about the run, one about the fault, then what shows it, what to do, and all else
// that is known, each in a line that is indented. Times of day are local. `name`: where the record has none.
std::string text_of(const Explanation& explanation, const std::string& name);

// The table of causes for people.
std::string text_of_causes();

}  // namespace explanation

#endif
