#ifndef SCENARIO_CONTENTS_H
#define SCENARIO_CONTENTS_H

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>

#include "frames/decoder.h"
#include "frames/packet.h"
#include "frames/tftp_message.h"
#include "record/item.h"

namespace scenario {

// Writes the files that a record has whole into a folder, out of the frames of their reads, as they come. A block counts
// where its whole datagram was caught, once, and after the one before it; numbers go on after 65535 with 0. A file that no
// read brings whole is not there in the end.
//
// At most kMostReads are followed at the same time, with an open file each; the one that rested longest makes room.
class Contents {
 public:
  static constexpr std::size_t kMostReads = 64;
  static constexpr std::size_t kMostRequests = 512;  // whose answer is waited for

  // The folder is made, or is empty: what is in a record takes no other file's place. Throws std::system_error, here and
  // where a file cannot be written.
  explicit Contents(const std::string& folder);
  ~Contents();
  Contents(const Contents&) = delete;
  Contents& operator=(const Contents&) = delete;

  void take(const record::Item& item);
  // No more is told.
  void finish();

  // Where the file is, by the folder's name; empty: it is not whole, or its name would not do for a file in the folder.
  std::string file(const std::string& name) const;

 private:
  struct Request {
    std::string name;
    std::uint32_t server = 0;  // address
    bool asks_block_size = false;
    std::uint64_t order = 0;
  };
  struct Read {
    std::string name;
    std::string part;  // the name of its file until it is whole
    int descriptor = -1;
    std::size_t block_size = 0;  // bytes; 0: not acknowledged so far
    std::uint16_t next = 1;      // block
    std::uint64_t order = 0;
  };
  using Ends = std::pair<frames::Endpoint, frames::Endpoint>;  // client and server
  using Reads = std::map<Ends, Read>;

  void take(const frames::Packet& packet);
  void note_request(const frames::Packet& packet, const frames::TftpMessage& message);
  Reads::iterator read_of(const Ends& ends);
  Reads::iterator begin(const Ends& ends, const Request& request);
  void take_block(Reads::iterator read, std::string_view data);
  void write(const Read& read, std::string_view data) const;
  void keep(Reads::iterator read);
  void drop(Reads::iterator read);

  const std::string folder_;
  int descriptor_ = -1;  // of the folder
  frames::Decoder decoder_;
  std::uint64_t order_ = 0;
  std::map<frames::Endpoint, Request> requests_;  // by client, the last one
  Reads reads_;
  std::set<std::string> files_;  // that are whole
};

}  // namespace scenario

#endif
