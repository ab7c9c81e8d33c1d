#ifndef REPORT_SHOWN_FRAMES_H
#define REPORT_SHOWN_FRAMES_H

#include <cstdint>
#include <set>
#include <string>

#include "picture/live.h"
#include "record/item.h"

namespace report {

// The frames and lines whose contents a page holds: of each row the first ones and the last, as far as no other row's
// stand between them. All together at most kMostFrames.
constexpr std::size_t kMostFrames = 3000;
std::set<std::uint64_t> frames_to_show(const picture::Live& live);

// These of a record, as JSON: [number, seconds since `start`, network, bytes on the wire, the first kMostBytes in
// hexadecimal] for a frame, [number, seconds, null, null, text] for a line. Throws std::exception where the record
// cannot be read.
constexpr std::size_t kMostBytes = 128;
std::string contents_of(const std::set<std::uint64_t>& numbers, const std::string& record,
                        record::Nanoseconds start);

}  // namespace report

#endif
