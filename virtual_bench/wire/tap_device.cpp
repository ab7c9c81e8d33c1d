#include "wire/tap_device.h"

#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "stage/network_namespace.h"

namespace {

[[noreturn]] void refuse(const std::string& expected) {
  throw std::runtime_error("expected " + expected + ": " + std::strerror(errno));
}

int make_device(const NetworkNamespace& place, const std::string& name) {
  if (name.empty() || name.size() >= IFNAMSIZ)
    throw std::runtime_error("expected a device name of 1 to 15 characters instead of '" + name + "'");
  const ScopedNamespace inside(place);
  const int device = open("/dev/net/tun", O_RDWR | O_NONBLOCK | O_CLOEXEC);
  if (device == -1) refuse("/dev/net/tun and the right to open it");
  ifreq request = {};
  name.copy(request.ifr_name, IFNAMSIZ - 1);
  request.ifr_flags = IFF_TAP | IFF_NO_PI;
  if (ioctl(device, TUNSETIFF, &request) == 0) return device;
  const int reason = errno;
  close(device);
  errno = reason;
  refuse("the right to make a device, and a name that is free, " + name);
}

}  // namespace

TapDevice::TapDevice(const NetworkNamespace& place, const std::string& name)
    : descriptor_(make_device(place, name)) {}

TapDevice::~TapDevice() {
  if (descriptor_ != -1) close(descriptor_);
}

TapDevice::TapDevice(TapDevice&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}

std::size_t TapDevice::take(char* room, std::size_t size) {
  const ssize_t length = read(descriptor_, room, size);
  if (length >= 0) return static_cast<std::size_t>(length);
  if (errno == EBADFD) close(std::exchange(descriptor_, -1));
  return 0;
}

bool TapDevice::deliver(std::string_view frame) {
  return write(descriptor_, frame.data(), frame.size()) == static_cast<ssize_t>(frame.size());
}
