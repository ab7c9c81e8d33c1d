#ifndef BENCH_BOARD_H
#define BENCH_BOARD_H

#include <string>
#include <vector>

// The board's commands as the station calls them: envtool, the voice service and the T1/E1 tool. They are
// scripts that keep the board's state in files and log each call, "SECONDS COMMAND", with the seconds since
// the epoch.
class Board {
 public:
  // folder: takes scripts, state and log. The scripts stand at their places on the board, so that the calling
  // process must have mounts of its own. Throws std::runtime_error where that fails.
  Board(const std::string& folder, const std::string& log);

  // The PATH in which the station finds envtool.
  std::string path() const;
  // From now on the T1/E1 tool ends with this exit status; 1 at first.
  void tool_exits(int status) const;
  // The commands called so far, without their times.
  std::vector<std::string> calls() const;
  // A variable of envtool's, "nothing" when it is not set.
  std::string keeps(const std::string& name) const;

 private:
  const std::string folder_;
  const std::string log_;
};

#endif
