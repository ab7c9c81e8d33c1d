#include "report/run_page.h"

#include <nlohmann/json.hpp>

#include "frames/words.h"
#include "picture/live.h"
#include "picture/svg.h"
#include "picture/words.h"
#include "report/figures.h"
#include "report/html.h"
#include "report/shown_frames.h"
#include "run_files/run_files.h"
#include "story/story.h"

namespace report {

namespace {

using Json = nlohmann::json;

// Of an explanation that another program made, whatever is there.
std::string text_in(const Json& object, const char* key) {
  const auto found = object.find(key);
  return found != object.end() && found->is_string() ? found->get<std::string>() : "";
}

const Json& list_in(const Json& object, const char* key) {
  static const Json kNone = Json::array();
  const auto found = object.find(key);
  return found != object.end() && found->is_array() ? *found : kNone;
}

std::string number_in(const Json& object, const char* key) {
  const auto found = object.find(key);
  if (found == object.end() || !found->is_number()) return "";
  return found->is_number_float() ? picture::decimal(found->get<double>(), 3) : found->dump();
}

std::string sign_of(const std::string& verdict) {
  const std::string words = verdict == "passed" ? "PASSED" : verdict == "failed" ? "FAILED" : "NO VERDICT";
  return "<span class=\"sign " + frames::markup(verdict) + "\">" + words + "</span>";
}

std::string fact(const char* name, const std::string& html) {
  return html.empty() ? "" : std::string("<dt>") + name + "</dt><dd>" + html + "</dd>\n";
}

// "2026-11-22 12:56:38 UTC".
std::string start_of(const database::Run& run) {
  std::string text = run.started.value_or("");
  if (!seconds_in(text)) return "not known";
  text[10] = ' ';
  return text.substr(0, 19) + " UTC";
}

std::string facts_of(const database::Run& run) {
  const std::string unit =
      run.unit_mac.value_or("no identity") + (run.unit_address ? ", " + *run.unit_address : std::string());
  return "<dl class=\"facts\">\n" + fact("start", frames::markup(start_of(run))) +
         fact("duration", picture::decimal(run.duration, 1) + " s") + fact("station", isolated(run.station)) +
         fact("unit", isolated(unit)) + fact("exit", isolated(run.exit_meaning.value_or("not known"))) +
         fact("record", isolated(run.record) + " on " + isolated(run.record_host)) + "</dl>\n";
}

// "frames 41 to 43", a link that lights them up.
std::string evidence_link(const Json& evidence, const char* key, const std::string& one) {
  const Json& numbers = list_in(evidence, key);
  if (numbers.size() != 2 || !numbers[0].is_number_unsigned() || !numbers[1].is_number_unsigned()) return "";
  const std::string first = numbers[0].dump();
  const std::string last = numbers[1].dump();
  const bool is_one = first == last;
  return "<a class=\"evidence\" href=\"#frame" + (is_one ? "-" + first : "s-" + first + "-" + last) + "\">" +
         one + (is_one ? " " + first : "s " + first + " to " + last) + "</a>";
}

std::string evidence_of(const Json& evidence) {
  const std::string frames = evidence_link(evidence, "frames", "frame");
  const std::string lines = evidence_link(evidence, "lines", "line");
  const std::string both = frames + (frames.empty() || lines.empty() ? "" : ", ") + lines;
  if (both.empty()) return "";
  return " (" + std::string(text_in(evidence, "kind") == "inferred" ? "inferred from " : "") + both + ")";
}

std::string claim_of(const Json& claim) {
  const std::string owner = text_in(claim, "owner");
  std::string html = "<p><b class=\"" + color_of(owner) + "\">" + isolated(owner_in_words(owner)) + "</b> (" +
                     isolated(text_in(claim, "cause")) + "): " + isolated(text_in(claim, "meaning")) +
                     "</p>\n<ul>\n";
  const Json& sentences = list_in(claim, "sentences");
  const Json& evidence = list_in(claim, "evidence");
  for (std::size_t i = 0; i < sentences.size(); ++i) {
    if (!sentences[i].is_string()) continue;
    html += "<li>" + isolated(sentences[i].get<std::string>()) +
            (i < evidence.size() ? evidence_of(evidence[i]) : "") + "</li>\n";
  }
  const std::string advice = text_in(claim, "advice");
  return html + "</ul>\n" + (advice.empty() ? "" : "<p>What to do: " + isolated(advice) + "</p>\n");
}

std::string section(const char* title, const std::string& html) {
  return html.empty() ? "" : std::string("<section>\n<h2>") + title + "</h2>\n" + html + "</section>\n";
}

std::string steps_of(const Json& told) {
  std::string html;
  for (const Json& step : list_in(told, "steps")) {
    const std::string result = text_in(step, "result");
    html += "<tr><th scope=\"row\">" + isolated(text_in(step, "name")) + "</th><td class=\"" +
            frames::markup(result) + "\">" + frames::markup(result) + "</td></tr>\n";
  }
  return html.empty() ? ""
                      : "<div class=\"wide\"><table>\n<thead><tr><th scope=\"col\">step</th><th "
                        "scope=\"col\">result</th></tr></thead>\n<tbody>\n" +
                            html + "</tbody>\n</table></div>\n";
}

std::string reads_of(const Json& told) {
  std::string html;
  for (const Json& read : list_in(told, "reads")) {
    html += "<tr><th scope=\"row\">" + isolated(text_in(read, "file")) + "</th>";
    for (const char* const key : {"bytes", "block_size", "seconds", "blocks", "repeated"})
      html += "<td class=\"number\">" + number_in(read, key) + "</td>";
    const auto finished = read.find("finished");
    const bool is_known = finished != read.end() && finished->is_boolean();
    html += is_known ? finished->get<bool>() ? "<td>yes</td></tr>\n" : "<td class=\"failed\">no</td></tr>\n"
                     : "<td>not known</td></tr>\n";
  }
  if (html.empty()) return "";
  std::string head;
  for (const char* const name : {"bytes", "block size", "seconds", "blocks", "sent again"})
    head += std::string("<th scope=\"col\" class=\"number\">") + name + "</th>";
  return "<div class=\"wide\"><table>\n<thead><tr><th scope=\"col\">file</th>" + head +
         "<th scope=\"col\">finished</th></tr></thead>\n<tbody>\n" + html + "</tbody>\n</table></div>\n";
}

std::string explanation_of(const std::string& json) {
  const Json told = Json::parse(json, nullptr, false);
  if (!told.is_object()) return "<p>The database has no explanation of this run.</p>\n";
  std::string also;
  for (const Json& claim : list_in(told, "also")) also += claim_of(claim);
  std::string lacking;
  for (const Json& one : list_in(told, "incomplete"))
    if (one.is_string()) lacking += "<li>" + isolated(one.get<std::string>()) + "</li>\n";
  const auto fault = told.find("fault");
  return section("Fault", fault != told.end() ? claim_of(*fault) : "") + section("Also seen", also) +
         section("What the record lacks", lacking.empty() ? "" : "<ul>\n" + lacking + "</ul>\n") +
         section("Steps", steps_of(told)) + section("Reads", reads_of(told));
}

constexpr char kTools[] =
    "<div class=\"viewer\">\n<div class=\"tools\" hidden role=\"toolbar\" aria-label=\"Picture\">\n"
    "<button type=\"button\" id=\"farther\" aria-label=\"Smaller\">&minus;</button>\n"
    "<output id=\"zoom\" aria-label=\"Size\"></output>\n"
    "<button type=\"button\" id=\"nearer\" aria-label=\"Larger\">+</button>\n"
    "<button type=\"button\" id=\"fitting\">Fit</button>\n"
    "<button type=\"button\" id=\"fold\">Fold transfers</button>\n"
    "<button type=\"button\" id=\"unfold\">Unfold transfers</button>\n</div>\n";
constexpr char kPane[] =
    "<div class=\"pane\" tabindex=\"0\" role=\"region\" aria-label=\"Picture of the run\">\n<div>";
constexpr char kBelowPane[] =
    "</div>\n</div>\n<div id=\"frame\" hidden aria-live=\"polite\"><b>The bytes of a frame</b>"
    "<pre>Point at a row, or go there by Tab and up and down; left and right go through its frames.\n"
    "A click puts the frame into the page's address, to be sent to a colleague.</pre></div>\n</div>\n";

std::string row_of(const picture::LiveRow& row) {
  frames::Numbers numbers = row.frames;
  numbers.add(row.lines);
  const std::string first = std::to_string(numbers.first);
  const std::string last = std::to_string(numbers.last);
  std::string item = row.is_hidden ? "<li hidden" : "<li";
  if (row.is_short) item += " data-short";
  if (row.transfer != story::kNone) item += " data-transfer=\"" + std::to_string(row.transfer) + "\"";
  std::string link = "<a";
  if (numbers.count > 0) {
    item += " data-first=\"" + first + "\" data-last=\"" + last + "\"";
    link += " href=\"#frame" + (first == last ? "-" + first : "s-" + first + "-" + last) + "\"";
  }
  return item + ">" + link + ">" + row.svg + "<span class=\"aside\">" + frames::markup(row.words) +
         "</span></a></li>\n";
}

std::string picture_of(const story::Reading& reading, const std::string& record) {
  const picture::Live live = picture::live_picture_of(reading);
  std::string html = picture::shared_by_strips() + kTools + kPane + live.legend +
                     "</div>\n<div class=\"lanes\">" + live.lanes +
                     "</div>\n<ol class=\"rows\" data-width=\"" + picture::decimal(live.width, 0) + "\">\n";
  for (const picture::LiveRow& row : live.rows) html += row_of(row);
  return html + "</ol>\n<div>" + live.foot + kBelowPane + "<script type=\"application/json\" id=\"frames\">" +
         within_script(contents_of(frames_to_show(live), record, reading.first)) + "</script>\n";
}

// Why there is no picture is said in its place.
std::string picture_of(const std::string& record) {
  if (record.empty()) return "<p>The record was not here when this page was made.</p>\n";
  try {
    story::Story story;
    run_files::tell({record, {}, {}}, &story);
    return picture_of(story.reading(), record);
  } catch (const std::exception& error) {
    return "<p>" + isolated(error.what()) + "</p>\n";
  }
}

}  // namespace

std::string run_page(const database::Run& run, const std::string& explanation, const std::string& record) {
  return page_head(run.name, "../", {"report.css", "picture.css"}, "run.js") +
         "<nav><a href=\"../index.html\">All runs</a></nav>\n<main>\n<h1>" + isolated(run.name) + " " +
         sign_of(run.verdict) + "</h1>\n" + facts_of(run) + explanation_of(explanation) +
         section("Picture", picture_of(record)) + "</main>\n" + page_foot();
}

}  // namespace report
