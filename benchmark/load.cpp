// The load: reads files from a TFTP server and compares every byte with what is served.
//
//   load ADDRESS PORT FILE COUNT BLOCK CLIENTS READS [hold]
//
// FILE is a local file under whose name, without folders, the server has the same one. COUNT 0: that one
// file; else FILE0, FILE1, ... up to COUNT files, read in turn. BLOCK 512 asks without options, any other
// size with "blksize". CLIENTS reads are under way at once, until READS were begun. One line tells the
// result, as JSON:
//
//   seconds        from the first request to the last ACK
//   blocks         DATA packets taken, the last ones included
//   repeats        packets that this side had to send again after a second of silence
//   first_reply    microseconds from a request to the first packet of its answer: median and 99th percentile
//   own_seconds    processor time of this program in the measured span

#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <set>
#include <vector>

#include "wire.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr long kSilenceMilliseconds = 1000;
constexpr int kMostSilences = 20;

struct File {
  std::string name;
  std::string contents;
};

[[noreturn]] void fails(const File& file, const std::string& why) {
  std::fprintf(stderr, "load: %s: %s\n", file.name.c_str(), why.c_str());
  std::exit(1);
}

// One read, on a socket of its own.
class Read {
 public:
  Read(const File& file, const sockaddr_in& server, std::size_t block_size, bool holds)
      : file_(file),
        server_(server),
        block_size_(block_size),
        holds_(holds),
        socket_(socket(AF_INET, SOCK_DGRAM, 0)) {
    if (socket_ == -1) give_up("socket");
    const timeval silence = {kSilenceMilliseconds / 1000, kSilenceMilliseconds % 1000 * 1000};
    if (setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &silence, sizeof silence) == -1) give_up("setsockopt");
    std::string options;
    if (block_size_ != kPlainBlockSize) options = "blksize" + nul_ + std::to_string(block_size_) + nul_;
    last_sent_ = with_opcode(kReadRequest, file_.name + nul_ + "octet" + nul_ + options);
  }
  ~Read() { close(socket_); }
  Read(const Read&) = delete;
  Read& operator=(const Read&) = delete;

  int descriptor() const { return socket_; }
  double first_reply_microseconds() const { return first_reply_; }
  std::size_t blocks() const { return blocks_; }
  std::size_t repeats() const { return repeats_; }

  void begins() {
    begin_ = Clock::now();
    sends_last();
  }

  // After a second of silence.
  void repeats_last() {
    if (++repeats_ > kMostSilences) fails(file_, "the server is silent");
    sends_last();
  }

  // Takes one datagram, or a second without any. True when the read is complete.
  bool goes_on() {
    static char bytes[kLargestDatagram];
    sockaddr_in sender = {};
    socklen_t sender_length = sizeof sender;
    const ssize_t size = answered_
                             ? recv(socket_, bytes, sizeof bytes, 0)
                             : recvfrom(socket_, bytes, sizeof bytes, 0, generic(sender), &sender_length);
    if (size < 0) {
      repeats_last();
      return false;
    }
    if (!answered_) meets(sender);
    return takes({bytes, static_cast<std::size_t>(size)});
  }

 private:
  void sends_last() {
    const ssize_t sent = answered_ ? send(socket_, last_sent_.data(), last_sent_.size(), 0)
                                   : sendto(socket_, last_sent_.data(), last_sent_.size(), 0,
                                            generic(server_), sizeof server_);
    if (sent == -1) fails(file_, std::strerror(errno));
  }

  // All that follows the first packet goes to the port that it came from.
  void meets(const sockaddr_in& sender) {
    first_reply_ = std::chrono::duration<double, std::micro>(Clock::now() - begin_).count();
    answered_ = true;
    if (connect(socket_, generic(sender), sizeof sender) == -1) give_up("connect");
  }

  bool takes(std::string_view packet) {
    if (packet.size() >= 2 && word_at(packet.data()) == kOptionAck) {
      if (block_size_in(packet) != block_size_) fails(file_, "the server wants another block size");
      acknowledges(0);
      return false;
    }
    if (packet.size() < kHeaderSize || word_at(packet.data()) != kData) fails(file_, "no DATA but an ERROR");
    const auto expected = static_cast<std::uint16_t>(blocks_ + 1);
    if (word_at(packet.data() + 2) != expected) return false;  // one that came twice
    ++blocks_;
    compares(packet.substr(kHeaderSize));
    const bool is_last = packet.size() - kHeaderSize < block_size_;
    if (is_last && offset_ != file_.contents.size()) fails(file_, "it ends too early");
    if (is_last && holds_) waits_for_word();
    acknowledges(expected);
    return is_last;
  }

  static void waits_for_word() {
    std::puts("held");
    std::fflush(stdout);
    while (std::getchar() != '\n') {
    }
  }

  void compares(std::string_view data) {
    const std::string_view expected = std::string_view(file_.contents).substr(offset_, data.size());
    if (data.size() > block_size_ || data != expected) fails(file_, "bytes differ from the file");
    offset_ += data.size();
  }

  void acknowledges(std::uint16_t number) {
    last_sent_ = ack(number);
    sends_last();
  }

  inline static const std::string nul_ = std::string(1, '\0');
  const File& file_;
  const sockaddr_in& server_;
  const std::size_t block_size_;
  const bool holds_;
  const int socket_;
  std::string last_sent_;
  Clock::time_point begin_;
  double first_reply_ = 0;
  bool answered_ = false;
  std::size_t offset_ = 0;
  std::size_t blocks_ = 0;
  std::size_t repeats_ = 0;
};

// What is read, and what came of it.
struct Load {
  sockaddr_in server;
  std::size_t block_size;
  std::size_t reads;
  bool holds;
  std::vector<File> files;
  std::size_t begun = 0;
  std::size_t blocks = 0;
  std::size_t repeats = 0;
  std::vector<double> first_replies = {};  // microseconds

  std::unique_ptr<Read> next() {
    return std::make_unique<Read>(files[begun++ % files.size()], server, block_size, holds);
  }
  void counts(const Read& read) {
    blocks += read.blocks();
    repeats += read.repeats();
    first_replies.push_back(read.first_reply_microseconds());
  }
};

void read_one_after_another(Load* load) {
  while (load->begun < load->reads) {
    const std::unique_ptr<Read> read = load->next();
    read->begins();
    while (!read->goes_on()) {
    }
    load->counts(*read);
  }
}

void begin_next(Load* load, int poll, std::set<Read*>* open) {
  Read* const read = load->next().release();
  open->insert(read);
  epoll_event event = {};
  event.events = EPOLLIN;
  event.data.ptr = read;
  if (epoll_ctl(poll, EPOLL_CTL_ADD, read->descriptor(), &event) == -1) give_up("epoll_ctl");
  read->begins();
}

void read_side_by_side(Load* load, std::size_t clients) {
  const int poll = epoll_create1(0);
  if (poll == -1) give_up("epoll_create1");
  std::set<Read*> open;
  std::vector<epoll_event> ready(clients);
  for (std::size_t i = 0; i < std::min(clients, load->reads); ++i) begin_next(load, poll, &open);
  while (!open.empty()) {
    const int count = epoll_wait(poll, ready.data(), static_cast<int>(ready.size()), kSilenceMilliseconds);
    if (count == -1) give_up("epoll_wait");
    if (count == 0) std::for_each(open.begin(), open.end(), [](Read* read) { read->repeats_last(); });
    for (int i = 0; i < count; ++i) {
      auto* const read = static_cast<Read*>(ready[static_cast<std::size_t>(i)].data.ptr);
      if (!read->goes_on()) continue;
      load->counts(*read);
      open.erase(read);
      delete read;
      if (load->begun < load->reads) begin_next(load, poll, &open);
    }
  }
  close(poll);
}

std::vector<File> files_at(const std::string& path, std::size_t count) {
  const std::string name = path.substr(path.rfind('/') + 1);
  if (count == 0) return {{name, contents_of(path)}};
  std::vector<File> files;
  for (std::size_t i = 0; i < count; ++i) {
    const std::string number = std::to_string(i);
    files.push_back({name + number, contents_of(path + number)});
  }
  return files;
}

double processor_seconds() {
  rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

double percentile(std::vector<double>* values, std::size_t percent) {
  std::sort(values->begin(), values->end());
  return (*values)[(values->size() - 1) * percent / 100];
}

}  // namespace

int main(int argc, char** argv) {
  const bool holds = argc == 9 && std::string_view(argv[8]) == "hold";
  if (argc != 8 && !holds) {
    std::fprintf(stderr, "Usage: load ADDRESS PORT FILE COUNT BLOCK CLIENTS READS [hold]\n");
    return 2;
  }
  const auto number = [argv](int argument) { return std::strtoul(argv[argument], nullptr, 10); };
  Load load = {ipv4(argv[1], argv[2]), number(5), number(7), holds, files_at(argv[3], number(4))};
  const double own_before = processor_seconds();
  const Clock::time_point begin = Clock::now();
  if (number(6) == 1) {
    read_one_after_another(&load);
  } else {
    read_side_by_side(&load, number(6));
  }
  const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
  std::printf(
      "{\"seconds\": %.9f, \"blocks\": %zu, \"repeats\": %zu, \"first_reply\": [%.2f, %.2f], "
      "\"own_seconds\": %.6f}\n",
      seconds, load.blocks, load.repeats, percentile(&load.first_replies, 50),
      percentile(&load.first_replies, 99), processor_seconds() - own_before);
  return 0;
}
