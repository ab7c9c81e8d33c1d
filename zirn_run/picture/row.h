#ifndef PICTURE_ROW_H
#define PICTURE_ROW_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "story/reading.h"

namespace picture {

using record::Nanoseconds;
using story::kNone;

// What a row says of the run's outcome.
enum class Mark { kUnmarked, kPassed, kFailed, kWrong };

// Whose place Step::thread is.
inline bool is_of_transfer(story::Step::Kind kind) {
  return kind >= story::Step::Kind::kRequest && kind <= story::Step::Kind::kClosedPort;
}
inline bool is_of_connection(story::Step::Kind kind) {
  return kind >= story::Step::Kind::kConnect && kind <= story::Step::Kind::kBreaksOff;
}

// One row of the picture.
struct Row {
  enum class Kind {
    kArrow,
    kBand,     // the blocks of a transfer
    kBandEnd,  // where something else begins before they end
    kOutput,   // of the station
    kBoardCall,
    kStationEnd,
    kWords,
    kCut,
    kPause,
    kUnit,  // all of a unit that passed
    kFold,  // the rows above it from `group_from` on come `times`
  };
  enum class Look { kDatagram, kVerdict, kBroadcast, kTcp, kClosedPort, kHarmless };

  Kind kind = Kind::kArrow;
  Look look = Look::kDatagram;
  Nanoseconds from = 0;
  Nanoseconds until = 0;       // of the last one of several
  std::size_t source = kNone;  // parties
  std::size_t target = kNone;
  std::size_t thread = kNone;      // kBand, kBandEnd: the transfer
  std::size_t transfer = kNone;    // that it tells of
  std::size_t turn = kNone;        // of a unit (outcome.h)
  std::string text;                // printable, not wrapped
  std::vector<std::string> facts;  // under or beside it
  frames::Numbers frames;
  frames::Numbers lines;
  std::string key;  // rows that say the same but for time and count have the same

  std::uint64_t times = 1;
  std::uint64_t lost = 0;
  std::uint64_t duplicated = 0;
  std::uint64_t swapped = 0;
  Nanoseconds group_from = 0;
  bool is_inferred = false;
  bool is_whole = false;  // kBand: nothing else begins before it ends
  bool is_short = false;  // it stands for all rows of its transfer, which follow

  Mark mark = Mark::kUnmarked;
  std::string mark_words;

  // Until when nothing else need begin for it not to be a pause.
  Nanoseconds busy_until() const {
    return kind == Kind::kBand || kind == Kind::kFold || kind == Kind::kUnit ? until : from;
  }
};

}  // namespace picture

#endif
