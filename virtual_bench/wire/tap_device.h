#ifndef WIRE_TAP_DEVICE_H
#define WIRE_TAP_DEVICE_H

#include <cstddef>
#include <string>
#include <string_view>

#include "stage/network_namespace.h"

// An Ethernet device of some network namespace whose cable ends in this process. It lives as long as the
// object. Whoever made the namespace gives it its addresses and sets it up.
class TapDevice {
 public:
  // Makes the device in the namespace. Throws std::runtime_error with one line that says what was expected.
  TapDevice(const NetworkNamespace& place, const std::string& name);
  ~TapDevice();
  TapDevice(TapDevice&& other) noexcept;
  TapDevice(const TapDevice&) = delete;
  TapDevice& operator=(const TapDevice&) = delete;

  // To be polled for frames that wait; -1 once the device is gone.
  int descriptor() const { return descriptor_; }
  // Takes the next frame that was sent on the device, without waiting. Its length, or 0 when none waits. When
  // somebody has deleted the device, it is given up.
  std::size_t take(char* room, std::size_t size);
  // Lets the frame arrive on the device. False when it does not take it, as when it is down.
  bool deliver(std::string_view frame);

 private:
  int descriptor_;
};

#endif
