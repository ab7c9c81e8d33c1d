#ifndef SUPPORT_FAKE_BOARD_H
#define SUPPORT_FAKE_BOARD_H

#include <string>

#include "support/scratch_directory.h"

// The board's own commands, played by scripts while the object lives: envtool, first in PATH; and, where the
// process is in a sandbox, the other two at their places. A script notes how it was called, prints the
// output chosen for it, and ends with the status chosen for it: nothing and 0 at first. Make it before the
// first thread and before the daemon.
class FakeBoard {
 public:
  static constexpr char kEnvtool[] = "envtool";
  static constexpr char kVoice[] = "/etc/init.d/voice";
  static constexpr char kT1E1[] = "/mnt/ramdisk/t1-e1";

  FakeBoard();
  ~FakeBoard();
  FakeBoard(const FakeBoard&) = delete;
  FakeBoard& operator=(const FakeBoard&) = delete;

  // Why voice and t1-e1 are not at their places; empty when they are.
  const std::string& refusal() const { return refusal_; }

  void prints(const std::string& command, const std::string& output) const;
  void ends_with(const std::string& command, int status) const;
  // Once it has noted its call, the command waits to be released.
  void holds(const std::string& command) const;
  void releases(const std::string& command) const;
  void removes(const std::string& command) const;

  // Every call so far, each a line as in a shell: "envtool show tempmac\n".
  std::string calls() const;
  void forgets_calls() const;

 private:
  void installs(const std::string& command, const std::string& place) const;
  void mounts_places();
  std::string file_of(const std::string& command, const char* what) const;

  ScratchDirectory directory_;
  std::string path_before_;
  std::string refusal_;
  std::string covered_;  // what was mounted over for voice
  bool mnt_is_covered_ = false;
};

#define NEEDS_BOARD_COMMANDS(board) \
  if (!(board).refusal().empty()) GTEST_SKIP() << "needs the board's commands: " << (board).refusal()

#endif
