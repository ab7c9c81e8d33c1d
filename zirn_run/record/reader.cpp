#include "record/reader.h"

#include <algorithm>
#include <limits>

#include "record/byte_order.h"
#include "record/description.h"
#include "record/journal_text.h"
#include "record/pcapng.h"

namespace record {

namespace {

constexpr std::uint32_t kPcapMicroseconds = 0xa1b2c3d4;
constexpr std::uint32_t kPcapNanoseconds = 0xa1b23c4d;
constexpr std::size_t kMagicBytes = 4;
constexpr std::string_view kOurs = "zirn-run ";
constexpr std::size_t kPcapHeaderBytes = 24;
constexpr std::size_t kPcapFrameHeaderBytes = 16;
constexpr std::size_t kSmallestBlockBytes = 12;
constexpr Nanoseconds kSecond = 1000000000;
constexpr unsigned kNanosecondExponent = 9;
constexpr std::uint8_t kBinaryExponent = 0x80;  // of if_tsresol
constexpr Nanoseconds kLatest = std::numeric_limits<Nanoseconds>::max();
constexpr Nanoseconds kEarliest = std::numeric_limits<Nanoseconds>::min();

// Ends the items; what is said about the place where they end.
struct Damage {
  std::string what;
};

std::uint64_t power_of_ten(unsigned exponent) {
  std::uint64_t power = 1;
  while (exponent-- > 0) power *= 10;
  return power;
}

// The sum, or the end of the range that it is beyond.
Nanoseconds within_range(std::uint64_t seconds, std::uint64_t nanoseconds, std::int64_t offset_seconds) {
  constexpr std::int64_t kMostSeconds = kLatest / kSecond;
  constexpr std::uint64_t kManySeconds = std::uint64_t{1} << 62U;  // and an offset: no overflow
  if (offset_seconds > kMostSeconds) return kLatest;
  if (offset_seconds < -2 * kMostSeconds) return kEarliest;
  const auto sum = static_cast<std::int64_t>(std::min(seconds, kManySeconds)) + offset_seconds;
  if (sum > kMostSeconds) return kLatest;
  if (sum < -kMostSeconds) return kEarliest;
  const Nanoseconds whole = sum * kSecond;
  const auto rest = static_cast<Nanoseconds>(nanoseconds);
  return whole > kLatest - rest ? kLatest : whole + rest;
}

}  // namespace

Nanoseconds Clock::nanoseconds(std::uint64_t ticks) const {
  if (is_binary) {
    // So many bits of the fraction that their product with a second's nanoseconds stays below 2^64.
    constexpr unsigned kFractionBits = 34;
    const std::uint64_t seconds = exponent < 64 ? ticks >> exponent : 0;
    std::uint64_t fraction = exponent < 64 ? ticks - (seconds << exponent) : ticks;
    unsigned bits = exponent;
    if (bits > kFractionBits) {
      fraction = bits - kFractionBits < 64 ? fraction >> (bits - kFractionBits) : 0;
      bits = kFractionBits;
    }
    return within_range(seconds, fraction * std::uint64_t{kSecond} >> bits, offset_seconds);
  }
  constexpr unsigned kMostDigits = 19;  // of a number of 64 bits
  if (exponent > kMostDigits) {
    const unsigned digits = exponent - kNanosecondExponent;
    return within_range(0, digits > kMostDigits ? 0 : ticks / power_of_ten(digits), offset_seconds);
  }
  const std::uint64_t per_second = power_of_ten(exponent);
  const std::uint64_t fraction = ticks % per_second;
  const std::uint64_t nanoseconds = exponent <= kNanosecondExponent
                                        ? fraction * power_of_ten(kNanosecondExponent - exponent)
                                        : fraction / power_of_ten(exponent - kNanosecondExponent);
  return within_range(ticks / per_second, nanoseconds, offset_seconds);
}

Reader::Reader(std::istream& file) : input_(file) {
  recognise();
}

void Reader::recognise() {
  const std::string_view beginning = input_.at_least(kMagicBytes);
  if (!input_.error().empty())
    throw NotARecord("expected a pcapng or pcap file, found none: " + input_.error());
  if (beginning.size() >= kMagicBytes) {
    const auto magic = number_at<std::uint32_t>(beginning, 0);
    for (const std::uint32_t known : {kPcapMicroseconds, kPcapNanoseconds}) {
      if (magic == known || magic == turned(known)) is_pcap_ = true;
    }
    if (is_pcap_ || magic == pcapng::kSectionHeader) return;
  }
  throw NotARecord("expected a pcapng or pcap file, found " +
                   description_of(input_.at_least(kDescribedBytes)));
}

std::optional<Item> Reader::next() {
  if (has_ended_) return std::nullopt;
  try {
    std::optional<Item> item = is_pcap_ ? next_of_pcap() : next_of_pcapng();
    has_ended_ = !item;
    return item;
  } catch (const Damage& damage) {
    has_ended_ = true;
    problem_ = "byte " + std::to_string(block_at_) + ": " + damage.what;
    return std::nullopt;
  }
}

template <typename Number>
Number Reader::number(std::string_view bytes, std::size_t offset) const {
  const auto read = number_at<Number>(bytes, offset);
  return is_turned_ ? turned(read) : read;
}

// The next `size` bytes, not yet taken.
std::string_view Reader::whole(std::size_t size, const char* what) {
  const std::string_view bytes = input_.at_least(size);
  if (bytes.size() >= size) return bytes.substr(0, size);
  if (!input_.error().empty()) throw Damage{"the file cannot be read any further: " + input_.error()};
  throw Damage{"the file is cut short: " + std::to_string(bytes.size()) + " of " + std::to_string(size) +
               " bytes of " + what + " are there"};
}

// The classic format: a header, then frames.
//
//   file header   4  magic: times in microseconds or nanoseconds, and the order of bytes
//                 2  version 2
//                 2  minor version
//                 8  not used
//                 4  most bytes of a frame that are kept
//                 4  link type in the low 16 bits; above, what the frames' check sums are
//   each frame    4  seconds since the epoch
//                 4  microseconds or nanoseconds
//                 4  bytes that follow
//                 4  bytes that the frame had on the wire
std::optional<Item> Reader::next_of_pcap() {
  block_at_ = input_.position();
  if (sources_.empty()) return pcap_header();
  if (input_.at_least(1).empty() && input_.error().empty()) return std::nullopt;
  const std::string_view header = whole(kPcapFrameHeaderBytes, "a frame's header");
  const auto kept = number<std::uint32_t>(header, 8);
  const auto size = number<std::uint32_t>(header, 12);
  if (kept > kMostBlockBytes) {
    throw Damage{"a frame of " + std::to_string(kept) + " bytes, expected at most " +
                 std::to_string(kMostBlockBytes)};
  }
  Frame frame = frame_of(0, 0);
  const Source& only = sources_.front();
  const std::uint64_t per_tick = only.clock.exponent == kNanosecondExponent ? 1 : 1000;
  frame.at = within_range(number<std::uint32_t>(header, 0), number<std::uint32_t>(header, 4) * per_tick, 0);
  frame.bytes = whole(kPcapFrameHeaderBytes + kept, "a frame").substr(kPcapFrameHeaderBytes);
  frame.size = std::max(kept, size);
  input_.take(kPcapFrameHeaderBytes + kept);
  frame.number = ++numbered_;
  return frame;
}

Interface Reader::pcap_header() {
  const std::string_view header = whole(kPcapHeaderBytes, "the file's header");
  const auto magic = number_at<std::uint32_t>(header, 0);
  is_turned_ = magic == turned(kPcapMicroseconds) || magic == turned(kPcapNanoseconds);
  const auto version = number<std::uint16_t>(header, 4);
  if (version != 2) throw Damage{"version " + std::to_string(version) + " of the format, expected 2"};
  Source source;
  source.snap_length = number<std::uint32_t>(header, 16);
  source.link_type = static_cast<std::uint16_t>(number<std::uint32_t>(header, 20));
  if (number<std::uint32_t>(header, 0) == kPcapNanoseconds) source.clock.exponent = kNanosecondExponent;
  sources_.push_back(source);
  input_.take(kPcapHeaderBytes);
  return {"", "", source.link_type, source.snap_length};
}

std::optional<Item> Reader::next_of_pcapng() {
  while (true) {
    const std::string_view whole_block = block();
    if (whole_block.empty()) {
      check_end();
      return std::nullopt;
    }
    input_.take(whole_block.size());
    const std::string_view contents =
        whole_block.substr(pcapng::kHeadBytes, whole_block.size() - pcapng::kFrameBytes);
    std::optional<Item> item = item_in(number<std::uint32_t>(whole_block, 0), contents);
    if (item) return item;
  }
}

// The next block, not yet taken; nothing at the file's end.
std::string_view Reader::block() {
  block_at_ = input_.position();
  if (input_.at_least(1).empty() && input_.error().empty()) return {};
  const std::string_view head = whole(kSmallestBlockBytes, "a block");
  if (number_at<std::uint32_t>(head, 0) == pcapng::kSectionHeader) {
    const auto magic = number_at<std::uint32_t>(head, pcapng::kHeadBytes);
    is_turned_ = magic == turned(pcapng::kByteOrderMagic);
    if (!is_turned_ && magic != pcapng::kByteOrderMagic)
      throw Damage{"a section without the mark of its order of bytes"};
  }
  const auto length = number<std::uint32_t>(head, 4);
  if (length > kMostBlockBytes || length < kSmallestBlockBytes || length % 4 != 0) {
    throw Damage{"a block of " + std::to_string(length) + " bytes, expected a multiple of 4 from " +
                 std::to_string(kSmallestBlockBytes) + " to " + std::to_string(kMostBlockBytes)};
  }
  const std::string_view bytes = whole(length, "the block");
  const auto again = number<std::uint32_t>(bytes, length - sizeof length);
  if (again != length) {
    throw Damage{"a block of " + std::to_string(length) + " bytes has the length " + std::to_string(again) +
                 " at its end"};
  }
  return bytes;
}

// Nothing of a block that is not used.
std::optional<Item> Reader::item_in(std::uint32_t type, std::string_view contents) {
  switch (type) {
    case pcapng::kEnhancedPacket:
      return packet(contents, false);
    case pcapng::kJournalExport:
      return entry_in(contents);
    case pcapng::kSimplePacket:
      return simple(contents);
    case pcapng::kObsoletePacket:
      return packet(contents, true);
    case pcapng::kInterfaceDescription:
      return interface_in(contents);
    case pcapng::kInterfaceStatistics:
      return statistics_in(contents);
    case pcapng::kSectionHeader:
      begin_section(contents);
      return std::nullopt;
    case pcapng::kSysdigEvent:
    case pcapng::kSysdigEvent2:
    case pcapng::kSysdigEvent2Large:
    case pcapng::kCustom:
    case pcapng::kCustomNotCopied:
      ++numbered_;
      return std::nullopt;
    default:
      return std::nullopt;
  }
}

// Calls take(code, value) for each, up to the first that is damaged.
template <typename Take>
void Reader::each_option(std::string_view options, Take take) const {
  constexpr std::size_t kHeadBytes = 4;
  while (options.size() >= kHeadBytes) {
    const auto code = number<std::uint16_t>(options, 0);
    const std::size_t size = number<std::uint16_t>(options, 2);
    if (code == pcapng::kEndOfOptions || kHeadBytes + pcapng::filled_up(size) > options.size()) return;
    take(code, options.substr(kHeadBytes, size));
    options.remove_prefix(kHeadBytes + pcapng::filled_up(size));
  }
}

// What follows the block's fixed part.
std::string_view Reader::contents_after(std::string_view contents, std::size_t fixed_bytes) const {
  if (contents.size() < fixed_bytes) {
    throw Damage{"a block with " + std::to_string(contents.size()) + " bytes of contents, expected " +
                 std::to_string(fixed_bytes) + " at the least"};
  }
  return contents.substr(fixed_bytes);
}

void Reader::begin_section(std::string_view contents) {
  const std::string_view options = contents_after(contents, 16);
  const auto version = number<std::uint16_t>(contents, 4);
  if (version != 1) throw Damage{"version " + std::to_string(version) + " of the format, expected 1"};
  sources_before_ += static_cast<std::uint32_t>(sources_.size());
  sources_.clear();
  is_ours_ = false;
  each_option(options, [this](std::uint16_t code, std::string_view value) {
    if (code == pcapng::kApplication) is_ours_ = value.substr(0, kOurs.size()) == kOurs;
  });
}

void Reader::check_end() const {
  const auto ends = [this](const Source& source) { return source.counted_at == numbered_; };
  if (!is_ours_ || std::all_of(sources_.begin(), sources_.end(), ends)) return;
  throw Damage{
      "the record breaks off, or another tool has saved it anew: expected the statistics of each network at "
      "its "
      "end, found none"};
}

Interface Reader::interface_in(std::string_view contents) {
  const std::string_view options = contents_after(contents, 8);
  Source source;
  source.link_type = number<std::uint16_t>(contents, 0);
  source.snap_length = number<std::uint32_t>(contents, 4);
  Interface interface { "", "", source.link_type, source.snap_length };
  each_option(options, [&](std::uint16_t code, std::string_view value) {
    if (code == pcapng::kName) interface.name = value;
    if (code == pcapng::kFilter && !value.empty() && value[0] == '\0') interface.filter = value.substr(1);
    if (code == pcapng::kTimeResolution && value.size() == 1) {
      const auto resolution = static_cast<unsigned char>(value[0]);
      source.clock.is_binary = (resolution & kBinaryExponent) != 0;
      source.clock.exponent = resolution & ~unsigned{kBinaryExponent};
    }
    if (code == pcapng::kTimeOffset && value.size() == sizeof(std::uint64_t)) {
      source.clock.offset_seconds = static_cast<std::int64_t>(number<std::uint64_t>(value, 0));
    }
  });
  if (sources_.size() == kMostInterfaces) {
    throw Damage{"one more interface, expected at most " + std::to_string(kMostInterfaces)};
  }
  sources_.push_back(source);
  return interface;
}

//   4  interface; in an obsolete block 2, and 2 for the frames that were dropped before this one
//   8  ticks, the high half first
//   4  bytes that follow
//   4  bytes that the frame had on the wire
//      the frame, filled up
Frame Reader::packet(std::string_view contents, bool is_obsolete) {
  const std::string_view rest = contents_after(contents, 20);
  const auto interface =
      is_obsolete ? number<std::uint16_t>(contents, 0) : number<std::uint32_t>(contents, 0);
  Frame frame = frame_of(interface, ticks_at(contents));
  put_bytes(rest, number<std::uint32_t>(contents, 12), number<std::uint32_t>(contents, 16), &frame);
  latest_ = frame.at;
  frame.number = ++numbered_;
  return frame;
}

// The length on the wire, and the bytes: they are of the section's first interface.
Frame Reader::simple(std::string_view contents) {
  const std::string_view rest = contents_after(contents, 4);
  Frame frame = frame_of(0, 0);
  const std::uint32_t snap_length = source(0).snap_length;
  const auto size = number<std::uint32_t>(contents, 0);
  const std::size_t kept = snap_length == 0 ? size : std::min(size, snap_length);
  put_bytes(rest, kept, size, &frame);
  frame.at = latest_;
  frame.is_timed = false;
  frame.number = ++numbered_;
  return frame;
}

// Of a block in which they follow the interface.
std::uint64_t Reader::ticks_at(std::string_view contents) const {
  const std::uint64_t high = number<std::uint32_t>(contents, 4);
  return high << 32U | number<std::uint32_t>(contents, 8);
}

Frame Reader::frame_of(std::uint32_t interface, std::uint64_t ticks) const {
  const Source& from = source(interface);
  Frame frame;
  frame.interface = sources_before_ + interface;
  frame.link_type = from.link_type;
  frame.at = from.clock.nanoseconds(ticks);
  return frame;
}

void Reader::put_bytes(std::string_view rest, std::size_t kept, std::size_t size, Frame* frame) const {
  if (kept > rest.size()) {
    throw Damage{"a frame of " + std::to_string(kept) + " bytes in a block that has " +
                 std::to_string(rest.size()) + " for it"};
  }
  frame->bytes = rest.substr(0, kept);
  frame->size = static_cast<std::uint32_t>(std::max(kept, size));
  each_option(rest.substr(pcapng::filled_up(kept)), [frame](std::uint16_t code, std::string_view value) {
    if (code == pcapng::kComment && frame->comments.size() < pcapng::kMostComments)
      frame->comments.emplace_back(value);
  });
}

Entry Reader::entry_in(std::string_view contents) {
  constexpr Nanoseconds kNone = -1;
  std::string_view text = contents.substr(0, contents.find_last_not_of('\0') + 1);
  Entry entry;
  entry.at = kNone;
  journal_text::Taken taken = journal_text::Taken::kField;
  while (taken == journal_text::Taken::kField && !text.empty()) {
    taken = journal_text::take_field(&text, kMostBlockBytes, &entry);
  }
  const bool is_whole = taken == journal_text::Taken::kField || taken == journal_text::Taken::kEntryEnd;
  if (!is_whole || entry.at == kNone) throw Damage{"a journal entry that is damaged, or has no time"};
  latest_ = entry.at;
  entry.number = ++numbered_;
  return entry;
}

Statistics Reader::statistics_in(std::string_view contents) {
  const std::string_view options = contents_after(contents, 12);
  const auto interface = number<std::uint32_t>(contents, 0);
  Statistics statistics;
  statistics.at = source(interface).clock.nanoseconds(ticks_at(contents));
  sources_[interface].counted_at = numbered_;
  statistics.interface = sources_before_ + interface;
  std::optional<std::uint64_t> dropped_by_os;
  each_option(options, [&](std::uint16_t code, std::string_view value) {
    if (value.size() != sizeof(std::uint64_t)) return;
    const auto count = number<std::uint64_t>(value, 0);
    if (code == pcapng::kReceived) statistics.received = count;
    if (code == pcapng::kDropped) statistics.dropped = count;
    if (code == pcapng::kDroppedByOs) dropped_by_os = count;
  });
  if (!statistics.dropped) statistics.dropped = dropped_by_os;
  return statistics;
}

const Reader::Source& Reader::source(std::uint32_t interface) const {
  if (interface < sources_.size()) return sources_[interface];
  throw Damage{"interface " + std::to_string(interface) + ", expected one of the " +
               std::to_string(sources_.size()) + " that were described"};
}

}  // namespace record
