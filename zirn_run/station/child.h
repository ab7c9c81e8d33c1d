#ifndef STATION_CHILD_H
#define STATION_CHILD_H

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace station {

// A program of the system, found in PATH, whose output is read. It ends with this object and with this process, and so does what it started, and
// takes no signal of the terminal.
class Child {
 public:
  Child() = default;
  // Throws std::system_error. Where there is no such program its output ends at once.
  // its_errors: where its standard error goes to; -1: to this process's own.
  explicit Child(const std::vector<std::string>& words, int its_errors = -1);
  ~Child();
  Child(Child&& other) noexcept;
  Child& operator=(Child&& other) noexcept;

  // Of its output; -1: there is none.
  int descriptor() const { return output_; }

 private:
  pid_t pid_ = -1;
  int output_ = -1;
};

// What the program prints on standard output until it ends, or is ended because it takes longer or has printed a MiB.
// Nobody sees its errors.
std::string output_of(const std::vector<std::string>& words,
                      std::chrono::milliseconds patience = std::chrono::hours(1));

}  // namespace station

#endif
