#ifndef SUPPORT_U_BOOT_H
#define SUPPORT_U_BOOT_H

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>

// U-Boot on an emulated ARM board, driven through its serial console. Its RAM begins at 0x40000000 and has
// 256 MiB. Its network card is the far end of a TAP device; the board knows its own address and the server's.
//
// Make it in the place where the TAP device is, in a test that began with NEEDS_U_BOOT(). When the test has
// failed at the end, the whole console is printed and kept in the build's folder of tests, in a file that is
// named after the test.
class UBoot {
 public:
  using Milliseconds = std::chrono::milliseconds;

  // Starts the board and waits for its prompt; throws std::runtime_error with the console when none comes.
  UBoot(const std::string& tap, const std::string& board_ip, const std::string& server_ip);
  ~UBoot();
  UBoot(const UBoot&) = delete;
  UBoot& operator=(const UBoot&) = delete;

  // Types a command and does not wait for its end.
  void types(const std::string& command);
  // Waits for the prompt. What the typed command printed, with plain line ends; nothing when no prompt came
  // in time.
  std::optional<std::string> finishes(Milliseconds patience = std::chrono::seconds(20));
  // Both.
  std::string runs(const std::string& command, Milliseconds patience = std::chrono::seconds(20));
  // Whether the last command succeeded.
  bool succeeded();
  // Everything on the console so far.
  const std::string& console() const { return console_; }

  // Why there can be no board here; empty when there can.
  static std::string refusal();

 private:
  bool shows(const std::string& piece, Milliseconds patience);
  void sends(const std::string& keys);

  pid_t pid_ = -1;
  int serial_ = -1;
  std::string console_;              // without carriage returns
  std::string::size_type seen_ = 0;  // what lies before this has been looked at
};

#define NEEDS_U_BOOT() \
  if (!UBoot::refusal().empty()) GTEST_SKIP() << UBoot::refusal()

#endif
