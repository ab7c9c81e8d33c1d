#ifndef TERMINAL_VIEW_H
#define TERMINAL_VIEW_H

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "story/reading.h"
#include "terminal/ladder.h"
#include "terminal/rows.h"
#include "terminal/screen.h"

namespace terminal {

// A key: a character of Unicode, or one of these.
using Key = std::uint32_t;
inline constexpr Key kEnter = '\n';
inline constexpr Key kEscape = 27;
inline constexpr Key kBackspace = 127;
enum : Key {
  kUp = 0x110000,
  kDown,
  kPageUp,
  kPageDown,
  kHome,
  kEnd,
  kWheelUp,
  kWheelDown,
};

// What stands above the rows.
struct Heading {
  std::string title;
  std::string state;  // "live", "paused", ...
  std::string how_far;
  Style how_far_style = Style::kPlain;
  std::string fault;
};

// Which part of the run is on the screen, and what the keys do to it. It follows the end until one goes up, and then
// stays where it is, whatever comes.
class View {
 public:
  // What a key asks of the program.
  enum class Wish { kNothing, kPause, kSave, kDraw, kQuit };

  // The run must outlive it.
  explicit View(const story::Reading& reading) : reading_(reading) {}

  void set_size(std::size_t lines, std::size_t columns);
  // Takes note of what is new in the run.
  void look();
  Wish press(Key key);
  // Shown at the bottom until the next key.
  void say(const std::string& message) { message_ = message; }

  // As many lines as the screen has.
  std::vector<Line> screen(const Heading& heading) const;

 private:
  struct Place {
    std::size_t row = 0;   // of all rows
    std::size_t line = 0;  // of the row

    bool operator<(const Place& other) const {
      return std::pair(row, line) < std::pair(other.row, other.line);
    }
    bool operator==(const Place& other) const { return row == other.row && line == other.line; }
  };

  const std::vector<Row>& rows() const { return rows_.all(); }
  std::size_t body_lines() const;
  std::size_t lines_of(std::size_t row) const;
  bool step_down(Place* place) const;
  bool step_up(Place* place) const;
  Place last() const;
  Place top_above(Place place) const;
  Place found_again(const Place& place, const Row& row) const;
  void move(int lines);
  void follow();
  void keep_in_sight();
  void fold_or_unfold();
  bool goes(Key key);
  void type(Key key);
  void search(int direction);
  bool has_needle(std::size_t row, bool* is_below) const;
  void add_body(const Ladder& ladder, std::vector<Line>* lines) const;
  Line bottom(const Ladder& ladder) const;

  const story::Reading& reading_;
  Rows rows_;
  std::set<Row> unfolded_;
  Place top_;
  Place cursor_;
  bool follows_ = true;
  bool is_typing_ = false;
  bool shows_help_ = false;
  std::string needle_;
  std::string message_;
  std::size_t lines_ = 24;
  std::size_t columns_ = 80;
};

}  // namespace terminal

#endif
