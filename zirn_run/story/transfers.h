#ifndef STORY_TRANSFERS_H
#define STORY_TRANSFERS_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <list>
#include <map>
#include <utility>

#include "frames/packet.h"
#include "frames/tftp_message.h"
#include "story/book.h"
#include "story/track.h"

namespace story {

// Sorts TFTP datagrams into transfers, and requests into verdicts.
//
// A datagram to a server's port begins a transfer. The server answers each request that reaches it from a port
// of its own; which request an answer belongs to is not in it, so of one client port the first request that
// did arrive and has no answer yet gets it. An answer beyond those belongs to a duplicated request.
//
// kMaxFollowed transfers are followed at the same time; the one that rested longest makes room.
class Transfers {
 public:
  static constexpr std::size_t kMaxFollowed = 512;
  static constexpr std::size_t kMaxWaiting = 32;  // requests of one client port

  explicit Transfers(Book* book) : book_(book) {}

  // False, and the packet is left alone, when it belongs to no transfer.
  bool take(const frames::Packet& packet, const frames::TftpMessage& message, std::size_t source,
            std::size_t target);
  bool take_closed_port(const frames::Packet& packet, std::size_t source, std::size_t target);

  void pass_time(Nanoseconds now);
  void station_ended();
  void finish(Nanoseconds now);

 private:
  using Place = std::list<Track>::iterator;
  using Endpoint = frames::Endpoint;
  struct Client {
    Place latest;
    std::deque<Place> waiting;  // whose request arrived, in order, once for every time
  };

  bool is_to_server(const frames::Packet& packet, const frames::TftpMessage& message, std::size_t source,
                    std::size_t target) const;
  void begin(const frames::Packet& packet, const frames::TftpMessage& message, std::size_t source,
             std::size_t target);
  bool repeat(const frames::Packet& packet, const frames::TftpMessage& message, std::size_t source,
              std::size_t target);
  void wait_for_answer(const Endpoint& client, Place track);
  bool take_answer(const frames::Packet& packet, const frames::TftpMessage& message, std::size_t source);
  bool take_midway(const frames::Packet& packet, const frames::TftpMessage& message, std::size_t source,
                   std::size_t target);
  Place follow(Transfer transfer, const Endpoint& client);
  Place second_answer(const Track& first);
  void begin_verdict(std::size_t place);
  void begin_query(std::size_t place);
  std::size_t verdict_asked_by(const std::string& query) const;
  Place find(const Endpoint& client, std::uint16_t server_port);
  Place latest(const Endpoint& client);
  void touch(Place track) { tracks_.splice(tracks_.end(), tracks_, track); }
  void drop(Place track);

  Book* const book_;
  std::list<Track> tracks_;  // the longest at rest first
  std::map<Endpoint, Client> clients_;
  std::map<std::pair<Endpoint, std::uint16_t>, Place> answered_;  // by the server's port, the latest
  Nanoseconds checked_ = 0;
};

}  // namespace story

#endif
