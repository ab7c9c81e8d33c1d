#ifndef PICTURE_TRANSFERS_H
#define PICTURE_TRANSFERS_H

#include <cstdint>
#include <deque>
#include <map>
#include <utility>
#include <vector>

#include "picture/event.h"
#include "picture/packet.h"
#include "picture/record.h"
#include "picture/tftp_message.h"

namespace picture {

// Sorts TFTP datagrams into transfers: the unit's with the daemon, and the daemon's with the PPT server.
//
// A datagram to a server's port begins a transfer. The server answers each request that reaches it from a
// port of its own; which request an answer belongs to is not in it, so of one client port the first request
// that did arrive and has no answer yet gets it. An answer beyond those belongs to a duplicated request.
class Transfers {
 public:
  explicit Transfers(const Ports& ports);

  // False, and the packet is left alone, when it belongs to no transfer.
  bool take(const Packet& packet);

  // What was taken, each transfer's events together and in order. The repetitions of a request are one event.
  std::vector<Event> events() const;

 private:
  struct Step {
    Packet packet;
    TftpMessage message;
    bool from_client = false;
  };
  struct Transfer {
    std::vector<Step> steps;  // the first is the request; a duplicated one's second answer has none
    TftpMessage request;
    bool is_second_answer = false;
    bool repeats_request = false;
  };
  using Client = std::pair<std::uint32_t, std::uint16_t>;  // address and port

  bool is_to_server(const Packet& packet) const;
  void begin(const Step& request);
  bool take_answer(const Step& step);
  Transfer* find(const Client& client, std::uint16_t server_port);
  Transfer* latest(const Client& client);
  std::size_t take_unanswered(const Client& client);

  static std::size_t block_size_of(const Transfer& transfer);
  static void tell(const Transfer& transfer, std::size_t first_step, std::vector<Event>* events);

  Ports ports_;
  std::vector<Transfer> transfers_;
  // Where in transfers_.
  std::map<Client, std::size_t> latest_;
  std::map<Client, std::deque<std::size_t>> unanswered_;              // whose request arrived, in order
  std::map<std::pair<Client, std::uint16_t>, std::size_t> answered_;  // by the server's port, the latest
};

}  // namespace picture

#endif
