#ifndef REPORT_OVERVIEW_H
#define REPORT_OVERVIEW_H

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "database/rows.h"
#include "report/figures.h"

namespace report {

// A run in the table of the first page.
struct TableRun {
  database::Run run;
  bool has_page = false;  // runs/CONTENT.html
};

struct NotRead {
  std::string host;
  std::string path;
  std::string reason;
};

struct Overview {
  Figures figures;
  std::vector<TableRun> table;      // the newest runs, the newest first
  std::vector<NotRead> unreadable;  // the first kMostUnreadable
  std::uint64_t unreadable_count = 0;

  static constexpr std::size_t kMostRuns = 20000;
  static constexpr std::size_t kMostUnreadable = 100;
};

// The first page of a report.
std::string html_of(const Overview& overview);

}  // namespace report

#endif
