#ifndef SUPPORT_IPXE_H
#define SUPPORT_IPXE_H

#include <string>

#include "support/serial_console.h"

// iPXE, the boot loader in the network card of an emulated PC. Make it where its TAP device is to be, in a test that
// began with NEEDS_IPXE().
class Ipxe : public SerialConsole {
 public:
  // Waits for its prompt, and tells it the PC's address.
  Ipxe(const std::string& tap, const std::string& ip);

  // Calls the command with the file on the station. What it printed, as it stands at last.
  std::string reads(const std::string& command, const std::string& name);

  // Why there can be no PC here; empty when there can.
  static std::string refusal();
};

#define NEEDS_IPXE() \
  if (!Ipxe::refusal().empty()) GTEST_SKIP() << Ipxe::refusal()

#endif
