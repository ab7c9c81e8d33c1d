#include "bench/live_record.h"

#include <cstdlib>
#include <iterator>

#include "record/byte_order.h"
#include "record/pcapng.h"

namespace {

constexpr std::size_t kLengthAt = 4;                // in a block
constexpr record::Nanoseconds kNanoseconds = 1000;  // of a microsecond

// Bytes of the whole blocks that it begins with.
std::size_t whole_blocks(const std::string& bytes) {
  std::size_t end = 0;
  while (end + record::pcapng::kFrameBytes <= bytes.size()) {
    const std::size_t length = record::number_at<std::uint32_t>(bytes, end + kLengthAt);
    if (length > bytes.size() - end) break;
    end += length;
  }
  return end;
}

}  // namespace

LiveRecord::LiveRecord(std::string wire_record) : wire_record_(std::move(wire_record)) {
  const char* const name = std::getenv("BENCH_LIVE");
  if (name == nullptr) return;
  file_.open(name, std::ios::binary);
  writer_.emplace(file_, record::Maker());
}

void LiveRecord::add(const record::RunEntry& said, std::int64_t at) {
  if (!writer_) return;
  look();
  writer_->add(record::entry_of(said, at * kNanoseconds));
  file_.flush();
}

// Its blocks begin a section of their own; entries of either look the same.
void LiveRecord::look() {
  if (!writer_) return;
  std::ifstream wire(wire_record_, std::ios::binary);
  wire.seekg(taken_);
  const std::string bytes{std::istreambuf_iterator<char>(wire), {}};
  const std::size_t size = whole_blocks(bytes);
  taken_ += static_cast<std::streamoff>(size);
  file_.write(bytes.data(), static_cast<std::streamsize>(size)).flush();
}
