#ifndef REPORT_NUMBER_H
#define REPORT_NUMBER_H

#include <cstdio>
#include <string>

namespace report {

// "12.345", for programs.
inline std::string text_of(double number) {
  char text[40];
  std::snprintf(text, sizeof text, "%.3f", number);
  return text;
}

}  // namespace report

#endif
