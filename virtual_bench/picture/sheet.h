#ifndef PICTURE_SHEET_H
#define PICTURE_SHEET_H

#include <string>
#include <vector>

#include "picture/event.h"

namespace picture {

// Pixels; y grows downwards.
struct Box {
  double x = 0;
  double y = 0;
  double width = 0;
  double height = 0;
};

// One line of text. The box has room for it and is what nothing else may touch.
struct Text {
  enum class Font { kLabel, kBold, kOutput, kTitle };
  enum class Align { kLeft, kMiddle, kRight };

  Box box;
  std::string text;
  Font font = Font::kLabel;
  Align align = Align::kLeft;
  bool on_white = false;  // wipes out what is below it
};

enum class Pen {
  kAxis,
  kLifeLine,
  kPausedLifeLine,
  kLost,
  kAgain,
  kDatagram,
  kVerdict,
  kBroadcast,
  kTcp,
  kBoard,
  kUnreachable
};

struct Stroke {
  double x1 = 0;
  double y1 = 0;
  double x2 = 0;
  double y2 = 0;
  Pen pen = Pen::kAxis;
};

// A head of an arrow, its point at (x, y).
struct Head {
  double x = 0;
  double y = 0;
  bool to_the_right = true;
  Pen pen = Pen::kDatagram;
};

// A half circle over a life line, by which an arrow passes it.
struct Hop {
  double x = 0;
  double y = 0;
  Pen pen = Pen::kDatagram;
};

struct Area {
  enum class Paint { kCut, kBundle, kNote, kLaneHead, kFoot };

  Box box;
  Paint paint = Paint::kNote;
};

// What is drawn, in the order of the fields.
struct Sheet {
  double height = 0;
  std::vector<Box> rows;  // not drawn: where each row of the story stands
  std::vector<Area> areas;
  std::vector<Stroke> strokes;
  std::vector<Hop> hops;
  std::vector<Head> heads;
  std::vector<Text> texts;
};

constexpr double kSheetWidth = 1400;
constexpr double kTextHeight = 16;  // of a line at 13 px
constexpr double kHopRadius = 6;

// The life lines.
constexpr double kAxisX = 96;
constexpr double kBoardX = 152;
constexpr double kStationX = 530;
constexpr double kUnitX = 960;
constexpr double kPptServerX = 1310;

inline double x_of(Lane lane) {
  constexpr double kLifeLines[] = {kBoardX, kStationX, kUnitX, kPptServerX};  // in the order of Lane
  return kLifeLines[static_cast<std::size_t>(lane)];
}

}  // namespace picture

#endif
