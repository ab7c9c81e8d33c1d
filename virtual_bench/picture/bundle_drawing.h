#ifndef PICTURE_BUNDLE_DRAWING_H
#define PICTURE_BUNDLE_DRAWING_H

#include "picture/event.h"
#include "picture/sheet.h"

namespace picture {

// Draws a bundle, or a part of one, as a band between its two life lines, with a tick at its edge for every
// packet that did not pass once and in order, and returns the height of its row.
double draw_bundle(const Event& event, double top, Sheet* sheet);

}  // namespace picture

#endif
