#ifndef DATABASE_UTC_H
#define DATABASE_UTC_H

#include <chrono>
#include <string>

#include "explanation/text.h"

namespace database {

inline std::string utc_now() {
  return explanation::in_utc(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                 std::chrono::system_clock::now().time_since_epoch())
                                 .count());
}

}  // namespace database

#endif
