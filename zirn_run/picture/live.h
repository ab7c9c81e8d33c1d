#ifndef PICTURE_LIVE_H
#define PICTURE_LIVE_H

#include <cstddef>
#include <string>
#include <vector>

#include "frames/packet.h"
#include "story/reading.h"

namespace picture {

// A row of a picture, drawn by itself: the rows of a page stand one below the other, and some may be hidden.
struct LiveRow {
  std::string svg;
  std::string words;  // what it says, for who does not see it
  frames::Numbers frames;
  frames::Numbers lines;
  std::size_t transfer = story::kNone;
  bool is_short = false;  // it stands for all rows of its transfer, which follow
  bool is_hidden =
      false;  // at first: of a transfer that finished the short row is seen, of another one all others
};

// The run as a picture for a page that folds and unfolds its transfers (svg.h: what the page needs besides).
struct Live {
  double width = 0;  // pixels
  std::string legend;
  std::string lanes;  // the heads of the lanes
  std::vector<LiveRow> rows;
  std::string foot;
};
Live live_picture_of(const story::Reading& reading);

}  // namespace picture

#endif
