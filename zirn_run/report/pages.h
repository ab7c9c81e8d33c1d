#ifndef REPORT_PAGES_H
#define REPORT_PAGES_H

#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>

namespace soci {
class session;
}

namespace report {

// A sentence that begins with a name.
struct NotWritten : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct Pages {
  std::string folder;      // made where it is missing
  bool is_of_all = false;  // of every run in the table, else of those that did not pass
  // Called now and then with what is being done: "reading: 1000 runs".
  std::function<void(const std::string&)> on_progress;
};

// Writes the report for people, within database::Database::read: index.html, a page per run below runs/, and what they
// need. Each file is written beside and renamed, the first page last; pages of runs that are no longer in its table go.
// The same runs give the same bytes. Returns how many pages of runs there are.
//
// Throws NotWritten where the folder holds another index.html or cannot be written.
std::uint64_t write_pages(soci::session& session, const Pages& wanted);

}  // namespace report

#endif
