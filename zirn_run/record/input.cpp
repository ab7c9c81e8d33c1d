#include "record/input.h"

#include <algorithm>
#include <cstring>
#include <system_error>

namespace record {

void Input::fill(std::size_t count) {
  if (count > buffer_.size() - begin_) {
    std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
    before_ += begin_;
    end_ -= begin_;
    begin_ = 0;
  }
  while (end_ - begin_ < count && !ended_) {
    if (end_ == buffer_.size()) buffer_.resize(2 * buffer_.size());
    const std::size_t received = receive(buffer_.data() + end_, buffer_.size() - end_);
    end_ += received;
    ended_ = received == 0;
  }
}

// What the stream has at hand, one byte at the least; 0: it ended. A stream's buffer throws what goes wrong.
std::size_t Input::receive(char* to, std::size_t room) {
  try {
    if (stream_.sgetc() == std::char_traits<char>::eof()) return 0;
    const auto at_hand = std::max<std::streamsize>(stream_.in_avail(), 1);
    const auto wanted = std::min(at_hand, static_cast<std::streamsize>(room));
    return static_cast<std::size_t>(stream_.sgetn(to, wanted));
  } catch (const std::system_error& error) {
    error_ = error.code().message();
  } catch (const std::exception& error) {
    error_ = error.what();
  }
  return 0;
}

}  // namespace record
