#ifndef SUPPORT_FAKE_BOARD_H
#define SUPPORT_FAKE_BOARD_H

#include <cstdlib>
#include <string>

#include "stage/board.h"
#include "support/sandbox.h"
#include "support/scratch_directory.h"

// The board's own commands, while the object lives: envtool, first in PATH; and, where the process is in a
// sandbox, the other two at their places. Make it before the first thread and before the daemon.
class FakeBoard : private ScratchDirectory, public Board {
 public:
  FakeBoard()
      : Board(ScratchDirectory::path(), sandbox::entered() ? Commands::kAll : Commands::kInPathOnly),
        path_before_(std::getenv("PATH")) {
    setenv("PATH", Board::path().c_str(), 1);
  }
  ~FakeBoard() { setenv("PATH", path_before_.c_str(), 1); }
  FakeBoard(const FakeBoard&) = delete;
  FakeBoard& operator=(const FakeBoard&) = delete;

  // Every call so far, each a line as in a shell: "envtool show tempmac\n".
  std::string calls() const {
    std::string lines;
    for (const std::string& call : Board::calls()) lines += call + "\n";
    return lines;
  }

 private:
  const std::string path_before_;
};

#endif
