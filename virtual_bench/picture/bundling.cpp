#include "picture/bundling.h"

#include <algorithm>

namespace picture {

Bundling::Bundling(const std::string& name, std::size_t block_size) {
  bundle_.name = name;
  bundle_.block_size = block_size;
}

void Bundling::add(Microseconds at, const TftpMessage& message, const Fate& fate) {
  BundlePacket packet;
  packet.at = at;
  packet.fate = fate;
  packet.is_data = message.kind == TftpMessage::Kind::kData;
  if (packet.is_data) {
    add_data(message, &packet);
  } else {
    add_ack(message, &packet);
  }
  bundle_.packets.push_back(packet);
}

void Bundling::add_data(const TftpMessage& message, BundlePacket* packet) {
  packet->byte_count = message.data_size;
  packet->is_again = message.number != static_cast<std::uint16_t>(last_block_ + 1);
  if (!packet->is_again) {
    last_block_ = message.number;
    bundle_.blocks += 1;
    bundle_.byte_count += message.data_size;
    bundle_.block_size = std::max(bundle_.block_size, message.data_size);
    short_block_sent_ = message.data_size < bundle_.block_size;
  }
  packet->ordinal = bundle_.blocks;
}

void Bundling::add_ack(const TftpMessage& message, BundlePacket* packet) {
  packet->ordinal = bundle_.blocks;
  packet->is_again = message.number == last_ack_;
  last_ack_ = message.number;
  const bool of_last_block = message.number == last_block_ && !packet->fate.lost;
  if (short_block_sent_ && of_last_block) bundle_.finished = true;
}

}  // namespace picture
