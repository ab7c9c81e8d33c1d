#ifndef SUPPORT_SPOILING_OUTPUT_H
#define SUPPORT_SPOILING_OUTPUT_H

#include <cerrno>
#include <functional>
#include <iostream>
#include <mutex>
#include <streambuf>
#include <string>

// Takes the place of std::cout's buffer while it lives: notes where the text was flushed, and changes errno
// with every write, as a write may do.
class SpoilingOutput : private std::streambuf {
 public:
  // Called on the writing thread before each piece is noted.
  using Listener = std::function<void(const std::string& piece)>;

  explicit SpoilingOutput(Listener listener = nullptr)
      : listener_(std::move(listener)), before_(std::cout.rdbuf(this)) {}
  ~SpoilingOutput() override { std::cout.rdbuf(before_); }
  SpoilingOutput(const SpoilingOutput&) = delete;
  SpoilingOutput& operator=(const SpoilingOutput&) = delete;

  // Everything so far, each flush as "<flush>".
  std::string text() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return text_;
  }

  // What text() is after these lines when each was ended by a newline and a flush.
  static std::string flushed_lines(const std::string& lines) {
    std::string result;
    for (const char character : lines) {
      result += character;
      if (character == '\n') result += "<flush>";
    }
    return result;
  }

 private:
  void note(const std::string& piece) {
    if (listener_) listener_(piece);
    const std::lock_guard<std::mutex> lock(mutex_);
    text_ += piece;
    errno = EXDEV;
  }
  int_type overflow(int_type character) override {
    note(std::string(1, traits_type::to_char_type(character)));
    return traits_type::not_eof(character);
  }
  std::streamsize xsputn(const char* characters, std::streamsize count) override {
    note(std::string(characters, static_cast<std::size_t>(count)));
    return count;
  }
  int sync() override {
    note("<flush>");
    return 0;
  }

  Listener listener_;
  std::streambuf* before_;
  mutable std::mutex mutex_;
  std::string text_;
};

#endif
