#include "bench/record_file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <utility>

#include "record/reader.h"
#include "record/writer.h"
#include "wire/wire_record.h"

namespace {

// Writes entries up to a time, each once.
class Entries {
 public:
  Entries(std::vector<record::Entry> entries, record::Writer* writer)
      : entries_(std::move(entries)), writer_(writer) {
    std::stable_sort(entries_.begin(), entries_.end(),
                     [](const record::Entry& one, const record::Entry& other) { return one.at < other.at; });
    next_ = entries_.begin();
  }
  void write_until(record::Nanoseconds at) {
    while (next_ != entries_.end() && next_->at <= at) writer_->add(*next_++);
  }
  void write_all() {
    while (next_ != entries_.end()) writer_->add(*next_++);
  }

 private:
  std::vector<record::Entry> entries_;
  std::vector<record::Entry>::const_iterator next_;
  record::Writer* const writer_;
};

// Returns the statistics of each network.
std::vector<record::Statistics> write_frames(std::istream& wire, const WireFates& fates, Entries* entries,
                                             record::Writer* writer) {
  record::Reader reader(wire);
  std::uint64_t number = 0;
  std::vector<record::Statistics> networks;
  while (const auto item = reader.next()) {
    if (const auto* const link = std::get_if<record::Interface>(&*item))
      networks.push_back({writer->add(*link), 0, 0, 0});
    const auto* const recorded = std::get_if<record::Frame>(&*item);
    if (recorded == nullptr) continue;
    record::Frame frame = *recorded;
    const auto fate = fates.of_frames.find(++number);
    if (fate != fates.of_frames.end()) frame.comments = fate->second;
    entries->write_until(frame.at);
    writer->add(frame);
    ++*networks.at(frame.interface).received;
    for (record::Statistics& network : networks) network.at = frame.at;
  }
  return networks;
}

}  // namespace

void write_record(const std::string& path, const std::string& wire_record,
                  std::vector<record::Entry> entries) {
  WireFates fates;
  if (std::ifstream wire(wire_record, std::ios::binary); wire) fates = read_fates(wire);
  entries.insert(entries.end(), fates.cuts.begin(), fates.cuts.end());
  std::ofstream file(path, std::ios::binary);
  record::Writer writer(file, record::Maker());
  Entries others(std::move(entries), &writer);
  std::vector<record::Statistics> networks;
  if (std::ifstream wire(wire_record, std::ios::binary); wire)
    networks = write_frames(wire, fates, &others, &writer);
  others.write_all();
  for (const record::Statistics& network : networks) writer.add(network);
  if (!file.flush())
    throw std::runtime_error("expected a file that can be written: " + path + ": " + std::strerror(errno));
}

void tell_record(const std::string& path, story::Story* story) {
  std::ifstream file(path, std::ios::binary);
  record::Reader reader(file);
  while (const auto item = reader.next()) story->take(*item);
  story->finish(!reader.problem().empty());
}
