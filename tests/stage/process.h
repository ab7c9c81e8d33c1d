#ifndef STAGE_PROCESS_H
#define STAGE_PROCESS_H

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "stage/wait_until.h"

// How a process ended: by itself, or by a signal.
struct ProcessEnd {
  int status = 0;  // 0 to 255; 0 where a signal ended it
  int signal = 0;  // 0: none

  bool succeeded() const { return status == 0 && signal == 0; }
  // As a shell counts it: 128 plus the number of a signal.
  int shell_status() const;
  // "exit status 2", "killed by signal 9".
  std::string text() const;
};

// A child process with its standard input and output in the parent's hands; output is read without waiting.
// It dies with the object, by SIGKILL, and with the thread that made it if that is the parent's first: one
// that other threads make outlives them.
class Process {
 public:
  using Arguments = std::vector<std::string>;
  using Prepare = std::function<void()>;

  // Starts a program. arguments[0]: its path, or its name in PATH. prepare: called in the child before, with
  // standard input and output in place; it may enter a namespace or send an output elsewhere. Returns when
  // the program has started; throws std::runtime_error, which names it, when it cannot be started or prepare
  // throws.
  explicit Process(
      const Arguments& arguments, const Prepare& prepare = [] {});
  // Forks a child that does the work and ends with what work returns, or with 1, and a line on standard
  // error, when it throws. As above otherwise; it has no part in the parent's other processes.
  explicit Process(
      const std::function<int()>& work, const Prepare& prepare = [] {});
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  pid_t pid() const { return pid_; }
  // To wait for output with poll.
  int output() const { return output_; }

  // False when nobody can read it any more.
  bool write_text(const std::string& text) const;
  bool write_line(const std::string& line) const { return write_text(line + "\n"); }
  // The child finds its input at an end.
  void close_input() const;
  // The next whole line of its output, without the newline; nothing when none is there now.
  std::optional<std::string> read_line();
  // Output so far that was not read.
  std::string read_text();
  // Nothing while it runs. Once it has ended, all of its output is there.
  std::optional<ProcessEnd> end();
  // Waits for the end for at most so long.
  std::optional<ProcessEnd> wait_for_end(std::chrono::duration<double> patience = kPatience);
  void send_signal(int number) const;

 private:
  void start(const std::string& name, const Prepare& prepare, const std::function<void(int)>& become);
  void receive();
  void finish();

  pid_t pid_ = -1;
  int input_ = -1;
  int output_ = -1;
  std::string unread_;
  std::optional<ProcessEnd> end_;
};

// For prepare: standard error goes to the end of the file.
void append_errors_to(const std::string& file);

#endif
