#include "terminal/view.h"

#include <algorithm>
#include <cctype>

#include "picture/words.h"
#include "story/book.h"
#include "terminal/told.h"

namespace terminal {

namespace {

constexpr std::size_t kHeadLines = 4;
constexpr int kWheelLines = 3;
constexpr char kHints[] = "q quit  Enter unfold  / search  p pause  s save  d draw  End follow  ? help";
constexpr const char* kHelp[] = {
    "arrows, k j          a line up or down",
    "page keys, space     a page up or down",
    "Home g, End G        to the beginning; to the end, and follow it",
    "mouse wheel          three lines up or down",
    "Enter                unfold a row, fold it again",
    "/ text Enter         search; n and N search on, down and up",
    "p                    pause, and go on",
    "s                    save the record so far",
    "d                    draw the run so far, as a picture (SVG)",
    "q                    quit",
    "?                    this page; any key leaves it",
};

std::string in_small_letters(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
  return text;
}

void append(Key key, std::string* text) {
  if (key < 0x80) {
    *text += static_cast<char>(key);
    return;
  }
  const int following = key < 0x800 ? 1 : key < 0x10000 ? 2 : 3;
  constexpr unsigned kLeads[] = {0, 0xc0, 0xe0, 0xf0};
  *text += static_cast<char>(kLeads[following] | key >> (6 * following));
  for (int i = following - 1; i >= 0; --i) *text += static_cast<char>(0x80U | (key >> (6 * i) & 0x3fU));
}

Line in_two(const std::string& left, const std::string& right, std::size_t columns, Style style) {
  const std::size_t room = columns - std::min(columns, columns_of(right) + 1);
  return {{{filled(left, room) + " " + cut(right, columns), style}}};
}

}  // namespace

void View::set_size(std::size_t lines, std::size_t columns) {
  lines_ = lines;
  columns_ = columns;
  keep_in_sight();
}

std::size_t View::body_lines() const {
  return std::max(lines_, kHeadLines + 2) - kHeadLines - 1;
}

std::size_t View::lines_of(std::size_t row) const {
  return unfolded_.count(rows()[row]) == 0 ? 1 : 1 + details(reading_, rows()[row]).size();
}

bool View::step_down(Place* place) const {
  if (place->line + 1 < lines_of(place->row)) {
    ++place->line;
  } else if (place->row + 1 < rows().size()) {
    *place = {place->row + 1, 0};
  } else {
    return false;
  }
  return true;
}

bool View::step_up(Place* place) const {
  if (place->line > 0) {
    --place->line;
  } else if (place->row > 0) {
    *place = {place->row - 1, lines_of(place->row - 1) - 1};
  } else {
    return false;
  }
  return true;
}

View::Place View::last() const {
  if (rows().empty()) return {};
  return {rows().size() - 1, lines_of(rows().size() - 1) - 1};
}

// Rows move when something earlier comes late.
View::Place View::found_again(const Place& place, const Row& row) const {
  if (rows().empty()) return {};
  for (std::size_t i = std::min(place.row + story::Book::kOrderWindow, rows().size()); i > 0; --i) {
    if (rows()[i - 1] == row) return {i - 1, std::min(place.line, lines_of(i - 1) - 1)};
  }
  return {std::min(place.row, rows().size() - 1), 0};
}

void View::look() {
  const auto row_at = [this](const Place& place) {
    return place.row < rows().size() ? rows()[place.row] : Row();
  };
  const Row top = row_at(top_);
  const Row chosen = row_at(cursor_);
  rows_.look_at(reading_);
  top_ = found_again(top_, top);
  cursor_ = found_again(cursor_, chosen);
  keep_in_sight();
}

// The place with which a screen that ends there begins.
View::Place View::top_above(Place place) const {
  for (std::size_t i = 1; i < body_lines(); ++i) {
    if (!step_up(&place)) break;
  }
  return place;
}

void View::keep_in_sight() {
  if (rows().empty()) return;
  if (follows_) cursor_ = last();
  if (cursor_ < top_) top_ = cursor_;
  top_ = std::max(top_, top_above(cursor_));
  top_ = std::min(top_, top_above(last()));  // no screen is left half empty
}

void View::follow() {
  follows_ = true;
  keep_in_sight();
}

void View::move(int lines) {
  if (rows().empty()) return;
  if (lines < 0) follows_ = false;
  for (; lines < 0 && step_up(&cursor_); ++lines) continue;
  for (; lines > 0 && step_down(&cursor_); --lines) continue;
  if (cursor_ == last() && !follows_ && lines > 0) follows_ = true;
  keep_in_sight();
}

void View::fold_or_unfold() {
  if (rows().empty()) return;
  follows_ = false;
  cursor_.line = 0;
  const Row& row = rows()[cursor_.row];
  if (unfolded_.erase(row) == 0) unfolded_.insert(row);
  keep_in_sight();
}

bool View::has_needle(std::size_t row, bool* is_below) const {
  const std::string needle = in_small_letters(needle_);
  const auto holds = [&needle](const std::string& text) {
    return in_small_letters(text).find(needle) != std::string::npos;
  };
  const Told one = told(reading_, rows()[row]);
  *is_below = !holds(who(reading_, one) + ": " + one.text);
  if (!*is_below) return true;
  const std::vector<std::string> below = details(reading_, rows()[row]);
  return std::any_of(below.begin(), below.end(), holds);
}

// What is found in what is folded is unfolded.
void View::search(int direction) {
  if (rows().empty() || needle_.empty()) return;
  const std::size_t count = rows().size();
  for (std::size_t i = 1; i <= count; ++i) {
    const std::size_t row = (cursor_.row + (direction > 0 ? i : count - i)) % count;
    bool is_below = false;
    if (!has_needle(row, &is_below)) continue;
    follows_ = false;
    if (is_below) unfolded_.insert(rows()[row]);
    cursor_ = {row, 0};
    return keep_in_sight();
  }
  message_ = "not found: " + needle_;
}

void View::type(Key key) {
  if (key == kEscape) {
    is_typing_ = false;
  } else if (key == kEnter) {
    is_typing_ = false;
    search(1);
  } else if (key == kBackspace) {
    while (!needle_.empty() && (static_cast<unsigned char>(needle_.back()) & 0xc0U) == 0x80)
      needle_.pop_back();
    if (!needle_.empty()) needle_.pop_back();
  } else if (key >= ' ' && key < kUp) {
    append(key, &needle_);
  }
}

// Whether the key is one that goes through the rows.
bool View::goes(Key key) {
  const int page = static_cast<int>(body_lines());
  switch (key) {
    case kUp:
    case 'k':
      move(-1);
      break;
    case kDown:
    case 'j':
      move(1);
      break;
    case kPageUp:
      move(-page);
      break;
    case kPageDown:
    case ' ':
      move(page);
      break;
    case kWheelUp:
      move(-kWheelLines);
      break;
    case kWheelDown:
      move(kWheelLines);
      break;
    case kHome:
    case 'g':
      follows_ = false;
      cursor_ = top_ = {};
      break;
    case kEnd:
    case 'G':
      follow();
      break;
    case kEnter:
      fold_or_unfold();
      break;
    default:
      return false;
  }
  return true;
}

View::Wish View::press(Key key) {
  message_.clear();
  if (is_typing_) {
    type(key);
    return Wish::kNothing;
  }
  if (shows_help_) {
    shows_help_ = false;
    return key == 'q' ? Wish::kQuit : Wish::kNothing;
  }
  if (goes(key)) return Wish::kNothing;
  switch (key) {
    case '/':
      is_typing_ = true;
      needle_.clear();
      break;
    case 'n':
      search(1);
      break;
    case 'N':
      search(-1);
      break;
    case '?':
    case 'h':
      shows_help_ = true;
      break;
    case 'p':
      return Wish::kPause;
    case 's':
      return Wish::kSave;
    case 'd':
      return Wish::kDraw;
    case 'q':
      return Wish::kQuit;
    default:
      break;
  }
  return Wish::kNothing;
}

void View::add_body(const Ladder& ladder, std::vector<Line>* lines) const {
  if (rows().empty()) return;
  Place place = top_;
  for (std::size_t i = 0; i < body_lines(); ++i) {
    const Row& row = rows()[place.row];
    lines->push_back(place.line == 0 ? ladder.line_of(told(reading_, row))
                                     : ladder.line_below(details(reading_, row)[place.line - 1]));
    lines->back().is_chosen = place == cursor_ && !follows_;
    if (!step_down(&place)) return;
  }
}

Line View::bottom(const Ladder& ladder) const {
  if (is_typing_) return {{{cut("/" + needle_, columns_), Style::kPlain}}};
  if (!message_.empty()) return {{{cut(message_, columns_), Style::kHeading}}};
  if (ladder.is_narrow())
    return {{{cut("one lane: fewer than 60 columns  ? help", columns_), Style::kFaint}}};
  return {{{cut(kHints, columns_), Style::kFaint}}};
}

std::vector<Line> View::screen(const Heading& heading) const {
  const Ladder ladder(reading_, columns_);
  std::vector<Line> lines;
  const std::string time = picture::seconds(reading_.last - reading_.first, 1) + " s";
  lines.push_back(in_two(heading.title, time + "  " + heading.state, columns_, Style::kHeading));
  lines.push_back({{{cut(heading.how_far, columns_), heading.how_far_style}}});
  const std::string fault = heading.fault.empty() ? "nothing points to a fault" : "fault: " + heading.fault;
  lines.push_back({{{cut(fault, columns_), heading.fault.empty() ? Style::kFaint : Style::kFailed}}});
  lines.push_back(ladder.heads());
  if (shows_help_) {
    for (const char* const line : kHelp) lines.push_back({{{cut(line, columns_), Style::kPlain}}});
  } else {
    add_body(ladder, &lines);
  }
  lines.resize(lines_ - std::min<std::size_t>(lines_, 1));
  if (lines_ > 0) lines.push_back(bottom(ladder));
  for (Line& line : lines) cut(&line, columns_);
  return lines;
}

}  // namespace terminal
