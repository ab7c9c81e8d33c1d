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

// A descriptor that is closed with the object.
class OpenFile {
 public:
  OpenFile(const char* path, int flags) : descriptor_(open(path, flags | O_CLOEXEC)) {}
  ~OpenFile() {
    if (descriptor_ != -1) close(descriptor_);
  }
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;

  int number() const { return descriptor_; }
  int release() { return std::exchange(descriptor_, -1); }

 private:
  int descriptor_;
};

int make_device(const std::string& network_namespace, const std::string& name) {
  const ScopedNamespace scope(network_namespace);
  OpenFile device("/dev/net/tun", O_RDWR | O_NONBLOCK);
  if (device.number() == -1) refuse("/dev/net/tun and the right to open it");
  ifreq request = {};
  name.copy(request.ifr_name, IFNAMSIZ - 1);
  request.ifr_flags = IFF_TAP | IFF_NO_PI;
  if (ioctl(device.number(), TUNSETIFF, &request) != 0) {
    refuse("the right to make a device, and a name that is free, " + name + " in " + network_namespace);
  }
  return device.release();
}

}  // namespace

TapDevice::TapDevice(const std::string& network_namespace, const std::string& name)
    : descriptor_(make_device(network_namespace, name)) {}

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
