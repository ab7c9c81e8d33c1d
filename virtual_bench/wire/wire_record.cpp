#include "wire/wire_record.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "record/reader.h"
#include "record/run_entry.h"

namespace {

constexpr std::size_t kBufferBytes = 1U << 20;
constexpr char kApplication[] = "virtual bench";  // it is no record yet
constexpr char kFrame[] = "ZIRN_FRAME";
constexpr char kFate[] = "ZIRN_FATE";
constexpr const char* kFates[] = {record::kLostByChance, record::kLostByCut,
                                  record::kLostAtTheEnd, record::kDuplicated,
                                  record::kSwapped,      record::kLostAsOrdered};  // in the order of Fate

std::ofstream open_file(const std::string& path, std::vector<char>* buffer) {
  std::ofstream file;
  file.rdbuf()->pubsetbuf(buffer->data(), static_cast<std::streamsize>(buffer->size()));
  file.open(path, std::ios::binary);
  return file;
}

}  // namespace

WireRecord::WireRecord(const std::string& path, const std::vector<std::string>& links)
    : path_(path),
      buffer_(kBufferBytes),
      file_(open_file(path, &buffer_)),
      writer_(file_, {"", "", kApplication}) {
  check();
  for (const std::string& link : links) {
    record::Interface interface;
    interface.name = link;
    writer_.add(interface);
  }
  flush();
}

std::uint64_t WireRecord::add_frame(std::size_t link, std::string_view frame, record::Nanoseconds at) {
  record::Frame entered;
  entered.interface = static_cast<std::uint32_t>(link);
  entered.at = at;
  entered.bytes = frame;
  writer_.add(entered);
  return ++frames_;
}

void WireRecord::add_fate(std::uint64_t frame, Fate fate, record::Nanoseconds at) {
  record::Entry entry;
  entry.at = at;
  entry.fields = {{kFrame, std::to_string(frame)}, {kFate, kFates[static_cast<std::size_t>(fate)]}};
  writer_.add(entry);
}

void WireRecord::add_cut(record::Nanoseconds lasts, record::Nanoseconds at) {
  writer_.add(record::entry_of(record::Cut{lasts}, at));
}

void WireRecord::flush() {
  file_.flush();
  check();
}

void WireRecord::check() const {
  if (!file_)
    throw std::runtime_error("expected a file that can be written: " + path_ + ": " + std::strerror(errno));
}

WireFates read_fates(std::istream& wire_record) {
  WireFates fates;
  record::Reader reader(wire_record);
  while (const auto item = reader.next()) {
    const auto* const entry = std::get_if<record::Entry>(&*item);
    if (entry == nullptr) continue;
    const std::string frame(entry->value(kFrame));
    if (frame.empty()) {
      fates.cuts.push_back(*entry);
    } else {
      fates.of_frames[std::strtoull(frame.c_str(), nullptr, 10)].emplace_back(entry->value(kFate));
    }
  }
  return fates;
}
