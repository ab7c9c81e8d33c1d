#ifndef PICTURE_ARROWS_H
#define PICTURE_ARROWS_H

#include <string>

#include "picture/event.h"
#include "picture/packet.h"

namespace picture {

// The packet as an arrow of its own. Where its sender or receiver is none of the usual two of its network,
// the text names it.
Event arrow_of(const Packet& packet, Event::Look look, const std::string& text);

// Makes the event stand for one more packet, which follows those it stands for already.
void fold_into(Event* event, Microseconds at, const Fate& fate);

}  // namespace picture

#endif
