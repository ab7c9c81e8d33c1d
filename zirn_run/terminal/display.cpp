#include "terminal/display.h"

#include <curses.h>
#include <langinfo.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

namespace terminal {

namespace {

constexpr int kEscapeMilliseconds = 25;  // that the rest of a key's letters may take
enum Pair : short { kMagenta = 1, kGreen, kRed };

bool wants_colours() {
  const char* const no = std::getenv("NO_COLOR");
  return no == nullptr || *no == '\0';
}

constexpr std::pair<std::string_view, char> kAscii[] = {{"│", '|'}, {"─", '-'}, {"═", '='}, {"┼", '+'},
                                                        {"●", 'o'}, {"█", '#'}, {"░", '.'}};

// For a terminal without UTF-8.
std::string in_ascii(std::string_view text) {
  std::string result;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if (byte < 0x80) result += text[i];
    if (byte < 0xc0) continue;
    char letter = '?';
    for (const auto& [utf8, ascii] : kAscii) {
      if (text.substr(i, utf8.size()) == utf8) letter = ascii;
    }
    result += letter;
  }
  return result;
}

Key key_of(int code) {
  constexpr std::pair<int, Key> kKeys[] = {
      {KEY_UP, kUp},     {KEY_DOWN, kDown}, {KEY_PPAGE, kPageUp}, {KEY_NPAGE, kPageDown},
      {KEY_HOME, kHome}, {KEY_END, kEnd},   {KEY_ENTER, kEnter},  {KEY_BACKSPACE, kBackspace},
      {KEY_A1, kHome},   {KEY_C1, kEnd},    {KEY_A3, kPageUp},    {KEY_C3, kPageDown}};
  for (const auto& [ours, key] : kKeys) {
    if (ours == code) return key;
  }
  return 0;
}

Key key_of_mouse() {
  MEVENT event = {};
  if (getmouse(&event) != OK) return 0;
  if ((event.bstate & BUTTON4_PRESSED) != 0) return kWheelUp;
  return (event.bstate & BUTTON5_PRESSED) != 0 ? static_cast<Key>(kWheelDown) : 0;
}

}  // namespace

bool Display::is_possible() {
  const char* const kind = std::getenv("TERM");
  return isatty(STDOUT_FILENO) != 0 && kind != nullptr && std::strcmp(kind, "dumb") != 0;
}

Display::Display() {
  setlocale(LC_CTYPE, "");
  is_utf8_ = std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
  keys_ = std::fopen(isatty(STDIN_FILENO) != 0 ? "/dev/stdin" : "/dev/tty", "re");
  if (keys_ == nullptr)
    throw std::system_error(errno, std::generic_category(), "/dev/tty, where the keys are read");
  screen_ = newterm(nullptr, stdout, keys_);
  if (screen_ == nullptr) {
    std::fclose(keys_);
    throw std::runtime_error("TERM is \"" + std::string(std::getenv("TERM")) +
                             "\": expected the name of a terminal that this system knows, or dumb");
  }
  set_escdelay(kEscapeMilliseconds);
  cbreak();
  noecho();
  keypad(stdscr, TRUE);
  nodelay(stdscr, TRUE);
  curs_set(0);
  mousemask(BUTTON4_PRESSED | BUTTON5_PRESSED, nullptr);
  mouseinterval(0);
  has_colours_ = wants_colours() && has_colors() && start_color() == OK && use_default_colors() == OK;
  if (!has_colours_) return;
  init_pair(kMagenta, COLOR_MAGENTA, -1);
  init_pair(kGreen, COLOR_GREEN, -1);
  init_pair(kRed, COLOR_RED, -1);
}

Display::~Display() {
  endwin();
  delscreen(screen_);
  std::fclose(keys_);
}

std::size_t Display::lines() const {
  return static_cast<std::size_t>(LINES);
}

std::size_t Display::columns() const {
  return static_cast<std::size_t>(COLS);
}

int Display::descriptor() const {
  return fileno(keys_);
}

// Only colours that can be read on black and on white.
int Display::look_of(Style style) const {
  const auto colour = [this](short pair) { return has_colours_ ? static_cast<int>(COLOR_PAIR(pair)) : 0; };
  switch (style) {
    case Style::kFaint:
      return static_cast<int>(A_DIM);
    case Style::kHeading:
      return static_cast<int>(A_BOLD);
    case Style::kVerdict:
      return colour(kMagenta);
    case Style::kPassed:
      return static_cast<int>(A_BOLD) | colour(kGreen);
    case Style::kFailed:
      return static_cast<int>(A_BOLD) | colour(kRed);
    case Style::kPlain:
      break;
  }
  return static_cast<int>(A_NORMAL);
}

void Display::draw(const std::vector<Line>& lines) {
  erase();
  int at = 0;
  for (const Line& line : lines) {
    move(at++, 0);
    for (const Span& span : line.spans) {
      attrset(look_of(span.style) | (line.is_chosen ? static_cast<int>(A_REVERSE) : 0));
      addstr((is_utf8_ ? span.text : in_ascii(span.text)).c_str());
    }
  }
  refresh();
}

std::optional<Key> Display::key() {
  wint_t code = 0;
  switch (get_wch(&code)) {
    case OK:
      return code == '\r' ? kEnter : code == '\b' ? kBackspace : static_cast<Key>(code);
    case KEY_CODE_YES:
      return code == KEY_MOUSE ? key_of_mouse() : key_of(static_cast<int>(code));
    default:
      return std::nullopt;
  }
}

}  // namespace terminal
