#ifndef RECORD_GZIP_H
#define RECORD_GZIP_H

#include <memory>
#include <streambuf>
#include <string>
#include <vector>

namespace record {

// The contents of a file, unpacked where gzip packed it. Reading it throws std::system_error where the file cannot
// be read, and std::runtime_error where what gzip packed is damaged or cut short; what is before that is read first.
class UnpackedFile : public std::streambuf {
 public:
  // Throws std::system_error.
  explicit UnpackedFile(const std::string& path);
  // Of an open file, a pipe, or a socket; takes it over and closes it. Throws as above.
  explicit UnpackedFile(int descriptor);

 protected:
  int_type underflow() override;

 private:
  explicit UnpackedFile(void* opened);

  std::unique_ptr<void, int (*)(void*)> file_;
  std::vector<char> buffer_;
};

}  // namespace record

#endif
