#ifndef MAIN_PRINT_H
#define MAIN_PRINT_H

#include <cerrno>
#include <cstring>
#include <iostream>
#include <string>

#include "main/exit_status.h"

// On standard output, at once. Throws NotPossible where that cannot be written.
inline void print(const std::string& text) {
  if (!(std::cout << text << std::flush))
    throw NotPossible(std::string("standard output: ") + std::strerror(errno));
}

#endif
