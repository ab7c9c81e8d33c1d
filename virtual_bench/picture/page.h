#ifndef PICTURE_PAGE_H
#define PICTURE_PAGE_H

#include <vector>

#include "picture/event.h"
#include "picture/run_folder.h"
#include "picture/sheet.h"

namespace picture {

// The whole picture: head, life lines, rows, foot.
Sheet page_of(const std::vector<Event>& rows, const RunFolder& run);

// "2: a final verdict or SIGINT ended the run": the exit status as it stands in the run's facts, and what it
// means.
std::string exit_status_in_words(const std::string& status);

}  // namespace picture

#endif
