#include "report/overview.h"

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>

#include "explanation/causes.h"
#include "frames/words.h"
#include "picture/words.h"
#include "report/html.h"
#include "report/plot.h"

namespace report {

namespace {

using Json = nlohmann::json;
using frames::counted;
using frames::printable;

constexpr std::size_t kMostBars = 25;        // of a Pareto
constexpr std::size_t kMostStations = 1000;  // in the comparison
constexpr std::size_t kMostSentence = 200;   // bytes, up to the end of a letter
constexpr double kStandsOut = 3;             // times the median of the stations

std::string seconds(float time) {
  return picture::decimal(static_cast<double>(time), 1) + " s";
}

double per_run(std::uint64_t count, const Tally& tally) {
  return static_cast<double>(count) / static_cast<double>(std::max<std::uint64_t>(tally.runs, 1));
}

// Of a cause that a newer program found, its owner alone is known.
std::string meaning_of(const std::string& id) {
  for (const explanation::Cause& cause : explanation::causes())
    if (cause.id == id) return std::string(cause.meaning);
  return "";
}

std::string tile(const std::string& name, const std::string& figure, const std::string& more) {
  return "<div><dt>" + name + "</dt><dd class=\"figure\">" + figure + "</dd><dd>" + more + "</dd></div>\n";
}

std::string tiles(const Overview& overview) {
  const Tally all = overview.figures.all();
  const std::uint64_t without = overview.figures.without_identity();
  const std::string of_units = all.units == 0
                                   ? "no run shows whose it is"
                                   : "of " + in_thousands(all.units) + (all.units == 1 ? " unit" : " units") +
                                         " passed in their first run";
  std::string html = "<dl class=\"tiles\">\n";
  html += tile("First-pass yield", share_in_words(all.units_passed, all.units), of_units);
  html += tile("Runs", in_thousands(all.runs),
               in_thousands(all.passed) + " passed, " + in_thousands(all.failed) + " failed, " +
                   in_thousands(all.runs - all.passed - all.failed) + " without a verdict");
  html += tile("Units", in_thousands(all.units),
               without == 0 ? "every run shows whose it is"
                            : in_thousands(without) + (without == 1 ? " run shows" : " runs show") +
                                  " no identity (no MAC) and " + (without == 1 ? "is" : "are") +
                                  " in no first-pass figure");
  html += tile("Duration of a run", seconds(all.median),
               "median; 95 of 100 runs stay within " + seconds(all.most));
  return html + "</dl>\n";
}

std::string yield_of(const Figures& figures) {
  const std::vector<Period> periods = figures.periods();
  const std::uint64_t without = periods.empty() ? 0 : figures.without_time();
  std::string html = "<section aria-labelledby=\"yield\">\n<h2 id=\"yield\">First-pass yield</h2>\n" +
                     yield_plot(periods, figures.seconds_of_a_period());
  if (without > 0)
    html += "<p class=\"soft\">" + in_thousands(without) +
            (without == 1 ? " run does not say when it began and is"
                          : " runs do not say when they began and are") +
            " not in this plot.</p>\n";
  return html + "</section>\n";
}

// A link to the runs of the table that have this value; the value is escaped for an address.
std::string filter_link(const std::string& key, const std::string& value, const std::string& words) {
  static const char* const kDigits = "0123456789ABCDEF";
  std::string address = "#" + key + "=";
  for (const char letter : printable(value)) {
    const auto byte = static_cast<unsigned char>(letter);
    const bool is_plain = std::isalnum(byte) != 0 || letter == '-' || letter == '.' || letter == '_';
    address +=
        is_plain ? std::string(1, letter) : std::string("%") + kDigits[byte >> 4U] + kDigits[byte & 15U];
  }
  return "<a href=\"" + address + "\">" + words + "</a>";
}

struct Column {
  const char* name;  // empty: of bars
  const char* look = "";
  const char* key = "";  // by which the page's script sorts; empty: not at all
};

std::string head_of(const std::vector<Column>& columns) {
  std::string html = "<thead><tr>";
  for (const Column& column : columns) {
    const std::string key = *column.key == '\0' ? "" : std::string(" data-key=\"") + column.key + "\"";
    const std::string look = key + " class=\"" + column.look + "\">";
    html +=
        *column.name == '\0' ? "<td" + look + "</td>" : "<th scope=\"col\"" + look + column.name + "</th>";
  }
  return html + "</tr></thead>\n<tbody>\n";
}

std::string number_cell(const std::string& text, const char* look = "") {
  return std::string("<td class=\"number ") + look + "\">" + text + "</td>";
}

// The same of a number that the page's script can sort by.
std::string number_cell(double value, const std::string& text, const char* look = "") {
  return "<td data-value=\"" + picture::decimal(value, 3) + "\" class=\"number " + look + "\">" + text +
         "</td>";
}

// One line of a Pareto: its count, its share, the share of all up to it, and a bar.
class Pareto {
 public:
  Pareto(std::uint64_t most, std::uint64_t total) : most_(most), total_(total) {}

  std::string cells(std::uint64_t count, const std::string& color) {
    so_far_ += count;
    const double percent = 100.0 * static_cast<double>(count) / static_cast<double>(most_);
    return number_cell(in_thousands(count)) + number_cell(share_in_words(count, total_)) +
           number_cell(share_in_words(so_far_, total_), "less") + "<td class=\"bar " + color + "\">" +
           bar(percent) + "</td>";
  }

 private:
  const std::uint64_t most_;
  const std::uint64_t total_;
  std::uint64_t so_far_ = 0;
};

std::string rest_in_words(std::size_t rest, const char* what) {
  return rest == 0 ? ""
                   : "<p class=\"soft\">" + counted(rest, std::string("rarer ") + what) + " left out.</p>\n";
}

std::string causes_of(const Overview& overview) {
  const std::vector<CauseCount> causes = overview.figures.causes();
  std::string html =
      "<section aria-labelledby=\"causes\">\n<h2 id=\"causes\">Causes, by who is to act</h2>\n";
  if (causes.empty())
    return html + "<p>" +
           (overview.table.empty() ? "There are no runs." : "Every run passed without a fault.") +
           "</p>\n</section>\n";
  std::uint64_t total = 0;
  for (const CauseCount& one : causes) total += one.runs;
  Pareto pareto(causes.front().runs, total);
  html +=
      "<div class=\"wide\"><table>\n<caption>Runs by the cause of their fault, the most frequent "
      "first</caption>\n" +
      head_of({{"owner"},
               {"cause"},
               {"runs", "number"},
               {"share", "number"},
               {"up to here", "number less"},
               {"", "bar"}});
  for (std::size_t i = 0; i < std::min(causes.size(), kMostBars); ++i) {
    const auto& [owner, cause, runs] = causes[i];
    const std::string color = color_of(owner);
    html += "<tr><td class=\"owner " + color + "\">" +
            filter_link("owner", owner, isolated(owner_in_words(owner))) + "</td><th scope=\"row\">" +
            filter_link("cause", cause, isolated(cause)) + "<br><span class=\"soft\">" +
            frames::markup(meaning_of(cause)) + "</span></th>" + pareto.cells(runs, color) + "</tr>\n";
  }
  return html + "</tbody>\n</table></div>\n" +
         rest_in_words(causes.size() - std::min(causes.size(), kMostBars), "cause") + "</section>\n";
}

std::string steps_of(const Overview& overview) {
  const auto steps = overview.figures.steps();
  std::string html = "<section aria-labelledby=\"steps\">\n<h2 id=\"steps\">Failing steps</h2>\n";
  if (steps.empty()) return html + "<p>No unit said of a step that it failed.</p>\n</section>\n";
  std::uint64_t total = 0;
  for (const auto& [step, runs] : steps) total += runs;
  Pareto pareto(steps.front().second, total);
  html +=
      "<div class=\"wide\"><table>\n<caption>Runs by the first step that failed</caption>\n" +
      head_of(
          {{"step"}, {"runs", "number"}, {"share", "number"}, {"up to here", "number less"}, {"", "bar"}});
  for (std::size_t i = 0; i < std::min(steps.size(), kMostBars); ++i)
    html += "<tr><th scope=\"row\">" + filter_link("step", steps[i].first, isolated(steps[i].first)) +
            "</th>" + pareto.cells(steps[i].second, "unit") + "</tr>\n";
  return html + "</tbody>\n</table></div>\n" +
         rest_in_words(steps.size() - std::min(steps.size(), kMostBars), "step") + "</section>\n";
}

using Stations = std::vector<std::pair<std::string, Tally>>;

// Above which a station's count per run stands out among the others.
double limit_of(const Stations& stations, std::uint64_t Tally::*count) {
  std::vector<double> all;
  for (const auto& [name, tally] : stations) all.push_back(per_run(tally.*count, tally));
  const auto middle = all.begin() + static_cast<std::ptrdiff_t>(all.size() / 2);
  std::nth_element(all.begin(), middle, all.end());
  return std::max(*middle * kStandsOut, 1.0);
}

std::string stations_of(const Overview& overview) {
  Stations stations = overview.figures.stations();
  if (stations.empty()) return "";
  const double lost = limit_of(stations, &Tally::frames_lost);
  const double repeated = limit_of(stations, &Tally::blocks_repeated);
  std::string html =
      "<section aria-labelledby=\"stations\">\n<h2 id=\"stations\">Stations</h2>\n<div "
      "class=\"wide\"><table id=\"compared\">\n"
      "<caption>What is more than three times the middle station's, and more than one per run, is marked "
      "<b class=\"failed\">high</b></caption>\n" +
      head_of({{"station", "", "station"},
               {"runs", "number", "runs"},
               {"units", "number", "units"},
               {"first-pass yield", "number", "yield"},
               {"", "bar"},
               {"lost frames per run", "number", "lost"},
               {"repeated blocks per run", "number", "repeated"},
               {"median", "number", "median"},
               {"95 of 100 within", "number", "most"}});
  for (std::size_t i = 0; i < std::min(stations.size(), kMostStations); ++i) {
    const auto& [name, tally] = stations[i];
    const bool has_many = stations.size() > 2;
    const auto damage = [&, &one = tally](std::uint64_t count, double limit) {
      const bool stands_out = has_many && per_run(count, one) > limit;
      return number_cell(per_run(count, one),
                         picture::decimal(per_run(count, one), 1) + (stands_out ? " (high)" : ""),
                         stands_out ? "out" : "");
    };
    const double yield =
        tally.units == 0 ? 0
                         : 100.0 * static_cast<double>(tally.units_passed) / static_cast<double>(tally.units);
    html += "<tr><th scope=\"row\">" + filter_link("station", name, isolated(name)) + "</th>" +
            number_cell(static_cast<double>(tally.runs), in_thousands(tally.runs)) +
            number_cell(static_cast<double>(tally.units), in_thousands(tally.units)) +
            number_cell(tally.units == 0 ? -1 : yield, share_in_words(tally.units_passed, tally.units)) +
            "<td class=\"bar test-network\">" + bar(yield) + "</td>" + damage(tally.frames_lost, lost) +
            damage(tally.blocks_repeated, repeated) +
            number_cell(static_cast<double>(tally.median), seconds(tally.median)) +
            number_cell(static_cast<double>(tally.most), seconds(tally.most)) + "</tr>\n";
  }
  return html + "</tbody>\n</table></div>\n" +
         rest_in_words(stations.size() - std::min(stations.size(), kMostStations), "station") +
         "</section>\n";
}

// A text for each number, and the number of each text.
class Dictionary {
 public:
  std::size_t number_of(const std::string& text) {
    const auto [place, is_new] = numbers_.emplace(text, numbers_.size());
    if (is_new) texts_.push_back(printable(text));
    return place->second;
  }
  const Json& texts() const { return texts_; }

 private:
  std::map<std::string, std::size_t> numbers_;
  Json texts_ = Json::array();
};

std::string sentence_of(const database::Run& run) {
  return run.fault_owner == "none" ? "" : printable(run.fault_sentence, kMostSentence);
}

Json data_of(const std::vector<TableRun>& table) {
  Dictionary stations;
  Dictionary steps;
  Dictionary verdicts;
  Dictionary causes;
  Json named_causes = Json::array();
  Json runs = Json::array();
  for (const auto& [run, has_page] : table) {
    const std::size_t cause = causes.number_of(run.fault_owner + "\n" + run.fault_cause);
    if (cause == named_causes.size())
      named_causes.push_back({printable(run.fault_cause), printable(run.fault_owner),
                              printable(owner_in_words(run.fault_owner)), color_of(run.fault_owner)});
    runs.push_back({run.started.value_or(""), printable(run.name), stations.number_of(run.station),
                    printable(run.unit_mac.value_or("")), verdicts.number_of(run.verdict), cause,
                    steps.number_of(run.failed_step.value_or("")), run.duration, run.frames_lost,
                    run.blocks_repeated, sentence_of(run), has_page ? run.content : ""});
  }
  return {{"stations", stations.texts()},
          {"steps", steps.texts()},
          {"verdicts", verdicts.texts()},
          {"causes", named_causes},
          {"runs", runs}};
}

std::string choice(const char* name, const char* words,
                   const std::vector<std::pair<std::string, std::string>>& values) {
  std::string html =
      std::string("<label>") + words + " <select name=\"" + name + "\"><option value=\"\">all</option>";
  for (const auto& [value, told] : values)
    html += "<option value=\"" + frames::markup(value) + "\">" + frames::markup(told) + "</option>";
  return html + "</select></label>\n";
}

std::string filter_of(const Json& data) {
  std::map<std::string, std::string> owners;
  for (const Json& cause : data["causes"]) owners.emplace(cause[1], cause[2]);
  std::map<std::string, std::string> stations;
  for (const Json& station : data["stations"]) stations.emplace(station, station);
  return "<form class=\"filter\" id=\"filter\" role=\"search\" aria-label=\"Runs\">\n"
         "<label>search <input type=\"search\" name=\"search\" autocomplete=\"off\"></label>\n" +
         choice("verdict", "verdict", {{"passed", "passed"}, {"failed", "failed"}, {"none", "no verdict"}}) +
         choice("owner", "fault", {owners.begin(), owners.end()}) +
         choice("station", "station", {stations.begin(), stations.end()}) +
         "<button type=\"reset\">Show all</button>\n</form>\n";
}

std::string column(const char* key, const char* words, const char* look) {
  return std::string("<th scope=\"col\" data-key=\"") + key + "\" class=\"" + look +
         "\"><button type=\"button\">" + words + "</button></th>";
}

std::string table_of(const Overview& overview) {
  const Json data = data_of(overview.table);
  const std::uint64_t left_out = overview.figures.all().runs - overview.table.size();
  std::string html = "<section aria-labelledby=\"table-of-runs\">\n<h2 id=\"table-of-runs\">Runs</h2>\n";
  if (left_out > 0)
    html += "<p>The newest " + in_thousands(overview.table.size()) + " runs are in the table; " +
            in_thousands(left_out) + " older ones are in the figures above only.</p>\n";
  return html +
         "<noscript><p>The table needs the page's own script.</p></noscript>\n<div id=\"table\" hidden>\n" +
         filter_of(data) +
         "<p role=\"status\" id=\"shown\"></p>\n<p id=\"on-paper\"></p>\n<div class=\"wide\"><table "
         "id=\"runs\">\n"
         "<caption class=\"aside\">Runs; the buttons in the head sort</caption>\n<thead><tr>" +
         column("start", "start (UTC)", "") + column("name", "run", "") +
         column("station", "station", "less") + column("unit", "unit", "less") +
         column("verdict", "verdict", "") + column("fault", "fault", "") +
         column("step", "failed step", "less") + column("duration", "seconds", "number less") +
         column("lost", "lost", "number less") + column("repeated", "again", "number less") +
         "</tr></thead>\n<tbody></tbody>\n</table></div>\n<button type=\"button\" id=\"more\" "
         "hidden></button>\n</div>\n"
         "<script type=\"application/json\" id=\"data\">" +
         within_script(data.dump(-1, ' ', false, Json::error_handler_t::replace)) + "</script>\n</section>\n";
}

std::string unreadable_of(const Overview& overview) {
  if (overview.unreadable_count == 0) return "";
  std::string html =
      "<section aria-labelledby=\"unreadable\">\n<h2 id=\"unreadable\">Files that could not be read</h2>\n"
      "<p>" +
      counted(overview.unreadable_count, "file") + " in no figure above" +
      (overview.unreadable_count > overview.unreadable.size() ? ", of which the first are" : "") +
      ":</p>\n<div class=\"wide\"><table>\n" + head_of({{"host"}, {"file"}, {"reason"}});
  for (const NotRead& one : overview.unreadable)
    html += "<tr><td>" + isolated(one.host) + "</td><th scope=\"row\">" + isolated(one.path) + "</th><td>" +
            isolated(one.reason) + "</td></tr>\n";
  return html + "</tbody>\n</table></div>\n</section>\n";
}

}  // namespace

std::string html_of(const Overview& overview) {
  return page_head("Test runs", "", {"report.css"}, "overview.js") + "<h1>Test runs</h1>\n<main>\n" +
         tiles(overview) + yield_of(overview.figures) + causes_of(overview) + steps_of(overview) +
         stations_of(overview) + table_of(overview) + unreadable_of(overview) + "</main>\n" + page_foot();
}

}  // namespace report
