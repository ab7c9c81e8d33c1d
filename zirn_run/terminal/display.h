#ifndef TERMINAL_DISPLAY_H
#define TERMINAL_DISPLAY_H

#include <cstddef>
#include <cstdio>
#include <optional>
#include <vector>

#include "terminal/screen.h"
#include "terminal/view.h"

struct screen;  // ncurses'

namespace terminal {

// The terminal that standard output is, as long as this is there: what was on it before comes back.
class Display {
 public:
  // Whether there is a terminal that lines can be drawn on.
  static bool is_possible();
  // Keys come from standard input, or from the process's terminal where that is none. Throws std::system_error.
  Display();
  ~Display();
  Display(const Display&) = delete;
  Display& operator=(const Display&) = delete;

  std::size_t lines() const;
  std::size_t columns() const;
  void draw(const std::vector<Line>& lines);
  // To wait for keys by.
  int descriptor() const;
  // The next key that was pressed. The size is up to date when there is none.
  std::optional<Key> key();

 private:
  int look_of(Style style) const;

  std::FILE* keys_ = nullptr;
  struct screen* screen_ = nullptr;
  bool has_colours_ = false;
  bool is_utf8_ = false;
};

}  // namespace terminal

#endif
