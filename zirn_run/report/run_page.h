#ifndef REPORT_RUN_PAGE_H
#define REPORT_RUN_PAGE_H

#include <optional>
#include <string>

#include "database/rows.h"

namespace report {

// The page of one run: its explanation, out of the database, and its picture with the bytes of its frames, where its
// record can be read. `explanation`: the JSON of explanation.schema.json. `record`: the file; empty: it is not here.
std::string run_page(const database::Run& run, const std::string& explanation, const std::string& record);

}  // namespace report

#endif
