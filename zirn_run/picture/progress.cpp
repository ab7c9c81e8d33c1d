#include "picture/progress.h"

#include <algorithm>
#include <map>
#include <utility>

namespace picture {

namespace {

constexpr double kBarWidth = 7;
constexpr double kTickLength = 12;
constexpr std::size_t kMaxBars = 6;  // side by side, away from the words

// Where the times of a transfer are on the sheet.
class Scale {
 public:
  void add(Nanoseconds at, double y) { places_.emplace_back(at, y); }
  double y_of(Nanoseconds at) const {
    std::size_t next = 1;
    while (next + 1 < places_.size() && places_[next].first < at) ++next;
    const auto& [from, top] = places_[next - 1];
    const auto& [until, bottom] = places_[next];
    const auto length = static_cast<double>(std::max<Nanoseconds>(until - from, 1));
    return top + (bottom - top) * std::clamp(static_cast<double>(at - from) / length, 0.0, 1.0);
  }

 private:
  std::vector<std::pair<Nanoseconds, double>> places_;
};

// What the ticks say; where several share a place, the last one of these shows.
struct Tick {
  story::Mark::Times story::Mark::*times;
  Pen pen;
};
constexpr Tick kTicks[] = {{&story::Mark::again, Pen::kAgain},
                           {&story::Mark::swapped, Pen::kSwapped},
                           {&story::Mark::duplicated, Pen::kDuplicated},
                           {&story::Mark::lost, Pen::kLost}};

void add_ticks(const story::Transfer& transfer, const Scale& scale, double left, double right, Sheet* sheet) {
  for (const Tick& tick : kTicks) {
    std::uint32_t before = 0;
    for (const story::Mark& mark : transfer.marks) {
      const story::Mark::Times& times = mark.*tick.times;
      const double y = scale.y_of(times.last);
      if (times.count != before) sheet->strokes.push_back({left, y, right, y, tick.pen});
      before = times.count;
    }
  }
}

// The bars of each lane: the row with which the last one in each place ends.
using Bars = std::map<double, std::vector<std::size_t>>;

// Where the bar from one row to another begins: beside those that are there, away from the words.
double place_bar(double lane, bool to_the_right, std::size_t first, std::size_t last, Bars* bars) {
  std::vector<std::size_t>& others = (*bars)[lane];
  const auto free =
      std::find_if(others.begin(), others.end(), [first](std::size_t end) { return end < first; });
  const auto place = static_cast<std::size_t>(free - others.begin());
  if (free == others.end()) others.push_back(0);
  others[place] = last;
  const double away = kBarWidth * static_cast<double>(place % kMaxBars);
  return lane - kBarWidth / 2 + (to_the_right ? away : -away);
}

void add_whole(const Row& row, const Box& box, const story::Transfer& transfer, const Lanes& lanes,
               Sheet* sheet) {
  const double right = std::max(lanes.x(row.source), lanes.x(row.target)) - kSideGap;
  Scale scale;
  scale.add(row.from, box.y + kRowMargin + 2);
  scale.add(row.until, box.bottom() - kRowMargin - 2);
  add_ticks(transfer, scale, right - kTickLength, right, sheet);
}

void add_divided(const std::vector<Row>& rows, std::size_t first, std::size_t last,
                 const story::Transfer& transfer, const Lanes& lanes, Bars* bars, Sheet* sheet) {
  const double lane = lanes.x(transfer.client == story::kStation ? transfer.server : transfer.client);
  const double left = place_bar(lane, lane > lanes.station(), first, last, bars);
  const double top = sheet->rows[first].y + kRowMargin;
  const double bottom = sheet->rows[last].y + sheet->rows[last].height / 2;
  Scale scale;
  for (std::size_t i = first; i < last; ++i) scale.add(rows[i].from, sheet->rows[i].y + kRowMargin);
  scale.add(rows[last].from, bottom);
  sheet->areas.push_back({{left, top, kBarWidth, bottom - top}, Paint::kBand});
  add_ticks(transfer, scale, left, left + kTickLength, sheet);
}

}  // namespace

void add_progress(const std::vector<Row>& rows, const story::Reading& reading, const Lanes& lanes,
                  Sheet* sheet) {
  std::map<std::size_t, std::size_t> ends;  // rows, by transfer
  for (std::size_t i = 0; i < rows.size(); ++i) {
    if (rows[i].kind == Row::Kind::kBandEnd) ends[rows[i].thread] = i;
  }
  Bars bars;
  for (std::size_t i = 0; i < rows.size(); ++i) {
    if (rows[i].kind != Row::Kind::kBand || rows[i].facts.empty()) continue;
    const story::Transfer& transfer = reading.transfers[rows[i].thread];
    const auto end = ends.find(rows[i].thread);
    if (end == ends.end()) {
      add_whole(rows[i], sheet->rows[i], transfer, lanes, sheet);
    } else {
      add_divided(rows, i, end->second, transfer, lanes, &bars, sheet);
    }
  }
}

}  // namespace picture
