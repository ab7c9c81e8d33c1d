#ifndef SUPPORT_UNIT_MACHINE_H
#define SUPPORT_UNIT_MACHINE_H

#include <string>

#include "support/test_network.h"

// The TAP device that leads from the test network to an emulated machine in the place of the unit.
inline constexpr char kUnitMachineTap[] = "unit0";

// The unit's link leads to that device from now on, and no longer to the test.
inline void plug_in_unit_machine(const TestNetwork& network) {
  network.at_unit([] {
    ip("address flush dev lan0");
    ip(std::string("tuntap add mode tap ") + kUnitMachineTap);
    ip("link add bridge0 type bridge");
    for (const std::string device : {"lan0", kUnitMachineTap}) {
      ip("link set " + device + " master bridge0");
      ip("link set " + device + " up");
    }
    ip("link set bridge0 up");
  });
}

#endif
