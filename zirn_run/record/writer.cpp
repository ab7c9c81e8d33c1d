#include "record/writer.h"

#include <algorithm>
#include <cstring>

#include "record/journal_text.h"
#include "record/pcapng.h"

namespace record {

const char kApplication[] = RECORD_APPLICATION;

namespace {

constexpr std::string_view kNanosecondsResolution = "\x09";  // 10^-9 seconds
constexpr std::string_view kFilterIsText{"\0", 1};

template <typename Number>
std::string_view bytes_of(const Number& number) {
  return {reinterpret_cast<const char*>(&number), sizeof number};
}

}  // namespace

Writer::Writer(std::ostream& file, const Maker& maker) : file_(file) {
  begin(pcapng::kSectionHeader);
  put(pcapng::kByteOrderMagic);
  put(std::uint16_t{1});  // version 1.0
  put(std::uint16_t{0});
  put(std::uint64_t{0} - 1);  // length of the section: not known
  put_text(pcapng::kHardware, maker.hardware);
  put_text(pcapng::kOs, maker.os);
  put_text(pcapng::kApplication, maker.application);
  end();
}

std::uint32_t Writer::add(const Interface& interface) {
  begin(pcapng::kInterfaceDescription);
  put(interface.link_type);
  put(std::uint16_t{0});
  put(interface.snap_length);
  put_text(pcapng::kName, interface.name);
  put_option(pcapng::kTimeResolution, kNanosecondsResolution);
  if (!interface.filter.empty()) {
    put_text(pcapng::kFilter, std::string(kFilterIsText) + interface.filter);
  }
  end();
  return interfaces_++;
}

std::uint64_t Writer::add(const Frame& frame) {
  const std::string_view kept = frame.bytes.substr(0, kMostFrameBytes);
  begin(pcapng::kEnhancedPacket);
  put(frame.interface);
  put_time(frame.at);
  put(static_cast<std::uint32_t>(kept.size()));
  put(std::max(frame.size, static_cast<std::uint32_t>(frame.bytes.size())));
  put(kept);
  const std::size_t comments = std::min(frame.comments.size(), pcapng::kMostComments);
  for (std::size_t i = 0; i < comments; ++i) put_text(pcapng::kComment, frame.comments[i]);
  end();
  return ++numbered_;
}

std::uint64_t Writer::add(const Entry& entry) {
  begin(pcapng::kJournalExport);
  journal_text::append(entry, &block_);
  put(std::string_view());
  end();
  return ++numbered_;
}

void Writer::add(const Statistics& statistics) {
  begin(pcapng::kInterfaceStatistics);
  put(statistics.interface);
  put_time(statistics.at);
  if (statistics.received) put_option(pcapng::kReceived, bytes_of(*statistics.received));
  if (statistics.dropped) put_option(pcapng::kDropped, bytes_of(*statistics.dropped));
  end();
}

template <typename Number>
void Writer::put(Number number) {
  block_ += bytes_of(number);
}

void Writer::put(std::string_view bytes) {
  block_ += bytes;
  block_.resize(pcapng::filled_up(block_.size()));
}

void Writer::put_time(Nanoseconds at) {
  const auto time = static_cast<std::uint64_t>(std::max<Nanoseconds>(at, 0));
  put(static_cast<std::uint32_t>(time >> 32U));
  put(static_cast<std::uint32_t>(time));
}

void Writer::put_option(std::uint16_t code, std::string_view value) {
  put(code);
  put(static_cast<std::uint16_t>(value.size()));
  put(value);
  has_options_ = true;
}

void Writer::put_text(std::uint16_t code, std::string_view text) {
  if (!text.empty()) put_option(code, text.substr(0, kMostTextBytes));
}

void Writer::begin(std::uint32_t type) {
  block_.clear();
  has_options_ = false;
  put(type);
  put(std::uint32_t{0});  // its length, once it is known
}

void Writer::end() {
  if (has_options_) put(std::uint32_t{pcapng::kEndOfOptions});
  const auto length = static_cast<std::uint32_t>(block_.size() + sizeof(std::uint32_t));
  std::memcpy(block_.data() + sizeof(std::uint32_t), &length, sizeof length);
  put(length);
  file_.write(block_.data(), static_cast<std::streamsize>(block_.size()));
}

}  // namespace record
