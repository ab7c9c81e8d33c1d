#ifndef PICTURE_SHEET_H
#define PICTURE_SHEET_H

#include <string>
#include <vector>

namespace picture {

// Pixels; y grows downwards.
struct Box {
  double x = 0;
  double y = 0;
  double width = 0;
  double height = 0;

  double right() const { return x + width; }
  double bottom() const { return y + height; }
};

// How something looks; svg.cpp has a line for each.
enum class Pen {
  kAxis,
  kLifeLine,
  kPausedLifeLine,
  kLost,
  kAgain,
  kDuplicated,
  kSwapped,
  kDatagram,
  kVerdict,
  kBroadcast,
  kTcp,
  kBoard,
  kClosedPort,
  kHarmless,
  kGroup,
};
enum class Paint {
  kPage,
  kCut,
  kBand,
  kInferredBand,
  kOutput,
  kBoardCall,
  kLaneHead,
  kPassed,  // signs, with light words
  kFailed,
  kWrong,
  kNeither,
  kPassedRow,  // the same behind dark words
  kFailedRow,
  kWrongRow,
};
enum class Font { kLabel, kBold, kOutput, kTitle, kSign, kPassed, kFailed, kWrong };

// One line of text. The box has room for it and is what nothing else may touch.
struct Text {
  enum class Align { kLeft, kMiddle, kRight };

  Box box;
  std::string text;
  Font font = Font::kLabel;
  Align align = Align::kLeft;
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
  Box box;
  Paint paint = Paint::kPage;
};

// What is drawn, in the order of the fields.
struct Sheet {
  double width = 0;
  double height = 0;
  std::string title;  // not drawn: the picture's name, and what it says in short
  std::string summary;
  Box legend;             // not drawn: where it stands
  Box lanes;              // the same: the heads of the lanes, at the top
  std::vector<Box> rows;  // the same: each row
  std::vector<Area> areas;
  std::vector<Stroke> strokes;
  std::vector<Hop> hops;
  std::vector<Head> heads;
  std::vector<Text> texts;
};

// Writes one line where its box begins, or around its middle. Returns its width.
double add_line(const std::string& line, Font font, double x, double y, Sheet* sheet,
                Text::Align align = Text::Align::kLeft);
double width_in(Font font, const std::string& text);

// The cross of what was lost, around (x, y).
void add_cross(double x, double y, Sheet* sheet);

// Puts the sheet on the right of what is there, and a line between them.
void put_beside(const Sheet& more, Sheet* sheet);

constexpr double kTextHeight = 16;  // of a line at 13 px
constexpr double kRowMargin = 3;    // above and below what is in a row
constexpr double kSideGap = 12;     // of a band, to the life lines
constexpr double kCrossRadius = 6;
constexpr double kHopRadius = 6;

}  // namespace picture

#endif
