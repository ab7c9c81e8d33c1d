#include "picture/progress.h"

#include <algorithm>
#include <map>
#include <utility>

namespace picture {

namespace {

constexpr double kBarWidth = 7;
constexpr double kTickLength = 12;

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

// Where several share a place, one that was lost is the one that shows.
void add_ticks(const story::Transfer& transfer, const Scale& scale, double left, double right, Sheet* sheet) {
  story::Mark before;
  std::vector<Stroke> lost;
  for (const story::Mark& mark : transfer.marks) {
    const double y = scale.y_of(mark.at);
    if (mark.lost > before.lost) {
      lost.push_back({left, y, right, y, Pen::kLost});
    } else if (mark.again > before.again) {
      sheet->strokes.push_back({left, y, right, y, Pen::kAgain});
    }
    before = mark;
  }
  sheet->strokes.insert(sheet->strokes.end(), lost.begin(), lost.end());
}

}  // namespace

void add_progress(const std::vector<Row>& rows, const story::Reading& reading, const Lanes& lanes,
                  Sheet* sheet) {
  std::map<std::size_t, std::size_t> ends;  // rows, by transfer
  for (std::size_t i = 0; i < rows.size(); ++i) {
    if (rows[i].kind == Row::Kind::kBandEnd) ends[rows[i].thread] = i;
  }
  std::map<double, std::vector<std::size_t>> bars;  // by lane: the last row of each
  for (std::size_t i = 0; i < rows.size(); ++i) {
    if (rows[i].kind != Row::Kind::kBand || rows[i].thread == kNone) continue;
    const story::Transfer& transfer = reading.transfers[rows[i].thread];
    const Box& row = sheet->rows[i];
    Scale scale;
    const auto end = ends.find(rows[i].thread);
    if (end == ends.end() || end->second < i) {
      if (rows[i].facts.empty()) continue;
      const double right = std::max(lanes.x(rows[i].source), lanes.x(rows[i].target)) - kSideGap;
      scale.add(rows[i].from, row.y + kRowMargin + 2);
      scale.add(rows[i].until, row.bottom() - kRowMargin - 2);
      add_ticks(transfer, scale, right - kTickLength, right, sheet);
      continue;
    }
    const std::size_t last = end->second;
    for (std::size_t j = i; j < last; ++j) scale.add(rows[j].from, sheet->rows[j].y + kRowMargin);
    const double bottom = sheet->rows[last].y + sheet->rows[last].height / 2;
    scale.add(rows[last].from, bottom);
    const double lane = lanes.x(transfer.client);
    std::vector<std::size_t>& others = bars[lane];
    const auto place =
        std::find_if(others.begin(), others.end(), [i](std::size_t until) { return until < i; });
    const double left = lane + kBarWidth * static_cast<double>(place - others.begin()) - kBarWidth / 2;
    if (place == others.end()) {
      others.push_back(last);
    } else {
      *place = last;
    }
    sheet->areas.push_back(
        {{left, row.y + kRowMargin, kBarWidth, bottom - row.y - kRowMargin}, Paint::kBand});
    add_ticks(transfer, scale, left, left + kTickLength, sheet);
  }
}

}  // namespace picture
