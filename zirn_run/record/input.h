#ifndef RECORD_INPUT_H
#define RECORD_INPUT_H

#include <cstddef>
#include <cstdint>
#include <istream>
#include <string>
#include <string_view>
#include <vector>

namespace record {

// The bytes of a stream, looked at before they are taken. It waits for no more than is asked, so that what comes
// through a pipe is seen at once.
class Input {
 public:
  // The stream must outlive it. What it has buffered counts as not read.
  explicit Input(std::istream& stream) : stream_(*stream.rdbuf()) {}

  // The bytes from here on: at least `count` of them, unless the stream ends before. They are valid until the
  // next call. The memory that it takes is at most twice what is asked for and there, and kChunkBytes at the least.
  std::string_view at_least(std::size_t count) {
    if (end_ - begin_ < count) fill(count);
    return {buffer_.data() + begin_, end_ - begin_};
  }
  // Takes so many of those that at_least returned.
  void take(std::size_t count) { begin_ += count; }
  // Where it is: how many bytes were taken.
  std::uint64_t position() const { return before_ + begin_; }
  // Why the stream ended; empty: it was its end.
  const std::string& error() const { return error_; }

 private:
  static constexpr std::size_t kChunkBytes = 1U << 16;

  void fill(std::size_t count);
  std::size_t receive(char* to, std::size_t room);

  std::streambuf& stream_;
  std::vector<char> buffer_ = std::vector<char>(kChunkBytes);
  std::size_t begin_ = 0;     // of what is buffered and not taken
  std::size_t end_ = 0;       // of what is buffered
  std::uint64_t before_ = 0;  // bytes of the stream before the buffer's first
  bool ended_ = false;
  std::string error_;
};

}  // namespace record

#endif
