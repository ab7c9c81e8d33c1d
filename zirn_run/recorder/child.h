#ifndef RECORDER_CHILD_H
#define RECORDER_CHILD_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace recorder {

// A program of the system, found in PATH, whose output is read. It ends with this object and with this process, and
// takes no signal of the terminal.
class Child {
 public:
  Child() = default;
  // Throws std::system_error. Where there is no such program its output ends at once.
  explicit Child(const std::vector<std::string>& words);
  ~Child();
  Child(Child&& other) noexcept;
  Child& operator=(Child&& other) noexcept;

  // Of its output; -1: there is none.
  int descriptor() const { return output_; }

 private:
  pid_t pid_ = -1;
  int output_ = -1;
};

// All that the program prints on standard output.
std::string output_of(const std::vector<std::string>& words);

}  // namespace recorder

#endif
