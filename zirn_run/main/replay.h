#ifndef MAIN_REPLAY_H
#define MAIN_REPLAY_H

#include <filesystem>
#include <string>

// A scenario played on the virtual bench by its program, in a folder of its own that goes with this object.
class Replay {
 public:
  // `bench`, `program`: files; empty: those beside this program. Throws NotPossible where there are none.
  Replay(const std::string& bench, const std::string& program);
  ~Replay();
  Replay(const Replay&) = delete;
  Replay& operator=(const Replay&) = delete;

  const std::filesystem::path& folder() const { return folder_; }
  // With a line of progress on a terminal. Returns the record of it, in the folder. Throws NotPossible where the
  // bench could not play it, in its words, or was interrupted.
  std::string play(const std::string& scenario);

 private:
  const std::string bench_;
  const std::string program_;
  std::filesystem::path folder_;
};

#endif
