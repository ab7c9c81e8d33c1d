#ifndef PICTURE_SVG_H
#define PICTURE_SVG_H

#include <string>

#include "picture/sheet.h"

namespace picture {

// The sheet as an SVG document, in light colours, and in dark ones where the reader prefers those.
std::string svg_of(const Sheet& sheet);

}  // namespace picture

#endif
