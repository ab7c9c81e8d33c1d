#ifndef STAGE_BOARD_H
#define STAGE_BOARD_H

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

// The board's commands as the station calls them: envtool, the voice service and the T1/E1 tool. They are
// scripts: each logs its call and its status, waits while it is held, prints the output chosen for it and ends with the
// status chosen for it, nothing and 0 at first. envtool keeps variables besides.
class Board {
 public:
  static constexpr char kEnvtool[] = "envtool";
  static constexpr char kVoice[] = "/etc/init.d/voice";
  static constexpr char kT1E1[] = "/mnt/ramdisk/t1-e1";

  enum class Commands {
    kAll,         // all at their places; the process has mounts of its own
    kInPathOnly,  // envtool alone
  };

  struct Call {
    std::int64_t at = 0;  // microseconds since the epoch
    std::string command;
    std::optional<int> status;  // absent: it has not ended, or was killed
  };

  // folder: made for what the scripts need. Throws std::runtime_error where a place cannot be mounted.
  explicit Board(const std::string& folder, Commands commands = Commands::kAll);
  ~Board();
  Board(const Board&) = delete;
  Board& operator=(const Board&) = delete;

  // The PATH in which the station finds envtool.
  std::string path() const;

  // From now on, for one of the three commands:
  void prints(const std::string& command, const std::string& output) const;
  void ends_with(const std::string& command, int status) const;
  void is_killed(const std::string& command) const;
  // Once it has logged its call, the command waits to be released.
  void holds(const std::string& command) const;
  void releases(const std::string& command) const;
  void removes(const std::string& command) const;
  // It is these lines of a shell's instead of all else.
  void is_script(const std::string& command, const std::string& lines) const;

  // A variable of envtool's; "nothing" when it is not set.
  void sets_variable(const std::string& name, const std::string& value) const;
  std::string variable(const std::string& name) const;

  // The commands called so far. The log: the same with times and statuses.
  std::vector<std::string> calls() const;
  std::vector<Call> log() const;
  void forgets_calls() const;

 private:
  class Mount;

  void install(const std::string& command, const std::string& more_lines = "") const;
  std::string place_of(const std::string& command) const;
  std::string file_of(const std::string& command, const std::string& what) const;

  const std::string folder_;
  const std::string log_;       // "PID SECONDS COMMAND" of each call
  const std::string statuses_;  // "PID STATUS" of each that has ended
  std::vector<std::unique_ptr<Mount>> mounts_;
  std::string tools_;  // the folder of envtool
};

#endif
