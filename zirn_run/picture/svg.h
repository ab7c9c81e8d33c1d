#ifndef PICTURE_SVG_H
#define PICTURE_SVG_H

#include <string>

#include "picture/sheet.h"

namespace picture {

// The sheet as an SVG document, in light colours, and in dark ones where the reader prefers those.
std::string svg_of(const Sheet& sheet);

// A part of it, over the whole width, to stand in a page above and below others. The page has style_sheet(), and
// once what the parts share.
std::string strip_of(const Sheet& sheet, const Box& part);
std::string shared_by_strips();

// The colours and shapes, as a style sheet.
std::string style_sheet();

}  // namespace picture

#endif
