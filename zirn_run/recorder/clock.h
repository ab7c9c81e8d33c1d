#ifndef RECORDER_CLOCK_H
#define RECORDER_CLOCK_H

#include <ctime>

#include "record/item.h"

namespace recorder {

inline constexpr record::Nanoseconds kMillisecond = 1000000;
inline constexpr record::Nanoseconds kSecond = 1000 * kMillisecond;

// By which frames and lines have their times.
inline record::Nanoseconds now() {
  timespec time = {};
  clock_gettime(CLOCK_REALTIME, &time);
  return time.tv_sec * kSecond + time.tv_nsec;
}

}  // namespace recorder

#endif
