#ifndef PICTURE_PROGRESS_H
#define PICTURE_PROGRESS_H

#include <vector>

#include "picture/lanes.h"
#include "picture/row.h"
#include "picture/sheet.h"
#include "story/reading.h"

namespace picture {

// Draws, where the rows are drawn already (Sheet::rows, in their order), how far the transfers of their bands went:
// ticks where something was lost or sent again, and of a band that is divided a bar down to its end, on the life
// line of the client, or of whom the station asks.
void add_progress(const std::vector<Row>& rows, const story::Reading& reading, const Lanes& lanes,
                  Sheet* sheet);

}  // namespace picture

#endif
