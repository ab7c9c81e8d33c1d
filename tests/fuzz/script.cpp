#include "fuzz/script.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <streambuf>

namespace {

constexpr char kKindsWithBytes[] = "DBP";
constexpr char kKinds[] = "DBTWRSCEGXVQOZP";
constexpr std::size_t kLengthSize = 2;
constexpr int kMaxWaitsAfterEnd = 100;
constexpr std::size_t kMaxDescriptors = 500;

// Reads what is printed, and forgets it.
class Nowhere : public std::streambuf {
 protected:
  int_type overflow(int_type character) override { return traits_type::not_eof(character); }
  std::streamsize xsputn(const char* text, std::streamsize count) override {
    for (std::streamsize i = 0; i < count; ++i) sum_ += static_cast<unsigned char>(text[i]);
    return count;
  }

 private:
  volatile unsigned sum_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  static Nowhere nowhere;
  std::cout.rdbuf(&nowhere);
  return 0;
}

Script* Script::current = nullptr;

Script::Script(const std::uint8_t* bytes, std::size_t size) : bytes_(bytes), left_(size) {
  current = this;
}

Script::~Script() {
  for (bool is_open : open_) require(!is_open, "every socket is closed at the end");
  current = nullptr;
}

bool Script::is_over() {
  return next() == '\0';
}

char Script::next() {
  while (peek() == 'P') {
    const std::string port = take_any();
    if (port.size() == 2) sender_port = (port[0] & 0xFF) << 8 | (port[1] & 0xFF);
  }
  return peek();
}

std::string Script::take() {
  next();
  return take_any();
}

char Script::peek() {
  while (left_ > 0 && (*bytes_ == 0 || std::strchr(kKinds, *bytes_) == nullptr)) {
    ++bytes_;
    --left_;
  }
  return left_ > 0 ? static_cast<char>(*bytes_) : '\0';
}

std::string Script::take_any() {
  const char kind = peek();
  std::size_t before = 1;
  std::size_t length = 0;
  if (kind == '\0') return {};
  if (std::strchr(kKindsWithBytes, kind) != nullptr) {
    before = std::min(left_, 1 + kLengthSize);
    if (left_ >= before && before == 1 + kLengthSize) length = bytes_[1] * 256U + bytes_[2];
    length = std::min(length, left_ - before);
  }
  std::string taken(reinterpret_cast<const char*>(bytes_) + before, length);
  bytes_ += before + length;
  left_ -= before + length;
  return taken;
}

bool Script::takes(char kind) {
  if (next() != kind) return false;
  take();
  return true;
}

int Script::new_descriptor() {
  if (open_.size() == kMaxDescriptors) {
    errno = EMFILE;
    return -1;
  }
  open_.push_back(true);
  return kFirstDescriptor + static_cast<int>(open_.size()) - 1;
}

bool Script::has_open(int descriptor) const {
  const int index = descriptor - kFirstDescriptor;
  return index >= 0 && index < static_cast<int>(open_.size()) && open_[static_cast<std::size_t>(index)];
}

void Script::closes(int descriptor) {
  require(has_open(descriptor), "a socket is closed once");
  open_[static_cast<std::size_t>(descriptor - kFirstDescriptor)] = false;
}

void Script::closes_newest_descriptor() {
  open_.back() = false;
}

void Script::counts_wait_after_end() {
  if (stops_at_end) throw EndOfScript();
  if (cleared_at_end != nullptr) *cleared_at_end = false;
  require(++waits_after_end_ <= kMaxWaitsAfterEnd, "a conversation ends when the other side is silent");
}

void require(bool condition, const char* expectation) {
  if (condition) return;
  std::fprintf(stderr, "not as expected: %s\n", expectation);
  std::abort();
}

// Takes the place of the system's, for the descriptors that a script has made.
extern "C" int close(int descriptor) {
  if (descriptor < Script::kFirstDescriptor) return static_cast<int>(syscall(SYS_close, descriptor));
  Script::current->closes(descriptor);
  return 0;
}
