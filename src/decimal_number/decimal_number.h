#ifndef DECIMAL_NUMBER_DECIMAL_NUMBER_H
#define DECIMAL_NUMBER_DECIMAL_NUMBER_H

#include <cstdint>
#include <cstdlib>

// The decimal number that a text begins with, as strtol reads it: blanks and a sign may stand before it, and
// without a digit it is 0. Of a number beyond 32 bits the low 32 bits count, also on a board whose long has
// no more, and beyond 64 bits those of the largest or smallest number that there is: a text means the same on
// every board.
inline std::int32_t decimal_number(const char* text) {
  return static_cast<std::int32_t>(std::strtoll(text, nullptr, 10));
}

#endif
