#ifndef PICTURE_PICTURE_H
#define PICTURE_PICTURE_H

#include <string>

#include "picture/record.h"

namespace picture {

// The run as a sequence diagram, an SVG document. The same record gives the same bytes.
std::string picture_of(const RunRecord& run);

}  // namespace picture

#endif
