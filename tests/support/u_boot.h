#ifndef SUPPORT_U_BOOT_H
#define SUPPORT_U_BOOT_H

#include <string>

#include "support/serial_console.h"

// U-Boot on an emulated ARM board. Its RAM begins at 0x40000000 and has 256 MiB. Make it where its TAP device
// is to be, in a test that began with NEEDS_U_BOOT().
class UBoot : public SerialConsole {
 public:
  // Waits for its prompt, and tells it the board's address and the server's.
  UBoot(const std::string& tap, const std::string& board_ip, const std::string& server_ip);

  // Whether the last command succeeded.
  bool succeeded();

  // Why there can be no board here; empty when there can.
  static std::string refusal();
};

#define NEEDS_U_BOOT() \
  if (!UBoot::refusal().empty()) GTEST_SKIP() << UBoot::refusal()

#endif
