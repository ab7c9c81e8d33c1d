#ifndef PICTURE_ROW_DRAWING_H
#define PICTURE_ROW_DRAWING_H

#include "picture/event.h"
#include "picture/sheet.h"

namespace picture {

// Draws one row from `top` down, without life lines, and returns its height. `start` is second 0 of the run.
double draw_row(const Event& row, double top, Microseconds start, Sheet* sheet);

}  // namespace picture

#endif
