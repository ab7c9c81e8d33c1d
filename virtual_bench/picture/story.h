#ifndef PICTURE_STORY_H
#define PICTURE_STORY_H

#include <vector>

#include "picture/event.h"
#include "picture/packet.h"
#include "picture/record.h"

namespace picture {

// Everything that happened in a run, in the order of its beginnings, with repetitions folded: the broadcast
// boot script, equal lines of the station's output, and whatever was sent again without an answer.
std::vector<Event> story_of(const std::vector<Packet>& packets, const RunRecord& run);

}  // namespace picture

#endif
