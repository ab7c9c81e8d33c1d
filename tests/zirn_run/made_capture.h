#ifndef ZIRN_RUN_MADE_CAPTURE_H
#define ZIRN_RUN_MADE_CAPTURE_H

#include <string>

#include "zirn_run/made_record.h"
#include "zirn_run/made_run.h"

// A capture file in which a unit reads from the station; a millisecond from frame to frame.
class MadeCapture {
 public:
  static constexpr std::uint64_t kFirstMillisecond = 1700000000000;
  static constexpr std::uint16_t kEthernet = 1;

  explicit MadeCapture(std::uint16_t link_type = kEthernet)
      : contents_(made_.section() + made_.interface(link_type, 0)) {}

  // A whole read of one block.
  MadeCapture& read(const std::string& name, std::uint16_t unit_port = 2000) {
    const made::Endpoint unit{made::kUnit, unit_port}, asked{made::kStation, 69};
    const made::Endpoint answering{made::kStation, 33133};
    udp(unit, asked, tftp::rrq(name));
    udp(answering, unit, tftp::data(1, "contents"));
    udp(unit, answering, tftp::ack(1));
    return *this;
  }
  // A verdict that the station takes.
  MadeCapture& verdict(const std::string& name, std::uint16_t unit_port) {
    const made::Endpoint unit{made::kUnit, unit_port}, asked{made::kStation, 69};
    const made::Endpoint answering{made::kStation, 33133};
    udp(unit, asked, tftp::rrq(name));
    udp(answering, unit, tftp::data(1, ""));
    udp(unit, answering, tftp::ack(1));
    return *this;
  }
  MadeCapture& request(const std::string& name, std::uint16_t unit_port) {
    udp({made::kUnit, unit_port}, {made::kStation, 69}, tftp::rrq(name));
    return *this;
  }
  // From here on so many bytes of a frame are kept.
  MadeCapture& keeps(std::size_t bytes) {
    kept_ = bytes;
    return *this;
  }
  void frame(const std::string& bytes) {
    contents_ += made_.enhanced(0, ++milliseconds_ * 1000, bytes.substr(0, kept_),
                                static_cast<std::uint32_t>(bytes.size()));
  }
  void rests(std::uint64_t milliseconds) { milliseconds_ += milliseconds; }

  const std::string& contents() const { return contents_; }

 private:
  void udp(made::Endpoint from, made::Endpoint to, const std::string& payload) {
    frame(made::ethernet(made::ip(from.address, to.address, 17, made::udp(from, to, payload))));
  }

  const MadeRecord made_ = MadeRecord::in_order_of_this_machine();
  std::string contents_;
  std::size_t kept_ = std::string::npos;
  std::uint64_t milliseconds_ = kFirstMillisecond;
};

#endif
