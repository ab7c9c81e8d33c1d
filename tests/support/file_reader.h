#ifndef SUPPORT_FILE_READER_H
#define SUPPORT_FILE_READER_H

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "support/descriptors.h"
#include "support/tftp_bytes.h"

// A TFTP client that reads a file whose contents the test knows, and compares every block as it comes. It
// never waits, so that one thread can run hundreds of them and files may be long: see run().
class FileReader {
 public:
  // Without options for a block size of 0. Blocks are acknowledged_size long when the server lowers the size.
  FileReader(const std::string& server_ip, int server_port, const std::string& name, int block_size,
             const std::string& contents, int acknowledged_size = 0)
      : descriptor_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)),
        contents_(contents),
        them_(socket_address(server_ip, server_port)) {
    block_size_ = static_cast<std::size_t>(acknowledged_size != 0 ? acknowledged_size : block_size);
    if (block_size == 0) {
      block_size_ = 512;
      sends(tftp::rrq(name));
      return;
    }
    sends(tftp::rrq(name, {{"blksize", std::to_string(block_size)}}));
    awaits_options_ = true;
  }
  ~FileReader() { close(descriptor_); }
  FileReader(const FileReader&) = delete;
  FileReader& operator=(const FileReader&) = delete;

  int descriptor() const { return descriptor_; }
  // It has the whole file, or it gave up.
  bool ended() const { return complete_ || !failure_.empty(); }
  // Empty when it has the whole file.
  std::string failure() const {
    if (ended()) return failure_;
    return "stopped behind block " + std::to_string(block_);
  }

  // Takes the one datagram that waits and answers it.
  void takes_datagram() {
    static std::vector<char> buffer(65536);
    socklen_t length = sizeof them_;
    const ssize_t count =
        recvfrom(descriptor_, buffer.data(), buffer.size(), 0, as_sockaddr(&them_), &length);
    if (count < 0) return fails(std::strerror(errno));
    const auto size = static_cast<std::size_t>(count);
    if (awaits_options_) {
      const std::string expected = tftp::oack({{"blksize", std::to_string(block_size_)}});
      if (std::string(buffer.data(), size) != expected) {
        return fails("no OACK but " + tftp::in_words({buffer.data(), size}));
      }
      awaits_options_ = false;
      return sends(tftp::ack(0));
    }
    takes_block(buffer.data(), size);
  }

 private:
  void takes_block(const char* datagram, std::size_t size) {
    const std::string head = tftp::data(block_ + 1, "");
    if (size < head.size() || std::memcmp(datagram, head.data(), head.size()) != 0) {
      return fails("behind block " + std::to_string(block_) + " came " + tftp::in_words({datagram, size}));
    }
    const std::size_t expected = std::min(block_size_, contents_.size() - position_);
    const std::size_t count = size - head.size();
    if (count != expected || std::memcmp(datagram + head.size(), contents_.data() + position_, count) != 0) {
      return fails("block " + std::to_string(block_ + 1) + " has other bytes than the file");
    }
    ++block_;
    position_ += count;
    sends(tftp::ack(block_));
    complete_ = count < block_size_;
  }
  void sends(const std::string& datagram) {
    if (sendto(descriptor_, datagram.data(), datagram.size(), 0, as_sockaddr(&them_), sizeof them_) < 0) {
      fails(std::strerror(errno));
    }
  }
  void fails(const std::string& why) { failure_ = why; }

  int descriptor_;
  const std::string& contents_;
  sockaddr_in them_;
  std::size_t block_size_ = 0;
  bool awaits_options_ = false;
  int block_ = 0;
  std::size_t position_ = 0;
  bool complete_ = false;
  std::string failure_;
};

// Lets the readers read side by side until all have ended or nothing came for so long. How many ended with
// the whole file.
inline int run(const std::vector<std::unique_ptr<FileReader>>& readers,
               std::chrono::milliseconds patience = std::chrono::seconds(10)) {
  for (;;) {
    std::vector<pollfd> waiting;
    std::vector<FileReader*> open;
    for (const auto& reader : readers) {
      if (reader->ended()) continue;
      waiting.push_back({reader->descriptor(), POLLIN, 0});
      open.push_back(reader.get());
    }
    if (open.empty() || poll(waiting.data(), waiting.size(), static_cast<int>(patience.count())) <= 0) break;
    for (std::size_t i = 0; i < open.size(); ++i) {
      if (waiting[i].revents != 0) open[i]->takes_datagram();
    }
  }
  int complete = 0;
  for (const auto& reader : readers) complete += reader->failure().empty() ? 1 : 0;
  return complete;
}

#endif
