#ifndef EXHAUSTIVE_PLAYED_FILE_H
#define EXHAUSTIVE_PLAYED_FILE_H

#include <algorithm>
#include <istream>
#include <stdexcept>
#include <streambuf>
#include <string>

#include "exhaustive/transfer_model.h"

// A file in memory that can be put at any place and in any state, and whose next read can come out short or
// fail.
class PlayedFile : public std::istream {
 public:
  PlayedFile(const std::string& contents, std::size_t position, iostate state, Reading next)
      : std::istream(nullptr), bytes_(contents, position, next) {
    init(&bytes_);
    setstate(state);
  }
  std::size_t position() const { return bytes_.position; }

 private:
  struct Bytes : std::streambuf {
    Bytes(const std::string& all, std::size_t start, Reading how)
        : contents(all), position(start), next(how) {}
    std::streamsize xsgetn(char* to, std::streamsize wanted) override {
      if (next == Reading::kError) throw std::runtime_error("error reading the file");
      const std::size_t left = contents.size() - std::min(position, contents.size());
      std::size_t count = std::min(left, static_cast<std::size_t>(wanted));
      if (next == Reading::kHalfAndEnd) count /= 2;
      contents.copy(to, count, position);
      position += count;
      return static_cast<std::streamsize>(count);
    }
    const std::string& contents;
    std::size_t position;
    Reading next;
  };
  Bytes bytes_;
};

#endif
