#ifndef PICTURE_BUNDLING_H
#define PICTURE_BUNDLING_H

#include <string>

#include "picture/event.h"
#include "picture/tftp_message.h"

namespace picture {

// Adds up the blocks and ACKs of one transfer, in the order in which they were sent.
class Bundling {
 public:
  Bundling(const std::string& name, std::size_t block_size);

  void add(Microseconds at, const TftpMessage& message, const Fate& fate);

  const Bundle& bundle() const { return bundle_; }

 private:
  void add_data(const TftpMessage& message, BundlePacket* packet);
  void add_ack(const TftpMessage& message, BundlePacket* packet);

  Bundle bundle_;
  std::uint16_t last_block_ = 0;
  int last_ack_ = -1;  // none yet
  bool short_block_sent_ = false;
};

}  // namespace picture

#endif
