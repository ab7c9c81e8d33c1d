#include "terminal/rows.h"

#include <algorithm>

#include "picture/row.h"
#include "story/book.h"

namespace terminal {

namespace {

using story::kNone;
using story::Step;

bool is_shown(const Step& step) {
  if (step.kind == Step::Kind::kRunBegins) return false;  // it says what the head of the screen says
  return step.kind != Step::Kind::kLine || step.said.text.find_first_not_of(" \t\r\n") != std::string::npos;
}

}  // namespace

void Rows::note_threads(const story::Reading& reading) {
  for (; noted_ < reading.steps.size(); ++noted_) {
    const Step& step = reading.steps[noted_];
    const bool is_of_connection = picture::is_of_connection(step.kind);
    if (step.thread == kNone || (!is_of_connection && !picture::is_of_transfer(step.kind))) continue;
    std::vector<std::size_t>& firsts = is_of_connection ? first_of_connection_ : first_of_transfer_;
    if (firsts.size() <= step.thread) firsts.resize(step.thread + 1, kNone);
    if (firsts[step.thread] == kNone) firsts[step.thread] = noted_;
  }
}

bool Rows::is_first_of_its_thread(const story::Reading& reading, std::size_t place) const {
  const Step& step = reading.steps[place];
  if (step.thread == kNone) return true;
  if (picture::is_of_connection(step.kind)) return first_of_connection_[step.thread] == place;
  return !picture::is_of_transfer(step.kind) || first_of_transfer_[step.thread] == place;
}

void Rows::add(const Row& row, std::size_t at) {
  rows_.push_back(row);
  orders_.push_back(at);
  if (row.is_gap) ++gaps_;
}

void Rows::look_at(const story::Reading& reading) {
  note_threads(reading);
  // What was before the last steps stays in its place.
  const std::size_t settled = ordered_ - std::min(ordered_, story::Book::kOrderWindow);
  while (!rows_.empty() && orders_.back() >= settled) {
    if (rows_.back().is_gap) --gaps_;
    rows_.pop_back();
    orders_.pop_back();
  }
  ordered_ = reading.order.size();
  for (std::size_t i = settled; i < ordered_; ++i) {
    const std::size_t place = reading.order[i];
    while (gaps_ < reading.gaps.size() && reading.gaps[gaps_].at <= reading.steps[place].from)
      add({true, gaps_}, i);
    if (is_shown(reading.steps[place]) && is_first_of_its_thread(reading, place)) add({false, place}, i);
  }
  while (gaps_ < reading.gaps.size()) add({true, gaps_}, ordered_);
}

}  // namespace terminal
