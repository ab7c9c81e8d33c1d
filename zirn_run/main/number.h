#ifndef MAIN_NUMBER_H
#define MAIN_NUMBER_H

#include <CLI/CLI.hpp>
#include <limits>
#include <sstream>
#include <string>

// A check of an option: a number between these, both included. "nan", which CLI::Range takes for one, is none.
inline auto number_in(double least, double most) {
  return [=](const std::string& text) -> std::string {
    double number = 0;
    if (CLI::detail::lexical_cast(text, number) && number >= least && number <= most) return "";
    std::ostringstream wrong;
    wrong.precision(std::numeric_limits<double>::digits10);
    wrong << "expected a number from " << least << " to " << most << ", found " << text;
    return wrong.str();
  };
}

#endif
