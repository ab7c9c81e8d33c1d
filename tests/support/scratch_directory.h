#ifndef SUPPORT_SCRATCH_DIRECTORY_H
#define SUPPORT_SCRATCH_DIRECTORY_H

#include <filesystem>
#include <stdexcept>
#include <string>

#include "support/whole_file.h"

// A new empty directory that is this process's working directory while the object lives, and is removed with
// everything in it afterwards.
class ScratchDirectory {
 public:
  ScratchDirectory() : before_(std::filesystem::current_path()) {
    std::string name = (std::filesystem::temp_directory_path() / "tftp-test-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("cannot make " + name);
    path_ = name;
    std::filesystem::current_path(path_);
  }
  ~ScratchDirectory() {
    std::error_code ignored;
    std::filesystem::current_path(before_, ignored);
    std::filesystem::remove_all(path_, ignored);
  }
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;

  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::filesystem::path before_;
  std::string path_;
};

#endif
