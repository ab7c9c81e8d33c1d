#include "wire/ordered_losses.h"

#include <algorithm>

#include "frames/decoder.h"

namespace {

using frames::TftpMessage;
using Kind = TftpMessage::Kind;

bool may_be_first(const TftpMessage& message) {
  return message.kind == Kind::kOack || message.kind == Kind::kError ||
         (message.kind == Kind::kData && message.number == 1);
}

// The number nearest to the last one that is written so.
std::uint64_t unwrapped(std::uint16_t number, std::uint64_t last) {
  const auto ahead = static_cast<std::int16_t>(number - static_cast<std::uint16_t>(last));
  return last + static_cast<std::uint64_t>(std::int64_t{ahead});
}

}  // namespace

bool OrderedLosses::takes(std::string_view frame, bool is_lost) {
  counts_ = !is_lost;
  bool is_taken = false;
  frames::Decoder decoder([&](const frames::Packet& packet) {
    if (packet.protocol == frames::Packet::Protocol::kUdp)
      is_taken = takes(packet, frames::tftp_message_in(packet.payload, packet.payload_size));
  });
  record::Frame entered;
  entered.bytes = frame;
  decoder.take(entered);
  decoder.finish();
  return is_taken;
}

bool OrderedLosses::takes(const frames::Packet& packet, const Message& message) {
  if (message.kind == Kind::kReadRequest) {
    reads_[packet.source] = {message.name, {}};
    return is_ordered(Order::What::kLoseRequest, message.name);
  }
  const auto asked = reads_.find(packet.destination);
  if (asked != reads_.end()) return takes_answer(&asked->second, packet.source, message);
  const auto read = reads_.find(packet.source);
  if (read == reads_.end() || message.kind != Kind::kAck) return false;
  const std::uint64_t blocks = read->second.answers[packet.destination].blocks;
  return is_ordered(Order::What::kLoseAck, read->second.name, unwrapped(message.number, blocks));
}

bool OrderedLosses::takes_answer(Read* read, const frames::Endpoint& server, const Message& message) {
  Answers& answers = read->answers[server];
  const std::pair said(message.kind, message.number);
  if (!answers.first && may_be_first(message)) answers.first = said;
  if (answers.first == said && is_ordered(Order::What::kLoseAnswer, read->name)) return true;
  if (message.kind != Kind::kData) return false;
  const std::uint64_t number = unwrapped(message.number, answers.blocks);
  if (static_cast<std::int64_t>(number - answers.blocks) > 0) answers.blocks = number;
  return is_ordered(Order::What::kLoseBlock, read->name, number);
}

bool OrderedLosses::is_ordered(Order::What what, const std::string& name, std::uint64_t number) {
  const auto order = std::find_if(orders_.begin(), orders_.end(), [&](const Order& one) {
    return one.what == what && one.name == name && static_cast<std::uint64_t>(one.amount) == number;
  });
  if (order == orders_.end() || !counts_) return false;
  if (--order->times == 0) orders_.erase(order);
  return true;
}
