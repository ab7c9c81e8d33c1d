#ifndef MAIN_UNINTERRUPTED_OUTPUT_H
#define MAIN_UNINTERRUPTED_OUTPUT_H

#include <signal.h>

#include <streambuf>

#include "worker_thread/worker_thread.h"

// Passes all that is written on to another buffer, one call for one, and holds SIGINT and SIGTERM back
// meanwhile. Their handler prints: on a thread that is inside a write it would wait for the lock that this
// thread has just taken. It keeps nothing itself, so that it may be written to by as many threads as the
// other buffer.
class UninterruptedOutput : public std::streambuf {
 public:
  // output: must live as long as the object.
  explicit UninterruptedOutput(std::streambuf* output) : output_(output) {}

 protected:
  int_type overflow(int_type byte) override {
    const SignalBlock meanwhile({SIGINT, SIGTERM});
    return traits_type::eq_int_type(byte, traits_type::eof())
               ? traits_type::not_eof(byte)
               : output_->sputc(traits_type::to_char_type(byte));
  }
  std::streamsize xsputn(const char* bytes, std::streamsize count) override {
    const SignalBlock meanwhile({SIGINT, SIGTERM});
    return output_->sputn(bytes, count);
  }
  int sync() override {
    const SignalBlock meanwhile({SIGINT, SIGTERM});
    return output_->pubsync();
  }

 private:
  std::streambuf* const output_;
};

#endif
