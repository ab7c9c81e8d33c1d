#ifndef SUPPORT_FLUSHED_LINES_H
#define SUPPORT_FLUSHED_LINES_H

#include <string>

// What a SpoilingOutput has noted, as plain lines; a line that was not flushed at its end is marked.
inline std::string lines_of(std::string noted) {
  const std::string flushed = "\n<flush>";
  for (std::size_t at = 0; (at = noted.find('\n', at)) != std::string::npos; ++at) {
    if (noted.compare(at, flushed.size(), flushed) == 0) {
      noted.erase(at + 1, flushed.size() - 1);
    } else {
      noted.insert(at, "<not flushed>");
      at += std::string("<not flushed>").size();
    }
  }
  return noted;
}

#endif
