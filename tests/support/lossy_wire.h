#ifndef SUPPORT_LOSSY_WIRE_H
#define SUPPORT_LOSSY_WIRE_H

#include <unistd.h>

#include <fstream>
#include <memory>
#include <string>

#include "stage/network_namespace.h"
#include "support/emulated.h"
#include "support/sandbox.h"
#include "support/test_network.h"
#include "wire/wire_process.h"
#include "wire/wire_record.h"

// Takes the place of the unit's link in a test network: the virtual bench's wire carries the frames, and
// loses some of them on order. Make it before anything uses the link, in a test that began with NEEDS_WIRE();
// it keeps its record in the working directory.
class LossyWire {
 public:
  explicit LossyWire(const TestNetwork& network) {
    ip("link delete lan0");
    const NetworkNamespace station = NetworkNamespace::current();
    network.at_unit([&] {
      const NetworkNamespace unit = NetworkNamespace::current();
      wire_ = std::make_unique<WireProcess>(kRecord, 1,
                                            std::vector<Wire::Ends>{{{{station, "lan0"}, {unit, "lan0"}}}});
      ip("address add 172.40.0.2/24 broadcast 172.40.0.255 dev lan0");
      ip("link set lan0 up");
    });
    ip("address add 172.40.0.1/24 broadcast 172.40.0.255 label lan0:0 dev lan0");
    ip("link set lan0 up");
  }

  // From now on, of the frames of both directions.
  void loses(double percent) const { wire_->order({Order::What::kLose, percent}); }
  std::size_t lost_frames() const {
    std::ifstream record(kRecord, std::ios::binary);
    return read_fates(record).of_frames.size();
  }

 private:
  static constexpr char kRecord[] = "wire.pcapng";
  std::unique_ptr<WireProcess> wire_;
};

#define NEEDS_WIRE()                                       \
  NEEDS_SANDBOX();                                         \
  LEFT_OUT_UNDER_EMULATION("the wire needs /dev/net/tun"); \
  if (access("/dev/net/tun", R_OK | W_OK) != 0) GTEST_SKIP() << "needs /dev/net/tun"

#endif
