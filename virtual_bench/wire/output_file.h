#ifndef WIRE_OUTPUT_FILE_H
#define WIRE_OUTPUT_FILE_H

#include <cerrno>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>

// A file that is emptied, or made, when it is opened and then only grows. Both operations throw
// std::runtime_error with one line that names the file.
class OutputFile {
 public:
  explicit OutputFile(const std::string& path) : path_(path), file_(path, std::ios::binary) { check(); }

  void append(std::string_view bytes) {
    file_.write(bytes.data(), static_cast<std::streamsize>(bytes.size())).flush();
    check();
  }

 private:
  void check() const {
    if (!file_)
      throw std::runtime_error("expected a file that can be written: " + path_ + ": " + std::strerror(errno));
  }

  std::string path_;
  std::ofstream file_;
};

#endif
