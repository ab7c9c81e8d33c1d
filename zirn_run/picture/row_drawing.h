#ifndef PICTURE_ROW_DRAWING_H
#define PICTURE_ROW_DRAWING_H

#include "picture/lanes.h"
#include "picture/row.h"
#include "picture/sheet.h"

namespace picture {

// Draws one row from `top` down, without life lines, and returns its height. `start` is second 0 of the run.
double draw_row(const Row& row, double top, Nanoseconds start, const Lanes& lanes, Sheet* sheet);

// Draws a band in a row: its box, which is returned.
Box draw_band(const Row& row, double top, const Lanes& lanes, Sheet* sheet);

}  // namespace picture

#endif
