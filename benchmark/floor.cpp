// The floors: what a lock-step server costs at the least on this machine. They serve files from memory, with
// one receive and one send per block and nothing between them, but for the last:
//
//   floor one-thread ADDRESS PORT FOLDER          every read in one thread, on one socket
//   floor thread-per-read ADDRESS PORT FOLDER     a socket and a thread for each read
//   floor same-calls ADDRESS PORT FOLDER [select] the same, with all of the program's calls at a request and for
//                                                 each block; its receive ends by itself when the time is up, or,
//                                                 with "select", a wait comes before each receive
//
// Nothing is checked that a measurement does not need: it is for the load program alone.

#include <dirent.h>
#include <fcntl.h>
#include <malloc.h>
#include <pthread.h>
#include <sys/select.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <ext/stdio_filebuf.h>
#include <map>
#include <memory>
#include <utility>

#include "wire.h"

namespace {

using Files = std::map<std::string, std::string>;
constexpr std::size_t kThreadStackSize = 262144;
constexpr std::size_t kRequestSize = 512;
constexpr std::size_t kPorts = 65536;
constexpr time_t kWaitSeconds = 5;

enum class Wait { kNone, kByReceive, kBySelect };

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

  // From now on the blocks come from this file and not from memory.
  void reads_from(int file) {
    file_ = std::make_unique<__gnu_cxx::stdio_filebuf<char>>(file, std::ios::in | std::ios::binary);
    file_->pubseekpos(0);
  }

  std::size_t largest_packet() const { return kHeaderSize + std::max(block_size_, kRequestSize); }

  // The first packet of the answer.
  std::string_view first(char* packet) {
    if (!negotiates_) return block(packet);
    constexpr std::string_view kName("blksize\0", 8);
    const std::string options = std::string(kName) + std::to_string(block_size_) + '\0';
    const std::string answer = with_opcode(kOptionAck, options);
    return {packet, answer.copy(packet, answer.size())};
  }

  // The answer to an ACK; empty when that was the last one, or one before has been it.
  std::string_view after(const char* acknowledgement, char* packet) {
    if (is_over()) return {};
    if (word_at(acknowledgement + 2) == static_cast<std::uint16_t>(sent_)) ++sent_;
    if (sent_ > contents_->size() / block_size_ + 1) contents_ = nullptr;
    return is_over() ? std::string_view() : numbered_block(packet);
  }

 private:
  std::string_view block(char* packet) {
    sent_ = 1;
    return numbered_block(packet);
  }
  std::string_view numbered_block(char* packet) {
    put_word(packet, kData);
    put_word(packet + 2, static_cast<std::uint16_t>(sent_));
    return {packet, kHeaderSize + fill(packet + kHeaderSize)};
  }
  std::size_t fill(char* data) {
    if (file_) return static_cast<std::size_t>(file_->sgetn(data, static_cast<std::streamsize>(block_size_)));
    const std::size_t offset = (sent_ - 1) * block_size_;
    const std::size_t count = std::min(block_size_, contents_->size() - offset);
    std::memcpy(data, contents_->data() + offset, count);
    return count;
  }

  const std::string* contents_ = nullptr;
  std::unique_ptr<__gnu_cxx::stdio_filebuf<char>> file_;
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
    } else {
      answer = read.after(received, packet);
    }
    if (!answer.empty()) sendto(listener, answer.data(), answer.size(), 0, generic(client), length);
  }
}

// The program lets its signals in only where the main thread waits.
void mask_signals(bool masked) {
  sigset_t signals;
  sigemptyset(&signals);
  if (masked) sigaddset(&signals, SIGALRM);
  pthread_sigmask(SIG_SETMASK, &signals, nullptr);
}

// A read with a socket of its own, for a thread of its own.
class Task {
 public:
  Task(Read read, const sockaddr_in& client, Wait wait)
      : read_(std::move(read)), client_(client), wait_(wait), own_(socket(AF_INET, SOCK_DGRAM, 0)) {}
  ~Task() { close(own_); }
  Task(const Task&) = delete;
  Task& operator=(const Task&) = delete;

  bool is_begun() const { return packet_ != nullptr; }
  // What the program does at a request, beside the answer.
  void takes_request(const std::string& path) {
    const sockaddr_in any = ipv4("0.0.0.0", "0");
    if (bind(own_, generic(any), sizeof any) == -1) give_up("floor: bind");
    const std::string line = "RRQ " + path.substr(path.rfind('/') + 1) + '\n';
    if (write(STDOUT_FILENO, line.data(), line.size()) == -1) give_up("floor: write");
    mask_signals(false);
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    mask_signals(true);
    read_.reads_from(file);
  }
  void begins() {
    packet_.reset(new char[read_.largest_packet()]);
    sends(read_.first(packet_.get()));
  }
  void goes_on() {
    const timeval wait = {kWaitSeconds, 0};
    if (wait_ == Wait::kByReceive) setsockopt(own_, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    for (;;) {
      if (wait_ == Wait::kBySelect) waits_for_datagram();
      char received[kRequestSize];
      sockaddr_in sender = {};
      socklen_t length = sizeof sender;
      if (recvfrom(own_, received, sizeof received, 0, generic(sender), &length) < 0) return;
      const std::string_view answer = read_.after(received, packet_.get());
      if (answer.empty()) return;
      sends(answer);
    }
  }

 private:
  void sends(std::string_view answer) const {
    sendto(own_, answer.data(), answer.size(), 0, generic(client_), sizeof client_);
  }
  void waits_for_datagram() const {
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(own_, &readable);
    timeval wait = {kWaitSeconds, 0};
    select(own_ + 1, &readable, nullptr, nullptr, &wait);
  }

  Read read_;
  const sockaddr_in client_;
  const Wait wait_;
  const int own_;
  std::unique_ptr<char[]> packet_;
};

void* serve_read(void* argument) {
  const std::unique_ptr<Task> task(static_cast<Task*>(argument));
  if (!task->is_begun()) task->begins();
  task->goes_on();
  return nullptr;
}

pthread_attr_t detached_with_stack() {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  pthread_attr_setstacksize(&attributes, kThreadStackSize);
  return attributes;
}

// wait: kNone to serve from memory with no call but a send and a receive; else as the program, from the folder.
void serve_by_threads(const Files& files, int listener, const std::string& folder, Wait wait) {
  const pthread_attr_t attributes = detached_with_stack();
  for (;;) {
    char received[kRequestSize];
    sockaddr_in client = {};
    socklen_t length = sizeof client;
    if (wait != Wait::kNone) mask_signals(false);
    const ssize_t size = recvfrom(listener, received, sizeof received - 1, 0, generic(client), &length);
    if (wait != Wait::kNone) mask_signals(true);
    if (size < static_cast<ssize_t>(kHeaderSize)) continue;
    received[size] = '\0';
    Read read(files, received, static_cast<std::size_t>(size));
    if (read.is_over()) continue;
    auto task = std::make_unique<Task>(std::move(read), client, wait);
    if (wait != Wait::kNone) {
      task->takes_request(folder + "/" + (received + 2));
      task->begins();
    }
    pthread_t thread;
    if (pthread_create(&thread, &attributes, serve_read, task.get()) == 0) static_cast<void>(task.release());
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
  const std::string_view kind = argc >= 5 ? argv[1] : "";
  const bool selects = argc == 6 && kind == "same-calls" && std::string_view(argv[5]) == "select";
  if ((kind != "one-thread" && kind != "thread-per-read" && kind != "same-calls") ||
      (argc != 5 && !selects)) {
    std::fprintf(stderr, "Usage: floor one-thread|thread-per-read|same-calls ADDRESS PORT FOLDER [select]\n");
    return 2;
  }
  mallopt(M_ARENA_MAX, 1);
  const Files files = files_in(argv[4]);
  const int listener = socket(AF_INET, SOCK_DGRAM, 0);
  const sockaddr_in address = ipv4(argv[2], argv[3]);
  if (bind(listener, generic(address), sizeof address) == -1) give_up("floor: bind");
  if (kind == "one-thread") serve_in_one_thread(files, listener);
  const Wait wait = kind != "same-calls" ? Wait::kNone : selects ? Wait::kBySelect : Wait::kByReceive;
  serve_by_threads(files, listener, argv[4], wait);
}
