#ifndef PICTURE_PAGE_H
#define PICTURE_PAGE_H

#include <string>
#include <vector>

#include "picture/event.h"
#include "picture/record.h"
#include "picture/sheet.h"

namespace picture {

// The whole picture: head, life lines, rows, foot.
Sheet page_of(const std::vector<Event>& rows, const RunRecord& run);

// "2 (a final verdict or SIGINT ended the run)": as a shell gives it, and what it means where that is known.
std::string in_words(const ExitStatus& exit_status);

}  // namespace picture

#endif
