#ifndef FILES_FILES_H
#define FILES_FILES_H

#include <fcntl.h>
#include <unistd.h>

#include <ext/stdio_filebuf.h>
#include <fstream>
#include <string>
#include <utility>

// File streams as std::ifstream and std::ofstream open them, in binary mode, but closed on exec: no board's
// command inherits them.

// Gives the stream the descriptor, which it owns then; -1 leaves it closed and failed.
template <typename Stream>
void attach_descriptor(Stream* stream, int descriptor, std::ios::openmode mode) {
  // A stream has no way to take a descriptor; this buffer has one, and hands it over.
  __gnu_cxx::stdio_filebuf<char> opened(descriptor, mode | std::ios::binary);
  *stream->rdbuf() = std::move(opened);
  if (stream->is_open()) return;
  if (descriptor != -1) close(descriptor);
  stream->setstate(std::ios::failbit);
}

// A descriptor of the file, or -1. The caller owns it. Of a named pipe this waits for the other end.
inline int open_for_reading(const std::string& name) {
  return open(name.c_str(), O_RDONLY | O_CLOEXEC | O_LARGEFILE);
}

// Opens the file for reading.
inline void open_file(std::ifstream* file, const std::string& name) {
  attach_descriptor(file, open_for_reading(name), std::ios::in);
}

// Creates the file, empty, and opens it for writing. Fails where something has that name already: no file is
// ever emptied.
inline void create_file(std::ofstream* file, const std::string& name) {
  constexpr int kNewFile = O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_LARGEFILE;
  constexpr mode_t kEverybody = 0666;  // less the process's umask
  attach_descriptor(file, open(name.c_str(), kNewFile, kEverybody), std::ios::out);
}

#endif
