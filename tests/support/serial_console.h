#ifndef SUPPORT_SERIAL_CONSOLE_H
#define SUPPORT_SERIAL_CONSOLE_H

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "stage/process.h"

// An emulated machine with its serial console on standard input and output, and a command line on it. It is
// in the place of the thread that makes it.
//
// When the test has failed at the end, the whole console is printed, and kept beside the test program in a
// file that is named after the test.
class SerialConsole {
 public:
  using Milliseconds = std::chrono::milliseconds;
  static constexpr Milliseconds kStartPatience = std::chrono::seconds(90);
  static constexpr Milliseconds kPatience = std::chrono::seconds(30);

  // The emulator and its arguments; what the console shows when a command line may follow.
  SerialConsole(const std::vector<std::string>& words, const std::string& prompt);
  ~SerialConsole();
  SerialConsole(const SerialConsole&) = delete;
  SerialConsole& operator=(const SerialConsole&) = delete;

  // The network card that those words give the machine is the far end of a new TAP device of that name.
  static std::vector<std::string> network_card(const std::string& tap);
  // Why there can be no such card here; empty when there can.
  static std::string refusal();

  // Waits for the piece, then presses the keys until the prompt comes. Throws std::runtime_error with the
  // console when one of them does not come.
  void starts(const std::string& piece, const std::string& keys);
  // Types a command and does not wait for its end.
  void types(const std::string& command);
  // Waits for the prompt. What the typed command printed, without carriage returns; nothing when no prompt
  // came in time.
  std::optional<std::string> finishes(Milliseconds patience = kPatience);
  // Both.
  std::string runs(const std::string& command, Milliseconds patience = kPatience);

 private:
  bool shows(const std::string& piece, Milliseconds patience);
  void sends(const std::string& keys);

  std::string prompt_;
  Process process_;
  std::string console_;   // everything so far, without carriage returns
  std::size_t seen_ = 0;  // what lies before this has been looked at
};

#endif
