#ifndef WIRE_OUTPUT_FILE_H
#define WIRE_OUTPUT_FILE_H

#include <string>
#include <string_view>

// A file that is emptied, or made, when it is opened and then only grows. Both operations throw
// std::runtime_error with one line that names the file.
class OutputFile {
 public:
  explicit OutputFile(const std::string& path);
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  void append(std::string_view bytes);

 private:
  std::string path_;
  int descriptor_;
};

#endif
