#ifndef REPORT_HTML_H
#define REPORT_HTML_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// What the pages are written with. Nothing that came from outside stands in one but through these and frames::markup.
namespace report {

// For words: made printable as a whole, and read in its own direction whatever stands around it.
std::string isolated(std::string_view text);

// For <script type="application/json">: no end tag and no comment begins in it.
std::string within_script(std::string json);

// "1,234,567"
std::string in_thousands(std::uint64_t number);

// "93.1 %"; "-" where there is nothing to divide by.
std::string share_in_words(std::uint64_t part, std::uint64_t whole);

// "PPT server" for "ppt-server"; as it is where it is not known.
std::string owner_in_words(const std::string& owner);

// The class of an owner's colour.
std::string color_of(const std::string& owner);

// A bar of so many percent, to stand beside its number.
std::string bar(double percent);

// The page up to its body, and what closes it. `up`: "" for a page at the top of the folder, "../" for one below it,
// where the files are.
std::string page_head(std::string_view title, std::string_view up,
                      const std::vector<const char*>& style_sheets, const char* script);
std::string page_foot();

}  // namespace report

#endif
