#include "recorder/file.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "record/byte_order.h"
#include "record/run_entry.h"
#include "record/writer.h"
#include "recorder/clock.h"

namespace recorder {

namespace {

constexpr std::size_t kLengthAt = 4;          // in a block
constexpr std::size_t kRoomForAnEntry = 512;  // bytes
constexpr mode_t kReadableByAll = 0644;

[[noreturn]] void fail(const std::string& name) {
  throw std::system_error(errno, std::generic_category(), name);
}

// Where the last of the blocks ends that end by then.
std::size_t end_of_blocks(const std::string& blocks, std::size_t by) {
  std::size_t end = 0;
  while (end + kLengthAt + sizeof(std::uint32_t) <= blocks.size()) {
    const std::size_t length = record::number_at<std::uint32_t>(blocks, end + kLengthAt);
    if (end + length > by) break;
    end += length;
  }
  return end;
}

}  // namespace

std::string block_of(const record::Entry& entry) {
  std::ostringstream block;
  record::Writer writer(block, {});
  block.str("");
  writer.add(entry);
  return block.str();
}

RecordFile::RecordFile(const std::string& name, int gives_up)
    : name_(name), part_(name == "-" ? "" : name + ".part"), gives_up_(gives_up) {
  buffer_.reserve(2 * kBufferBytes);
  if (is_pipe()) {
    descriptor_ = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
    if (descriptor_ < 0) fail("standard output");
    return;
  }
  struct stat about = {};
  if (stat(name_.c_str(), &about) == 0 && !S_ISREG(about.st_mode)) {
    throw std::runtime_error(name_ + ": expected a file, found a " +
                             (S_ISDIR(about.st_mode) ? "folder" : "device or a pipe"));
  }
  descriptor_ = open(part_.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, kReadableByAll);
  const bool is_ours = descriptor_ >= 0 && flock(descriptor_, LOCK_EX | LOCK_NB) == 0;
  if (is_ours && ftruncate(descriptor_, 0) == 0) return;
  const int error = errno;
  if (descriptor_ >= 0) close(descriptor_);
  if (error == EWOULDBLOCK)
    throw std::system_error(EBUSY, std::generic_category(), part_ + ": another recorder writes it");
  errno = error;
  fail(part_);
}

RecordFile::~RecordFile() {
  close(descriptor_);
}

RecordFile::int_type RecordFile::overflow(int_type byte) {
  const char character = traits_type::to_char_type(byte);
  xsputn(&character, 1);
  return traits_type::not_eof(byte);
}

std::streamsize RecordFile::xsputn(const char* bytes, std::streamsize count) {
  if (!problem_.empty()) return count;
  buffer_.append(bytes, static_cast<std::size_t>(count));
  if (buffer_.size() >= kBufferBytes) flush();
  return count;
}

void RecordFile::flush() {
  if (!problem_.empty() || buffer_.empty()) return;
  const std::size_t written = write_buffer();
  if (written < buffer_.size()) {
    problem_ = std::strerror(errno);
    if (!is_pipe()) end_file(written);
  }
  if (written > kRoomForAnEntry) block_at_ = at_ + end_of_blocks(buffer_, written - kRoomForAnEntry);
  at_ += written;
  buffer_.clear();
}

// Whether a pipe takes PIPE_BUF bytes at once.
bool RecordFile::waits_for_reader() const {
  std::array<pollfd, 2> events = {{{descriptor_, POLLOUT, 0}, {gives_up_, POLLIN, 0}}};
  while (poll(events.data(), events.size(), -1) < 0 && errno == EINTR) continue;
  if (events[0].revents != 0) return true;
  errno = EINTR;
  return false;
}

// Returns how much was written; errno says why not all.
std::size_t RecordFile::write_buffer() {
  std::size_t written = 0;
  while (written < buffer_.size()) {
    if (is_pipe() && !waits_for_reader()) break;
    const std::size_t most = is_pipe() ? PIPE_BUF : buffer_.size();
    const ssize_t count =
        write(descriptor_, buffer_.data() + written, std::min(most, buffer_.size() - written));
    if (count < 0 && errno != EINTR) break;
    written += count > 0 ? static_cast<std::size_t>(count) : 0;
  }
  return written;
}

// The entry takes the place of blocks that have been written, so that there is room for it.
void RecordFile::end_file(std::size_t written) {
  const std::uint64_t end =
      written > kRoomForAnEntry ? at_ + end_of_blocks(buffer_, written - kRoomForAnEntry) : block_at_;
  const std::string entry = block_of(entry_of(
      record::gap(record::kAllMissing, "the file cannot be written any further: " + problem_), now()));
  const auto offset = static_cast<off_t>(end);
  const bool is_cut = ftruncate(descriptor_, offset) == 0;
  const ssize_t count = pwrite(descriptor_, entry.data(), entry.size(), offset);
  if (is_cut && count != static_cast<ssize_t>(entry.size()) && ftruncate(descriptor_, offset) != 0)
    problem_ += "; the file ends within a block";
}

void RecordFile::finish() {
  flush();
  if (is_pipe()) return;
  if (fsync(descriptor_) != 0 && problem_.empty()) fail(part_);
  if (std::rename(part_.c_str(), name_.c_str()) != 0) fail(name_);
}

void RecordFile::discard() {
  if (!is_pipe()) std::remove(part_.c_str());
}

}  // namespace recorder
