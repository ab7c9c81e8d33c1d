#ifndef REPORT_PLOT_H
#define REPORT_PLOT_H

#include <string>
#include <vector>

#include "report/figures.h"

namespace report {

// The first-pass yield over time, above how many runs there were: a drawing, and the same as a table.
std::string yield_plot(const std::vector<Period>& periods, std::int64_t seconds_of_a_period);

// "2026-11-22", or "2026-11-22 14:30" where days are divided. UTC.
std::string moment_in_words(std::int64_t seconds, bool with_time_of_day);

}  // namespace report

#endif
