#include "wire/output_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace {

[[noreturn]] void refuse(const std::string& path) {
  throw std::runtime_error("expected a file that can be written: " + path + ": " + std::strerror(errno));
}

}  // namespace

OutputFile::OutputFile(const std::string& path)
    : path_(path), descriptor_(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644)) {
  if (descriptor_ == -1) refuse(path_);
}

OutputFile::~OutputFile() {
  close(descriptor_);
}

void OutputFile::append(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = write(descriptor_, bytes.data(), bytes.size());
    if (written == -1 && errno == EINTR) continue;
    if (written == -1) refuse(path_);
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
}
