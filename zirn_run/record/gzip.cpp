#include "record/gzip.h"

#include <zlib.h>

#include <cerrno>
#include <cstddef>
#include <stdexcept>
#include <system_error>

namespace record {

namespace {

constexpr std::size_t kBufferBytes = 1U << 16;

gzFile handle(const std::unique_ptr<void, int (*)(void*)>& file) {
  return static_cast<gzFile>(file.get());
}

}  // namespace

UnpackedFile::UnpackedFile(const std::string& path)
    : UnpackedFile(static_cast<void*>(gzopen(path.c_str(), "rbe"))) {}

UnpackedFile::UnpackedFile(int descriptor) : UnpackedFile(static_cast<void*>(gzdopen(descriptor, "rbe"))) {}

UnpackedFile::UnpackedFile(void* opened)
    : file_(opened, [](void* file) { return gzclose_r(static_cast<gzFile>(file)); }), buffer_(kBufferBytes) {
  if (!file_) throw std::system_error(errno != 0 ? errno : ENOMEM, std::generic_category());
}

UnpackedFile::int_type UnpackedFile::underflow() {
  const int received = gzread(handle(file_), buffer_.data(), static_cast<unsigned>(buffer_.size()));
  if (received > 0) {
    setg(buffer_.data(), buffer_.data(), buffer_.data() + received);
    return traits_type::to_int_type(buffer_.front());
  }
  int number = Z_OK;
  const char* const message = gzerror(handle(file_), &number);
  if (number == Z_ERRNO) throw std::system_error(errno, std::generic_category());
  if (number != Z_OK && number != Z_STREAM_END) throw std::runtime_error(message);
  return traits_type::eof();
}

}  // namespace record
