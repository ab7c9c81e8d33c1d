#ifndef PICTURE_PAGE_H
#define PICTURE_PAGE_H

#include <vector>

#include "picture/outcome.h"
#include "picture/picture.h"
#include "picture/row.h"
#include "picture/sheet.h"
#include "story/reading.h"

namespace picture {

// The whole picture: how it came out, what the signs mean, life lines, rows.
Sheet page_of(const std::vector<Row>& rows, const story::Reading& reading, const Outcome& outcome,
              const Choice& choice);

}  // namespace picture

#endif
