#ifndef REPORT_PAGE_FILES_H
#define REPORT_PAGE_FILES_H

#include <string_view>

namespace report {

// The files of pages/, as they stand there.
extern const std::string_view kStyleSheet;
extern const std::string_view kOverviewScript;
extern const std::string_view kRunScript;

}  // namespace report

#endif
