#ifndef STORY_DATAGRAMS_H
#define STORY_DATAGRAMS_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <tuple>

#include "frames/packet.h"
#include "story/book.h"

namespace story {

// UDP that is no TFTP, and closed ports that answer no transfer: boot script, relay, and what nobody expected.
// All boot scripts are one step; equal datagrams to the relay are one while they follow within kFoldPause; so
// are any to the same other port. A closed port is one step for who sends there and where.
class Datagrams {
 public:
  static constexpr Nanoseconds kFoldPause = 2000000000;
  static constexpr std::size_t kMaxFollowed = 256;  // senders and ports
  static constexpr std::size_t kRelayedBack = 32;   // that a datagram of the station's may pass on

  explicit Datagrams(Book* book) : book_(book) {}

  void take_boot_script(const frames::Packet& packet, std::size_t source);
  // False, and the packet is left alone, when it has nothing to do with the relay.
  bool take_relayed(const frames::Packet& packet, std::size_t source, std::size_t target);
  void take_other(const frames::Packet& packet, std::size_t source, std::size_t target);
  void take_closed_port(const frames::Packet& packet, std::size_t source, std::size_t target);

 private:
  using Way = std::tuple<Step::Kind, std::size_t, std::size_t, std::uint16_t>;  // source, target, port

  void receive(const frames::Packet& packet, std::size_t source, std::size_t target);
  void pass_on(const frames::Packet& packet, std::size_t source, std::size_t target);
  std::size_t tell(Step::Kind kind, const frames::Packet& packet, std::size_t source, std::size_t target,
                   std::size_t thread);

  Book* const book_;
  std::size_t boot_script_step_ = kNone;
  std::map<Way, std::size_t> last_steps_;
};

}  // namespace story

#endif
