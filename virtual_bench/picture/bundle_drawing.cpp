#include "picture/bundle_drawing.h"

#include <algorithm>
#include <string>
#include <vector>

#include "picture/words.h"

namespace picture {

namespace {

constexpr double kMargin = 5;    // above and below the band
constexpr double kPadding = 8;   // inside
constexpr double kSideGap = 10;  // to the life lines
constexpr double kTickLength = 14;
constexpr double kTickDistance = 4;
constexpr double kTicksToWords = 18;
constexpr double kMinHeightWithTicks = 7 * kTextHeight;
constexpr std::size_t kMaxNameLines = 2;
constexpr double kMebibyte = 1048576;

struct Counts {
  std::size_t data_again = 0;
  std::size_t acks_again = 0;
  std::size_t data_lost = 0;
  std::size_t acks_lost = 0;
  std::size_t duplicated = 0;
  std::size_t swapped = 0;
};

void count(const BundlePacket& packet, Counts* counts) {
  counts->data_again += packet.is_data && packet.is_again ? 1 : 0;
  counts->acks_again += !packet.is_data && packet.is_again ? 1 : 0;
  counts->data_lost += packet.is_data && packet.fate.lost ? 1 : 0;
  counts->acks_lost += !packet.is_data && packet.fate.lost ? 1 : 0;
  counts->duplicated += packet.fate.duplicated ? 1 : 0;
  counts->swapped += packet.fate.swapped ? 1 : 0;
}

void add_words(std::string* text, const std::string& words) {
  *text += (text->empty() ? "" : ", ") + words;
}

// Blocks and ACKs of which one thing is true, as "2 blocks and 1 ACK lost".
void add_pair(std::string* text, std::size_t blocks, std::size_t acks, const std::string& what) {
  std::string words;
  if (blocks > 0) words = counted(blocks, "block");
  if (acks > 0) words += (words.empty() ? "" : " and ") + counted(acks, "ACK");
  if (!words.empty()) add_words(text, words + " " + what);
}

void add_order(const Counts& counts, std::string* text) {
  if (counts.duplicated > 0) add_words(text, std::to_string(counts.duplicated) + " duplicated");
  if (counts.swapped > 0) add_words(text, std::to_string(counts.swapped) + " swapped");
}

std::string in_words(const Counts& counts) {
  std::string text;
  add_pair(&text, counts.data_lost, counts.acks_lost, "lost");
  add_pair(&text, counts.data_again, counts.acks_again, "sent again");
  add_order(counts, &text);
  return text;
}

bool went_straight(const BundlePacket& packet) {
  return !packet.is_again && !packet.fate.lost && !packet.fate.duplicated && !packet.fate.swapped;
}

std::string speed_of(const Bundle& bundle) {
  const Microseconds time = bundle.packets.back().at - bundle.packets.front().at;
  std::string text = seconds(time, 3) + " s";
  if (time <= 0) return text;
  const double per_second = static_cast<double>(bundle.byte_count) / (static_cast<double>(time) / 1e6);
  return text + ", " + decimal(per_second / kMebibyte, per_second < kMebibyte ? 3 : 1) + " MiB/s";
}

std::string blocks_of(const Event& event) {
  const std::vector<BundlePacket>& packets = event.bundle->packets;
  const std::size_t first = std::max<std::size_t>(packets[event.first].ordinal, 1);
  const std::size_t last = packets[event.last - 1].ordinal;
  if (first >= last) return "block " + std::to_string(last);
  return "blocks " + std::to_string(first) + " to " + std::to_string(last);
}

// What the band says under its name: everything in the first part, the blocks in each.
std::vector<std::string> facts_of(const Event& event) {
  const Bundle& bundle = *event.bundle;
  if (event.first > 0) return {"goes on, " + blocks_of(event)};
  Counts counts;
  for (const BundlePacket& packet : bundle.packets) count(packet, &counts);
  std::vector<std::string> facts{counted(bundle.byte_count, "byte") + ", " + counted(bundle.blocks, "block") +
                                     " of " + std::to_string(bundle.block_size) + " bytes",
                                 speed_of(bundle)};
  const std::string damage = in_words(counts);
  if (!damage.empty()) facts.push_back("in all: " + damage);
  if (!bundle.finished) facts.push_back("not finished");
  if (event.last < bundle.packets.size()) facts.push_back("here " + blocks_of(event));
  return facts;
}

// Short enough to stand beside the band.
std::string in_few_words(const Counts& counts) {
  const std::size_t lost = counts.data_lost + counts.acks_lost;
  const std::size_t again = counts.data_again + counts.acks_again;
  std::string text;
  if (lost > 0) add_words(&text, std::to_string(lost) + " lost");
  if (again > 0) add_words(&text, std::to_string(again) + " again");
  add_order(counts, &text);
  return text;
}

// Equal parts of the band, from above, and what happened in the time of each.
std::vector<Counts> counts_in_parts(const Event& event, std::size_t parts) {
  std::vector<Counts> counts(parts);
  const auto length = static_cast<double>(std::max<Microseconds>(event.until - event.from, 1));
  for (std::size_t i = event.first; i < event.last; ++i) {
    const BundlePacket& packet = event.bundle->packets[i];
    const double share = std::clamp(static_cast<double>(packet.at - event.from) / length, 0.0, 1.0);
    const auto part = static_cast<std::size_t>(share * static_cast<double>(parts));
    count(packet, &counts[std::min(part, parts - 1)]);
  }
  return counts;
}

// Where several packets share a place, one that was lost is the one that shows.
void add_ticks(const Event& event, const Box& band, Sheet* sheet) {
  const double right = band.x + band.width;
  double y = band.y + kTickDistance / 2;
  for (const Counts& counts : counts_in_parts(event, static_cast<std::size_t>(band.height / kTickDistance))) {
    const bool lost = counts.data_lost + counts.acks_lost > 0;
    if (!in_few_words(counts).empty()) {
      sheet->strokes.push_back({right - kTickLength, y, right, y, lost ? Pen::kLost : Pen::kAgain});
    }
    y += kTickDistance;
  }
}

// The counts stand beside the ticks, once for every line of text that fits.
void add_counts(const Event& event, const Box& band, Sheet* sheet) {
  const std::vector<Counts> all = counts_in_parts(event, static_cast<std::size_t>(band.height / kTextHeight));
  const double height = band.height / static_cast<double>(all.size());
  const double x = band.x + band.width + kTicksToWords;
  double middle = band.y + height / 2;
  for (const Counts& counts : all) {
    const std::string words = in_few_words(counts);
    if (!words.empty()) {
      const std::string line = wrapped(words, kPptServerX - x - kSideGap, label_width, 1).front();
      const Box box{x, middle - kTextHeight / 2, label_width(line), kTextHeight};
      sheet->texts.push_back({box, line, Text::Font::kLabel, Text::Align::kLeft, false});
    }
    middle += height;
  }
}

double add_line(const std::string& line, Text::Font font, double x, double y, Sheet* sheet) {
  const double width = font == Text::Font::kBold ? bold_label_width(line) : label_width(line);
  sheet->texts.push_back({{x, y, width, kTextHeight}, line, font, Text::Align::kLeft, false});
  return y + kTextHeight;
}

}  // namespace

double draw_bundle(const Event& event, double top, Sheet* sheet) {
  const double left = std::min(x_of(event.source), x_of(event.target)) + kSideGap;
  const double right = std::max(x_of(event.source), x_of(event.target)) - kSideGap;
  const double room = right - left - 2 * kPadding - kTickLength;
  double y = top + kMargin + kPadding;
  const std::string name = event.bundle->name.empty() ? "(no name)" : event.bundle->name;
  for (const std::string& line : wrapped(name, room, bold_label_width, kMaxNameLines)) {
    y = add_line(line, Text::Font::kBold, left + kPadding, y, sheet);
  }
  for (const std::string& fact : facts_of(event)) {
    for (const std::string& line : wrapped(fact, room, label_width, kMaxNameLines)) {
      y = add_line(line, Text::Font::kLabel, left + kPadding, y, sheet);
    }
  }
  const auto begin = event.bundle->packets.begin();
  const auto first = begin + static_cast<std::ptrdiff_t>(event.first);
  const bool is_straight = std::all_of(first, begin + static_cast<std::ptrdiff_t>(event.last), went_straight);
  const double height =
      std::max(y + kPadding - top - kMargin, is_straight ? 2 * kTextHeight + 4 : kMinHeightWithTicks);
  const Box band{left, top + kMargin, right - left, height};
  sheet->areas.push_back({band, Area::Paint::kBundle});
  if (!is_straight) add_ticks(event, band, sheet);
  // To the right of a band that ends at the PPT server, there is no room for words.
  if (!is_straight && right < kUnitX) add_counts(event, band, sheet);
  const bool to_the_right = x_of(event.source) < x_of(event.target);
  const double middle = band.y + band.height / 2;
  sheet->heads.push_back(
      {to_the_right ? right + kSideGap : left - kSideGap, middle, to_the_right, Pen::kDatagram});
  return height + 2 * kMargin;
}

}  // namespace picture
