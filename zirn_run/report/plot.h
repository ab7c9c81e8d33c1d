#ifndef REPORT_PLOT_H
#define REPORT_PLOT_H

#include <string>
#include <vector>

#include "report/figures.h"

namespace report {

// The first-pass yield over time, above how many runs there were: a drawing, and the same as a table. `length`: of a
// period, in seconds.
std::string yield_plot(const std::vector<Period>& periods, std::int64_t length);

// When a period of such a length begins, in UTC: "2026-11-22", or with the time of day where days are divided.
std::string moment_in_words(std::int64_t seconds, std::int64_t length);

}  // namespace report

#endif
