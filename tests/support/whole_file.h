#ifndef SUPPORT_WHOLE_FILE_H
#define SUPPORT_WHOLE_FILE_H

#include <string>

// Everything in a file from its beginning, whatever the descriptor's position.
std::string whole_file(int descriptor);
std::string whole_file(const std::string& path);

void write_whole_file(const std::string& path, const std::string& contents);

// Bytes for test files: not repeating, the same at every call.
std::string noise(std::size_t length);

#endif
