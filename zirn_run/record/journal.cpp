#include "record/journal.h"

#include <algorithm>

#include "record/description.h"
#include "record/journal_text.h"

namespace record {

std::optional<Entry> JournalReader::next() {
  if (has_ended_) return std::nullopt;
  Entry entry;
  bool has_begun = false;
  std::size_t wanted = 1;
  while (true) {
    const std::string_view there = input_.at_least(wanted);
    if (there.size() < wanted && !input_.error().empty())
      return ends("the file cannot be read any further: " + input_.error());
    if (there.size() < wanted && (has_begun || !there.empty()))
      return ends("the file is cut short: an entry has no end");
    if (there.size() < wanted) return ends("");
    std::string_view rest = there;
    const journal_text::Taken taken = journal_text::take_field(&rest, kMostFieldBytes, &entry);
    if (taken == journal_text::Taken::kWrong)
      return ends("neither NAME=value nor a field of bytes that fits its length");
    if (taken == journal_text::Taken::kEntryEnd && !has_fields_)
      beginning_.resize(std::min(beginning_.size() + 1, kDescribedBytes), '\n');
    input_.take(there.size() - rest.size());
    wanted = taken == journal_text::Taken::kMore ? there.size() + 1 : 1;
    if (taken == journal_text::Taken::kEntryEnd && has_begun) return entry;
    has_begun = has_begun || taken == journal_text::Taken::kField;
    has_fields_ = has_fields_ || has_begun;
  }
}

std::optional<Entry> JournalReader::ends(const std::string& why) {
  has_ended_ = true;
  if (why.empty()) return std::nullopt;
  problem_ = "byte " + std::to_string(input_.position()) + ": " + why;
  if (has_fields_) return std::nullopt;
  beginning_ += input_.at_least(kDescribedBytes);
  problem_ = "expected the journal as `journalctl -o export` writes it, found " +
             (input_.error().empty() ? description_of(beginning_) : "none: " + input_.error());
  return std::nullopt;
}

std::optional<Line> LogReader::next() {
  if (input_.position() == 0) look_at_beginning();
  if (!other_.empty()) return std::nullopt;
  std::string_view there = input_.at_least(1);
  std::size_t end = there.find('\n');
  while (end == std::string_view::npos && there.size() <= kMostLineBytes) {
    const std::size_t known = there.size();
    there = input_.at_least(known + 1);
    if (there.size() == known) break;
    end = there.find('\n', known);
  }
  if (there.empty()) return std::nullopt;
  const std::size_t size = std::min({end, there.size(), kMostLineBytes});
  Line line{std::string(there.substr(0, size))};
  input_.take(size == end ? size + 1 : size);
  return line;
}

// Names that come over the wire have any bytes but NUL.
void LogReader::look_at_beginning() {
  constexpr std::size_t kLookedAtBytes = 4096;
  const std::string_view beginning = input_.at_least(kLookedAtBytes).substr(0, kLookedAtBytes);
  if (beginning.find('\0') == std::string_view::npos) return;
  other_ = description_of(beginning);
  if (other_ == "text") other_ = "text with NUL bytes";
}

std::string LogReader::problem() const {
  const std::string expected = "expected the station's lines, found ";
  if (!other_.empty()) return expected + other_;
  if (input_.error().empty()) return {};
  if (input_.position() == 0) return expected + "none: " + input_.error();
  return "byte " + std::to_string(input_.position()) +
         ": the file cannot be read any further: " + input_.error();
}

}  // namespace record
