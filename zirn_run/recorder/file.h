#ifndef RECORDER_FILE_H
#define RECORDER_FILE_H

#include <cstddef>
#include <cstdint>
#include <streambuf>
#include <string>

#include "record/item.h"

namespace recorder {

// A block of a record that is one entry.
std::string block_of(const record::Entry& entry);

// Where a record is written, block by block: a pipe, or NAME.part, which is called NAME once it is whole. Nobody else
// writes there meanwhile. Where no more can be written, what is there ends with a whole block, if possible the entry
// that says so, and all that follows is passed over.
class RecordFile : public std::streambuf {
 public:
  // `name`: "-" is standard output. `gives_up`: a descriptor that becomes readable when the reader of a pipe is not to
  // be waited for any longer. Throws std::system_error, which names the file.
  RecordFile(const std::string& name, int gives_up);
  ~RecordFile() override;
  RecordFile(const RecordFile&) = delete;
  RecordFile& operator=(const RecordFile&) = delete;

  // Writes what was gathered.
  void flush();
  // Why no more can be written; empty: it can.
  const std::string& problem() const { return problem_; }
  // Whether nothing has been written.
  bool is_empty() const { return at_ == 0; }
  // Writes the rest, and gives the file its name. Throws std::system_error.
  void finish();
  // Removes what is there.
  void discard();

 protected:
  int_type overflow(int_type byte) override;
  std::streamsize xsputn(const char* bytes, std::streamsize count) override;

 private:
  static constexpr std::size_t kBufferBytes = std::size_t{64} << 10;

  bool is_pipe() const { return part_.empty(); }
  bool waits_for_reader() const;
  std::size_t write_buffer();
  void end_file(std::size_t written);

  const std::string name_;
  std::string part_;  // its name until it is whole
  const int gives_up_;
  int descriptor_ = -1;
  std::string buffer_;          // whole blocks
  std::uint64_t at_ = 0;        // bytes in the file
  std::uint64_t block_at_ = 0;  // of a block that ends so far before them that an entry has room
  std::string problem_;
};

}  // namespace recorder

#endif
