#include "report/html.h"

#include <algorithm>
#include <optional>

#include "explanation/causes.h"
#include "frames/words.h"
#include "picture/words.h"

namespace report {

namespace {

// No script but the page's own file, nothing from a network, and nothing that a name could begin.
constexpr char kPolicy[] =
    "default-src 'none'; script-src 'self'; style-src 'self'; base-uri 'none'; form-action 'none'";

std::optional<explanation::Owner> known_owner(const std::string& name) {
  for (const explanation::Cause& cause : explanation::causes())
    if (name_of(cause.owner) == name) return cause.owner;
  return std::nullopt;
}

}  // namespace

std::string isolated(std::string_view text) {
  return "<bdi>" + frames::markup(frames::printable_sentence(text)) + "</bdi>";
}

std::string within_script(std::string json) {
  for (std::size_t at = 0; (at = json.find('<', at)) != std::string::npos;) json.replace(at, 1, "\\u003c");
  return json;
}

std::string in_thousands(std::uint64_t number) {
  std::string text = std::to_string(number);
  for (std::size_t at = text.size(); at > 3;) text.insert(at -= 3, ",");
  return text;
}

std::string share_in_words(std::uint64_t part, std::uint64_t whole) {
  if (whole == 0) return "-";
  return picture::decimal(100.0 * static_cast<double>(part) / static_cast<double>(whole), 1) + " %";
}

std::string owner_in_words(const std::string& owner) {
  const std::optional<explanation::Owner> known = known_owner(owner);
  return known ? std::string(words_for(*known)) : owner;
}

std::string color_of(const std::string& owner) {
  return std::string(name_of(known_owner(owner).value_or(explanation::Owner::kUnknown)));
}

std::string bar(double percent) {
  return "<svg class=\"bar\" aria-hidden=\"true\"><rect width=\"" +
         picture::decimal(std::clamp(percent, 0.0, 100.0), 1) + "%\" height=\"100%\"/></svg>";
}

std::string page_head(std::string_view title, std::string_view up,
                      const std::vector<const char*>& style_sheets, const char* script) {
  std::string html =
      "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
      "<meta http-equiv=\"Content-Security-Policy\" content=\"" +
      std::string(kPolicy) +
      "\">\n<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
      "<meta name=\"generator\" content=\"zirn-run\">\n<title>" +
      frames::markup(frames::printable(title)) + "</title>\n";
  for (const char* const file : style_sheets)
    html += "<link rel=\"stylesheet\" href=\"" + std::string(up) + file + "\">\n";
  return html + "<script src=\"" + std::string(up) + script + "\" defer></script>\n</head>\n<body>\n";
}

std::string page_foot() {
  return "</body>\n</html>\n";
}

}  // namespace report
