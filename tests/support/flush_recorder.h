#ifndef SUPPORT_FLUSH_RECORDER_H
#define SUPPORT_FLUSH_RECORDER_H

#include <iostream>
#include <sstream>
#include <string>

// What is written to the output stream while the object lives, with "<flush>" wherever the stream was
// flushed.
class FlushRecorder {
 public:
  FlushRecorder() : before_(std::cout.rdbuf(&recorded_)) {}
  ~FlushRecorder() { std::cout.rdbuf(before_); }
  FlushRecorder(const FlushRecorder&) = delete;
  FlushRecorder& operator=(const FlushRecorder&) = delete;

  std::string text() const { return recorded_.str(); }

 private:
  class MarkingBuffer : public std::stringbuf {
   public:
    MarkingBuffer() : std::stringbuf(std::ios::out) {}

   protected:
    int sync() override {
      sputn("<flush>", 7);
      return 0;
    }
  };

  MarkingBuffer recorded_;
  std::streambuf* before_;
};

#endif
