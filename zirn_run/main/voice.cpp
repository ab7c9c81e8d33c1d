#include "main/voice.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>

namespace {

constexpr int kMinute = 60000;  // milliseconds

}  // namespace

void Voice::say(const std::string& text) {
  progress_.erase();
  if (waiting_.size() + text.size() < kMostBytes) {
    waiting_ += text + "\n";
  } else {
    is_whole_ = false;
  }
  write_until(0);
}

void Voice::show(const std::string& progress) {
  write_until(0);
  progress.empty() ? progress_.erase() : progress_.show(progress);
}

bool Voice::finish() {
  progress_.erase();
  write_until(kMinute);
  return is_whole_ && waiting_.empty();
}

// A pipe that has room has it for PIPE_BUF bytes.
void Voice::write_until(int patience_milliseconds) {
  while (!waiting_.empty()) {
    pollfd wait = {descriptor_, POLLOUT, 0};
    const int ready = poll(&wait, 1, patience_milliseconds);
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return;
    const ssize_t count =
        write(descriptor_, waiting_.data(), std::min<std::size_t>(waiting_.size(), PIPE_BUF));
    if (count < 0 && errno != EINTR) is_whole_ = false;
    waiting_.erase(0, count >= 0 ? static_cast<std::size_t>(count) : errno == EINTR ? 0 : waiting_.size());
  }
}
