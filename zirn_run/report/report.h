#ifndef REPORT_REPORT_H
#define REPORT_REPORT_H

#include <ostream>

namespace soci {
class session;
}

// What other programs read of a database of runs, within database::Database::read.
namespace report {

// RFC 4180: a header, then a line per run. A text that a spreadsheet would take for a formula has an apostrophe before
// it.
void write_csv(soci::session& session, std::ostream& out);

// A test case per run, of the class of its station: a failed run is a failure, one without a verdict an error, and so is
// a file that cannot be read.
void write_junit(soci::session& session, std::ostream& out);

// The text format of metrics.
void write_prometheus(soci::session& session, std::ostream& out);

}  // namespace report

#endif
