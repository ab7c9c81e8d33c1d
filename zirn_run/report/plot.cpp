#include "report/plot.h"

#include <algorithm>
#include <array>
#include <ctime>

#include "frames/words.h"
#include "picture/words.h"
#include "report/html.h"

namespace report {

namespace {

using picture::decimal;

constexpr std::int64_t kDay = 86400;
constexpr std::int64_t kWeek = 7 * kDay;

// Places in percent of the drawing.
constexpr double kTop = 6;  // of the yield
constexpr double kBottom = 62;
constexpr double kCountTop = 73;  // of the bars below it
constexpr double kCountBottom = 91;

double yield_of(const Tally& tally) {
  return 100.0 * static_cast<double>(tally.units_passed) / static_cast<double>(tally.units);
}

std::string at(const char* name, double percent) {
  return std::string(" ") + name + "=\"" + decimal(percent, 2) + "%\"";
}

// Where the scale of the yield begins: high yields differ by little.
double least_of_scale(const std::vector<Period>& periods) {
  double least = 100;
  for (const Period& period : periods)
    if (period.tally.units > 0) least = std::min(least, yield_of(period.tally));
  for (const double begin : {90.0, 80.0, 50.0})
    if (least >= begin) return begin;
  return 0;
}

class Plot {
 public:
  Plot(const std::vector<Period>& periods, std::int64_t length)
      : periods_(periods), length_(length), least_(least_of_scale(periods)) {
    for (const Period& period : periods) most_runs_ = std::max(most_runs_, period.tally.runs);
  }

  std::string drawn() const {
    return "<svg class=\"plot\" role=\"img\" aria-label=\"First-pass yield over time; the table below it "
           "says the "
           "same\">\n" +
           grid() + bars() + line() + "</svg>\n";
  }

 private:
  double x(std::size_t place) const {
    return (static_cast<double>(place) + 0.5) * 100 / static_cast<double>(periods_.size());
  }
  double y(double percent) const { return kBottom - (percent - least_) / (100 - least_) * (kBottom - kTop); }
  std::string told(const Period& period) const {
    return moment_in_words(period.from, length_) + ": " +
           share_in_words(period.tally.units_passed, period.tally.units) + " of " +
           frames::counted(period.tally.units, "unit") + " passed at once; " +
           frames::counted(period.tally.runs, "run");
  }

  std::string grid() const {
    std::string svg;
    const auto rule = [&svg](double height, const std::string& words) {
      svg += "<line class=\"grid\"" + at("x1", 0) + at("x2", 100) + at("y1", height) + at("y2", height) +
             "/><text" + at("x", 0) + at("y", height) + " dy=\"-3\">" + words + "</text>\n";
    };
    for (const double percent : {100.0, (100 + least_) / 2, least_})
      rule(y(percent), decimal(percent, 0) + " %");
    rule(kCountTop, in_thousands(most_runs_) + (most_runs_ == 1 ? " run" : " runs"));
    const auto label = [&](std::size_t place, const char* align) {
      const double left = align[0] == 'e' ? 100 : align[0] == 'm' ? x(place) : 0;
      svg += std::string("<text class=\"") + align + "\"" + at("x", left) + at("y", 99) + ">" +
             moment_in_words(periods_[place].from, length_) + "</text>\n";
    };
    label(0, "start");
    if (periods_.size() > 4) label(periods_.size() / 2, "middle");
    if (periods_.size() > 1) label(periods_.size() - 1, "end");
    return svg;
  }

  std::string bars() const {
    std::string svg;
    const double width = std::min(70 / static_cast<double>(periods_.size()), 10.0);
    for (std::size_t i = 0; i < periods_.size(); ++i) {
      if (periods_[i].tally.runs == 0) continue;
      const double height = static_cast<double>(periods_[i].tally.runs) / static_cast<double>(most_runs_) *
                            (kCountBottom - kCountTop);
      svg += "<rect class=\"count\"" + at("x", x(i) - width / 2) + at("y", kCountBottom - height) +
             at("width", width) + at("height", height) + "><title>" + told(periods_[i]) + "</title></rect>\n";
    }
    return svg;
  }

  // A period without a unit has no yield: the line does not go across it.
  std::string line() const {
    std::string lines;
    std::string points;
    double last_x = -1;
    double last_y = 0;
    for (std::size_t i = 0; i < periods_.size(); ++i) {
      if (periods_[i].tally.units == 0) {
        last_x = -1;
        continue;
      }
      const double here = y(yield_of(periods_[i].tally));
      if (last_x >= 0)
        lines += "<line class=\"yield\"" + at("x1", last_x) + at("y1", last_y) + at("x2", x(i)) +
                 at("y2", here) + "/>\n";
      points += "<circle" + at("cx", x(i)) + at("cy", here) + " r=\"5\"><title>" + told(periods_[i]) +
                "</title></circle>\n";
      last_x = x(i);
      last_y = here;
    }
    return lines + points;
  }

  const std::vector<Period>& periods_;
  const std::int64_t length_;  // seconds of a period
  const double least_;
  std::uint64_t most_runs_ = 1;
};

std::string length_in_words(std::int64_t seconds) {
  if (seconds % kWeek == 0) return frames::counted(static_cast<std::uint64_t>(seconds / kWeek), "week");
  if (seconds % kDay == 0) return frames::counted(static_cast<std::uint64_t>(seconds / kDay), "day");
  if (seconds % 3600 == 0) return frames::counted(static_cast<std::uint64_t>(seconds / 3600), "hour");
  if (seconds % 60 == 0) return frames::counted(static_cast<std::uint64_t>(seconds / 60), "minute");
  return frames::counted(static_cast<std::uint64_t>(seconds), "second");
}

std::string as_table(const std::vector<Period>& periods, std::int64_t length) {
  std::string html =
      "<details><summary>The same as a table</summary>\n<table>\n<thead><tr><th scope=\"col\">from (UTC)</th>"
      "<th scope=\"col\" class=\"number\">units</th><th scope=\"col\" class=\"number\">passed at once</th>"
      "<th scope=\"col\" class=\"number\">yield</th><th scope=\"col\" "
      "class=\"number\">runs</th></tr></thead>\n<tbody>\n";
  for (const Period& period : periods) {
    if (period.tally.runs == 0) continue;
    html += "<tr><th scope=\"row\">" + moment_in_words(period.from, length) + "</th>";
    for (const std::string& figure :
         {in_thousands(period.tally.units), in_thousands(period.tally.units_passed),
          share_in_words(period.tally.units_passed, period.tally.units), in_thousands(period.tally.runs)})
      html += "<td class=\"number\">" + figure + "</td>";
    html += "</tr>\n";
  }
  return html + "</tbody>\n</table>\n</details>\n";
}

}  // namespace

std::string moment_in_words(std::int64_t seconds, std::int64_t length) {
  const std::time_t moment = seconds;
  std::tm calendar = {};
  std::array<char, 40> text = {};
  if (gmtime_r(&moment, &calendar) == nullptr) return "";
  const char* const format = length % kDay == 0 ? "%Y-%m-%d"
                             : length % 60 == 0 ? "%Y-%m-%d %H:%M"
                                                : "%Y-%m-%d %H:%M:%S";
  return std::string(text.data(), std::strftime(text.data(), text.size(), format, &calendar));
}

std::string yield_plot(const std::vector<Period>& periods, std::int64_t length) {
  if (periods.empty()) return "<p>No run says when it began.</p>\n";
  return "<p class=\"soft\">Each point: " + length_in_words(length) +
         ", by when a unit had its first run (UTC).</p>\n" + Plot(periods, length).drawn() +
         as_table(periods, length);
}

}  // namespace report
