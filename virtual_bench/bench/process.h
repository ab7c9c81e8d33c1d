#ifndef BENCH_PROCESS_H
#define BENCH_PROCESS_H

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

// A child process with pipes to its standard input and from its standard output, which are read without
// waiting. The destructor kills it with SIGKILL and reaps it.
class Process {
 public:
  // arguments[0]: the program's path. prepare: called in the child before the program starts. errors: file
  // that takes standard error, the parent's where it is empty. Returns when the program has started; throws
  // std::runtime_error, which names it, when it cannot be started or prepare throws.
  Process(const std::vector<std::string>& arguments, const std::function<void()>& prepare,
          const std::string& errors = "");
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  // Writes the line; whether anybody reads it is not known.
  void says(const std::string& line);
  // The next whole line of its output, without the newline; nothing when none is there now.
  std::optional<std::string> next_line();
  // All output so far that next_line did not give.
  std::string rest();
  // Its exit status, 128 plus the number when a signal killed it; nothing while it runs. Once it has ended,
  // all of its output is there.
  std::optional<int> ended();
  void signals(int number) const;
  // To wait for its output with poll.
  int output() const { return output_; }

 private:
  void read_output();
  void end();

  pid_t pid_ = -1;
  int input_ = -1;
  int output_ = -1;
  std::string unread_;
  std::optional<int> end_;
};

#endif
