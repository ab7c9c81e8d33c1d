#ifndef WIRE_ORDERED_LOSSES_H
#define WIRE_ORDERED_LOSSES_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "frames/packet.h"
#include "frames/tftp_message.h"
#include "wire/order.h"

// Picks the frames of one link that are to be lost by what they carry. For that it follows every read: which file the
// client's port has asked for, and how many blocks each port that answers has sent. Of a datagram in fragments the first
// one is meant.
class OrderedLosses {
 public:
  // One of the four kinds that name a file.
  void add(const Order& order) { orders_.push_back(order); }
  void clear() { orders_.clear(); }

  // A frame enters. Whether it is to be lost; one that is_lost already counts for no order.
  bool takes(std::string_view frame, bool is_lost);

 private:
  using Message = frames::TftpMessage;
  struct Answers {  // from one port
    std::optional<std::pair<Message::Kind, std::uint16_t>> first;
    std::uint64_t blocks = 0;
  };
  struct Read {
    std::string name;
    std::map<frames::Endpoint, Answers> answers;  // by who sent them
  };

  bool takes(const frames::Packet& packet, const Message& message);
  bool takes_answer(Read* read, const frames::Endpoint& server, const Message& message);
  bool is_ordered(Order::What what, const std::string& name, std::uint64_t number = 0);

  std::map<frames::Endpoint, Read> reads_;  // the latest, by the client
  std::vector<Order> orders_;
  bool counts_ = false;  // the present frame
};

#endif
