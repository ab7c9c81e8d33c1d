#include "scenario/contents.h"

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <filesystem>
#include <system_error>

#include "frames/words.h"
#include "story/reading.h"

namespace scenario {

namespace {

namespace fs = std::filesystem;
using frames::Endpoint;
using frames::Packet;
using frames::TftpMessage;

constexpr std::size_t kHeader = 4;  // bytes of a DATA packet before its block

[[noreturn]] void fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), frames::printable(what));
}

// A plain name that shows on a page, and does not hide: those belong to files that are not whole yet.
bool can_be_file(const std::string& name) {
  return !name.empty() && name[0] != '.' && name.size() <= NAME_MAX && name.find('/') == std::string::npos &&
         frames::printable_sentence(name) == name;
}

template <typename Map>
typename Map::iterator oldest_of(Map* map) {
  return std::min_element(map->begin(), map->end(), [](const auto& one, const auto& other) {
    return one.second.order < other.second.order;
  });
}

}  // namespace

Contents::Contents(const std::string& folder)
    : folder_(folder), decoder_([this](const Packet& packet) { take(packet); }) {
  std::error_code error;
  fs::create_directories(folder, error);
  if (error) throw std::system_error(error, frames::printable(folder));
  errno = ENOTEMPTY;
  if (!fs::is_empty(folder)) fail(folder);
  descriptor_ = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (descriptor_ < 0) fail(folder);
}

Contents::~Contents() {
  while (!reads_.empty()) drop(reads_.begin());
  close(descriptor_);
}

void Contents::take(const record::Item& item) {
  if (const auto* const frame = std::get_if<record::Frame>(&item)) decoder_.take(*frame);
}

void Contents::finish() {
  decoder_.finish();
  while (!reads_.empty()) drop(reads_.begin());
}

std::string Contents::file(const std::string& name) const {
  return files_.count(name) == 0 ? "" : (fs::path(folder_) / name).string();
}

void Contents::take(const Packet& packet) {
  if (packet.protocol != Packet::Protocol::kUdp || !packet.is_whole ||
      packet.payload.size() != packet.payload_size)
    return;
  const TftpMessage message = frames::tftp_message_in(packet.payload, packet.payload_size);
  if (message.kind == TftpMessage::Kind::kReadRequest) return note_request(packet, message);
  if (message.kind != TftpMessage::Kind::kOack && message.kind != TftpMessage::Kind::kData) return;
  const auto read = read_of({packet.destination, packet.source});
  if (read == reads_.end()) return;
  read->second.order = ++order_;
  if (message.kind == TftpMessage::Kind::kData) {
    if (message.number == read->second.next && read->second.block_size > 0)
      take_block(read, packet.payload.substr(kHeader));
  } else if (const std::size_t size = frames::option_number(message, "blksize"); size > 0) {
    read->second.block_size = size;
  }
}

// One client port may ask again, and for another file when it is done.
void Contents::note_request(const Packet& packet, const TftpMessage& message) {
  const Endpoint& client = packet.source;
  for (auto read = reads_.lower_bound({client, {}}); read != reads_.end() && read->first.first == client;) {
    const auto one = read++;
    if (one->second.name != message.name) drop(one);
  }
  requests_.erase(client);
  if (!can_be_file(message.name) || story::verdict_in(message.name) || files_.count(message.name) > 0) return;
  requests_[client] = {message.name, packet.destination.address,
                       frames::option_number(message, "blksize") > 0, ++order_};
  if (requests_.size() > kMostRequests) requests_.erase(oldest_of(&requests_));
}

Contents::Reads::iterator Contents::read_of(const Ends& ends) {
  const auto read = reads_.find(ends);
  if (read != reads_.end()) return read;
  const auto request = requests_.find(ends.first);
  const bool is_answer = request != requests_.end() && request->second.server == ends.second.address &&
                         files_.count(request->second.name) == 0;
  return is_answer ? begin(ends, request->second) : reads_.end();
}

Contents::Reads::iterator Contents::begin(const Ends& ends, const Request& request) {
  if (reads_.size() >= kMostReads) drop(oldest_of(&reads_));
  Read read;
  read.name = request.name;
  read.part = ".part-" + std::to_string(++order_);
  read.block_size = request.asks_block_size ? 0 : frames::kDefaultBlockBytes;
  read.descriptor =
      openat(descriptor_, read.part.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
  if (read.descriptor < 0) fail(folder_ + "/" + read.part);
  return reads_.emplace(ends, read).first;
}

void Contents::take_block(Reads::iterator read, std::string_view data) {
  write(read->second, data);
  ++read->second.next;
  if (data.size() < read->second.block_size) keep(read);
}

void Contents::write(const Read& read, std::string_view data) const {
  while (!data.empty()) {
    const ssize_t count = ::write(read.descriptor, data.data(), data.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) fail(folder_ + "/" + read.name);
    data.remove_prefix(static_cast<std::size_t>(count));
  }
}

void Contents::keep(Reads::iterator read) {
  const Read& whole = read->second;
  if (files_.insert(whole.name).second &&
      renameat(descriptor_, whole.part.c_str(), descriptor_, whole.name.c_str()) != 0)
    fail(folder_ + "/" + whole.name);
  drop(read);
}

void Contents::drop(Reads::iterator read) {
  close(read->second.descriptor);
  unlinkat(descriptor_, read->second.part.c_str(), 0);
  reads_.erase(read);
}

}  // namespace scenario
