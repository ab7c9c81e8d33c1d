// The floors: what a lock-step server costs at the least on this machine. It serves files from memory, with
// one receive and one send per block and nothing between them.
//
//   floor one-thread ADDRESS PORT FOLDER          every read in one thread, on one socket
//   floor thread-per-read ADDRESS PORT FOLDER     a socket and a thread for each read
//
// Nothing is checked that a measurement does not need: it is for the load program alone.

#include <dirent.h>
#include <pthread.h>
#include <unistd.h>

#include <array>
#include <map>

#include "wire.h"

namespace {

using Files = std::map<std::string, std::string>;
constexpr std::size_t kThreadStackSize = 65536;
constexpr std::size_t kRequestSize = 512;
constexpr std::size_t kPorts = 65536;

// One read: what was sent last, and whether it was the end.
class Read {
 public:
  Read() = default;
  Read(const Files& files, const char* request, std::size_t size) {
    const auto file = files.find(request + 2);
    if (file == files.end()) return;
    contents_ = &file->second;
    block_size_ = block_size_in({request, size});
    negotiates_ = block_size_ != 0;
    if (!negotiates_) block_size_ = kPlainBlockSize;
  }

  bool is_over() const { return contents_ == nullptr; }

  // The first packet of the answer.
  std::string_view first(char* packet) {
    if (!negotiates_) return block(packet);
    constexpr std::string_view kName("blksize\0", 8);
    const std::string options = std::string(kName) + std::to_string(block_size_) + '\0';
    const std::string answer = with_opcode(kOptionAck, options);
    std::memcpy(packet, answer.data(), answer.size());
    return {packet, answer.size()};
  }

  // The answer to an ACK; empty when that was the last one.
  std::string_view after(const char* acknowledgement, char* packet) {
    if (word_at(acknowledgement + 2) == static_cast<std::uint16_t>(sent_)) ++sent_;
    if (sent_ > contents_->size() / block_size_ + 1) contents_ = nullptr;
    return is_over() ? std::string_view() : numbered_block(packet);
  }

 private:
  std::string_view block(char* packet) {
    sent_ = 1;
    return numbered_block(packet);
  }
  std::string_view numbered_block(char* packet) const {
    const std::size_t offset = (sent_ - 1) * block_size_;
    const std::size_t count = std::min(block_size_, contents_->size() - offset);
    put_word(packet, kData);
    put_word(packet + 2, static_cast<std::uint16_t>(sent_));
    std::memcpy(packet + kHeaderSize, contents_->data() + offset, count);
    return {packet, kHeaderSize + count};
  }

  const std::string* contents_ = nullptr;
  std::size_t block_size_ = 0;
  bool negotiates_ = false;
  std::size_t sent_ = 0;
};

void serve_in_one_thread(const Files& files, int listener) {
  static std::array<Read, kPorts> reads;  // by the client's port
  static char packet[kLargestDatagram];
  for (;;) {
    char received[kRequestSize];
    sockaddr_in client = {};
    socklen_t length = sizeof client;
    const ssize_t size = recvfrom(listener, received, sizeof received - 1, 0, generic(client), &length);
    if (size < static_cast<ssize_t>(kHeaderSize)) continue;
    received[size] = '\0';
    Read& read = reads[client.sin_port];
    std::string_view answer;
    if (word_at(received) == kReadRequest) {
      read = Read(files, received, static_cast<std::size_t>(size));
      if (!read.is_over()) answer = read.first(packet);
    } else if (!read.is_over()) {
      answer = read.after(received, packet);
    }
    if (!answer.empty()) sendto(listener, answer.data(), answer.size(), 0, generic(client), length);
  }
}

struct Task {
  Read read;
  sockaddr_in client;
};

void* serve_read(void* argument) {
  Task task = *static_cast<Task*>(argument);
  delete static_cast<Task*>(argument);
  const int own = socket(AF_INET, SOCK_DGRAM, 0);
  char* const packet = new char[kLargestDatagram];
  std::string_view answer = task.read.first(packet);
  while (!answer.empty()) {
    sendto(own, answer.data(), answer.size(), 0, generic(task.client), sizeof task.client);
    char received[kHeaderSize];
    sockaddr_in sender = {};
    socklen_t length = sizeof sender;
    if (recvfrom(own, received, sizeof received, 0, generic(sender), &length) < 0) break;
    answer = task.read.after(received, packet);
  }
  close(own);
  delete[] packet;
  return nullptr;
}

void serve_by_threads(const Files& files, int listener) {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  pthread_attr_setstacksize(&attributes, kThreadStackSize);
  for (;;) {
    char received[kRequestSize];
    sockaddr_in client = {};
    socklen_t length = sizeof client;
    const ssize_t size = recvfrom(listener, received, sizeof received - 1, 0, generic(client), &length);
    if (size < static_cast<ssize_t>(kHeaderSize)) continue;
    received[size] = '\0';
    auto* const task = new Task{Read(files, received, static_cast<std::size_t>(size)), client};
    pthread_t thread;
    if (task->read.is_over() || pthread_create(&thread, &attributes, serve_read, task) != 0) delete task;
  }
}

Files files_in(const std::string& folder) {
  Files files;
  DIR* const directory = opendir(folder.c_str());
  if (directory == nullptr) give_up(folder);
  while (const dirent* const entry = readdir(directory)) {
    if (entry->d_type == DT_REG) files[entry->d_name] = contents_of(folder + "/" + entry->d_name);
  }
  closedir(directory);
  return files;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view kind = argc == 5 ? argv[1] : "";
  if (kind != "one-thread" && kind != "thread-per-read") {
    std::fprintf(stderr, "Usage: floor one-thread|thread-per-read ADDRESS PORT FOLDER\n");
    return 2;
  }
  const Files files = files_in(argv[4]);
  const int listener = socket(AF_INET, SOCK_DGRAM, 0);
  const sockaddr_in address = ipv4(argv[2], argv[3]);
  if (bind(listener, generic(address), sizeof address) == -1) give_up("floor: bind");
  if (kind == "one-thread") serve_in_one_thread(files, listener);
  serve_by_threads(files, listener);
}
