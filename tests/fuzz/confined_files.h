#ifndef FUZZ_CONFINED_FILES_H
#define FUZZ_CONFINED_FILES_H

#include <string>

// While the object lives, the scratch directory is the root of every path that is opened: neither "..", nor
// an absolute name, nor a link leads out of it. It holds these files:
//   file   kFileSize bytes, not repeating        empty   no bytes        folder   a directory
// Whatever else is created is removed with the object.
class ConfinedFiles {
 public:
  static constexpr int kFileSize = 1300;
  static const std::string& contents();  // of "file"
  // Makes a file, or replaces its contents.
  static void write(const char* name, const void* bytes, std::size_t size);

  ConfinedFiles();
  ~ConfinedFiles();
  ConfinedFiles(const ConfinedFiles&) = delete;
  ConfinedFiles& operator=(const ConfinedFiles&) = delete;
};

#endif
