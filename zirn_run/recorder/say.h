#ifndef RECORDER_SAY_H
#define RECORDER_SAY_H

#include <iostream>
#include <string>

#include "frames/words.h"

namespace recorder {

// On standard error.
inline void say(const std::string& text) {
  std::cerr << "zirn-run: " << frames::printable_sentence(text) << std::endl;
}

}  // namespace recorder

#endif
