#ifndef STORY_CONNECTIONS_H
#define STORY_CONNECTIONS_H

#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <utility>

#include "frames/packet.h"
#include "story/book.h"

namespace story {

// TCP connections: how they are opened, what is said, how they end. Bare ACKs are left out, and segments that
// were sent before are counted only. Attempts of one client at one port, one after the other and all in vain,
// are one connection.
//
// kMaxFollowed are followed at the same time; the one that rested longest makes room.
class Connections {
 public:
  static constexpr std::size_t kMaxFollowed = 256;

  explicit Connections(Book* book) : book_(book) {}

  void take(const frames::Packet& packet, std::size_t source, std::size_t target);

 private:
  using Endpoint = frames::Endpoint;
  struct Side {
    std::uint32_t next_sequence = 0;  // of the first byte not sent yet
    bool began = false;
  };
  struct Talk {
    Endpoint client;
    Endpoint server;
    std::size_t place = kNone;
    Side sides[2];  // the server's, the client's
    std::size_t connect_step = kNone;
    std::size_t refused_step = kNone;
    std::size_t says_steps[2] = {kNone, kNone};
    std::size_t end_steps[2] = {kNone, kNone};
    std::size_t reset_step = kNone;
  };
  using Place = std::list<Talk>::iterator;

  Place talk_of(const frames::Packet& packet, std::size_t source, std::size_t target);
  Place open(const frames::Packet& packet, std::size_t source, std::size_t target);
  Place attempt_again(const frames::Packet& packet);
  void drop(Place talk);
  bool is_again(const frames::Packet& packet, Side* side) const;
  void take_opening(const frames::Packet& packet, Talk* talk, std::size_t source, std::size_t target);
  void take_text(const frames::Packet& packet, Talk* talk, bool is_from_client);
  void take_end(const frames::Packet& packet, Talk* talk, std::size_t source, std::size_t target);
  Connection& connection(const Talk& talk) { return book_->reading.connections[talk.place]; }

  Book* const book_;
  std::list<Talk> talks_;                                   // the longest at rest first
  std::map<std::pair<Endpoint, Endpoint>, Place> by_ends_;  // client's and server's
};

}  // namespace story

#endif
