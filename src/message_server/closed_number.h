#ifndef MESSAGE_SERVER_CLOSED_NUMBER_H
#define MESSAGE_SERVER_CLOSED_NUMBER_H

#include <unistd.h>

#include <atomic>

// The number that a field keeps of a socket that is closed. The system may have given it to another socket by
// then, so that it must not be closed once more. One thread may note what another is about to close.
class ClosedNumber {
 public:
  // For whoever closes the number: false when that was done before.
  bool note(int number) { return number_.exchange(number) != number; }
  void close_once(int number) {
    if (note(number)) close(number);
  }
  // The field holds a new socket.
  void forget() { number_ = kNone; }

 private:
  static constexpr int kNone = -2;  // -1 may be closed, without effect

  std::atomic<int> number_{kNone};
};

#endif
