#include "wire/capture.h"

#include <cstring>

namespace {

constexpr std::size_t kBufferBytes = 1U << 20;
constexpr std::uint32_t kMicrosecondsPerSecond = 1000000;

struct FileHeader {
  std::uint32_t magic = 0xa1b2c3d4;
  std::uint16_t major_version = 2;
  std::uint16_t minor_version = 4;
  std::uint32_t offset_of_local_time = 0;
  std::uint32_t accuracy_of_times = 0;
  std::uint32_t longest_frame = Capture::kLongestFrameBytes;
  std::uint32_t link_type = 1;
};
static_assert(sizeof(FileHeader) == 24, "no padding in the file");

struct FrameHeader {
  std::uint32_t seconds;
  std::uint32_t microseconds;
  std::uint32_t bytes_that_follow;
  std::uint32_t bytes_on_the_wire;
};
static_assert(sizeof(FrameHeader) == 16, "no padding in the file");

}  // namespace

Capture::Capture(const std::string& path) : file_(path), buffer_(kBufferBytes) {
  const FileHeader header;
  std::memcpy(buffer_.data(), &header, sizeof header);
  used_ = sizeof header;
  flush();
}

char* Capture::room() {
  if (used_ + sizeof(FrameHeader) + kLongestFrameBytes > buffer_.size()) flush();
  return buffer_.data() + used_ + sizeof(FrameHeader);
}

std::string_view Capture::keep(std::size_t length, std::uint64_t time_microseconds) {
  const auto bytes = static_cast<std::uint32_t>(length);
  const FrameHeader header = {static_cast<std::uint32_t>(time_microseconds / kMicrosecondsPerSecond),
                              static_cast<std::uint32_t>(time_microseconds % kMicrosecondsPerSecond), bytes,
                              bytes};
  char* const record = buffer_.data() + used_;
  std::memcpy(record, &header, sizeof header);
  used_ += sizeof header + length;
  ++count_;
  return {record + sizeof header, length};
}

void Capture::flush() {
  file_.append({buffer_.data(), used_});
  used_ = 0;
}
