#include "terminal/stream.h"

#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <system_error>

namespace terminal {

namespace {

constexpr std::size_t kBufferBytes = std::size_t{64} << 10;

// -1: there can be none; errno says why.
int file_without_a_name() {
  const char* const folder = std::getenv("TMPDIR");
  std::string name = folder != nullptr && *folder != '\0' ? folder : "/var/tmp";
  name += "/zirn-run-XXXXXX";
  const int descriptor = mkostemp(name.data(), O_CLOEXEC);
  if (descriptor >= 0) unlink(name.c_str());
  return descriptor;
}

// Returns 0, or why not all was written.
int write_all(int descriptor, const char* bytes, std::size_t count) {
  while (count > 0) {
    const ssize_t written = write(descriptor, bytes, count);
    if (written < 0 && errno != EINTR) return errno;
    bytes += std::max<ssize_t>(written, 0);
    count -= static_cast<std::size_t>(std::max<ssize_t>(written, 0));
  }
  return 0;
}

}  // namespace

Stream::Stream(int descriptor, Wait wait)
    : descriptor_(descriptor), wait_(std::move(wait)), kept_(file_without_a_name()), buffer_(kBufferBytes) {
  if (kept_ < 0) error_ = errno;
}

Stream::~Stream() {
  close(kept_);
}

// Returns 0, or the error for which so much more is not kept.
int Stream::why_not_kept(std::size_t more) const {
  if (end_ + more > kMostKept) return EFBIG;
  constexpr std::uint64_t kBetweenLooks = std::uint64_t{1} << 20;
  if (end_ / kBetweenLooks == (end_ + more) / kBetweenLooks) return 0;
  struct statvfs room = {};
  return fstatvfs(kept_, &room) == 0 && room.f_bavail * room.f_frsize < kLeftFree ? ENOSPC : 0;
}

// Returns how many bytes came into the buffer.
std::size_t Stream::receive() {
  ssize_t count = 0;
  do {
    count = read(descriptor_, buffer_.data(), buffer_.size());
  } while (count < 0 && errno == EINTR);
  has_ended_ = count <= 0;
  if (count <= 0) return 0;
  const auto size = static_cast<std::size_t>(count);
  if (error_ == 0) error_ = why_not_kept(size);
  if (error_ == 0) error_ = write_all(kept_, buffer_.data(), size);
  if (error_ == 0) end_ += size;
  return size;
}

bool Stream::keep() {
  if (error_ != 0 || has_ended_) return false;
  const std::size_t size = receive();
  if (error_ == 0 || size == 0) return true;
  setg(buffer_.data(), buffer_.data(), buffer_.data() + size);  // not kept: it is the next to be taken
  return false;
}

Stream::int_type Stream::underflow() {
  if (gptr() != egptr()) return traits_type::to_int_type(*gptr());
  std::size_t size = 0;
  if (taken_ < end_) {
    const std::size_t most = static_cast<std::size_t>(std::min<std::uint64_t>(end_ - taken_, buffer_.size()));
    const ssize_t count = pread(kept_, buffer_.data(), most, static_cast<off_t>(taken_));
    size = static_cast<std::size_t>(std::max<ssize_t>(count, 0));
  } else if (!has_ended_ && wait_(descriptor_)) {
    size = receive();
  }
  if (size == 0) return traits_type::eof();
  taken_ += size;
  setg(buffer_.data(), buffer_.data(), buffer_.data() + size);
  return traits_type::to_int_type(buffer_.front());
}

void Stream::save(const std::string& name) const {
  const int file = open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (file < 0) throw std::system_error(errno, std::generic_category(), name);
  std::vector<char> bytes(kBufferBytes);
  int error = 0;
  ssize_t count = 0;
  for (std::uint64_t at = 0; error == 0 && at < end_; at += static_cast<std::uint64_t>(count)) {
    count = pread(kept_, bytes.data(), bytes.size(), static_cast<off_t>(at));
    if (count <= 0) break;
    error = write_all(file, bytes.data(), static_cast<std::size_t>(count));
  }
  if (close(file) != 0 && error == 0) error = errno;
  if (error != 0) throw std::system_error(error, std::generic_category(), name);
  if (error_ != 0) throw std::system_error(error_, std::generic_category(), name + ": cut short");
}

}  // namespace terminal
