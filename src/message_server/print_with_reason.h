#ifndef MESSAGE_SERVER_PRINT_WITH_REASON_H
#define MESSAGE_SERVER_PRINT_WITH_REASON_H

#include <cerrno>
#include <cstring>
#include <iostream>
#include <string>

// Prints the message and the text of errno as it is at the call.
inline void print_with_reason(const char* message) {
  const std::string reason = std::strerror(errno);  // before printing, which may change errno
  std::cout << message << reason << std::endl;
}

#endif
