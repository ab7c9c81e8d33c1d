#include <sched.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <new>
#include <sstream>
#include <string>

#include "decimal_number/decimal_number.h"
#include "message_server/message_server.h"
#include "message_server/worker.h"
#include "signals/signals.h"
#include "sockets/sockets.h"

namespace {

constexpr int kWaitSeconds = 2;
constexpr std::size_t kMessageSize = 255;

constexpr char kAskForMac[] = "ZIRN_ASKS_FOR_HIS_MAC";
constexpr char kInitializePmc[] = "DO_PMC_INIT";
constexpr char kSeparator[] = ":";

constexpr char kShowTemporaryMac[] = "envtool show tempmac";
constexpr char kTemporaryMac[] = "tempmac=";
constexpr char kDefaultMac[] = "02:00:00:00:00:01";  // known behaviour 37
constexpr std::size_t kMaxMacLength = 19;
constexpr int kLineSize = 128;
constexpr std::uint64_t kUnitMacOffset = 2;

constexpr char kStopVoice[] = "/etc/init.d/voice stop";
constexpr char kStartVoiceForPpt[] = "/etc/init.d/voice start_ppt";
constexpr char kRunPmcTest[] = "/mnt/ramdisk/t1-e1 %d -1";

int run_command(const char* command) {
  const SignalsLetIn for_the_command;
  return std::system(command);
}

FILE* open_output_of(const char* command) {
  const SignalsLetIn for_the_command;
  return popen(command, "r");
}

// The last line that the board's tool prints; empty when it prints none or cannot be started.
std::string last_line_of(const char* command) {
  char line[kLineSize] = {};
  if (FILE* const output = open_output_of(command)) {
    // Up to the end of the output, and not to the first read that a signal interrupts.
    while (std::feof(output) == 0) static_cast<void>(std::fgets(line, sizeof line, output) != nullptr);
    pclose(output);
  }
  return line;
}

// The station's temporary MAC as the board tells it, at most kMaxMacLength characters of it.
std::string temporary_mac() {
  const std::string line = last_line_of(kShowTemporaryMac);
  if (line.find(kTemporaryMac) == std::string::npos) return kDefaultMac;
  return line.substr(line.rfind('=') + 1, kMaxMacLength);
}

// The MAC text as one number: its colons dropped, every group of hexadecimal digits that is left one byte
// above the next. Twelve digits are one group.
std::uint64_t mac_number(std::string mac) {
  mac.erase(std::remove(mac.begin(), mac.end(), kSeparator[0]), mac.end());
  std::istringstream digits(mac);
  digits >> std::hex;
  std::uint64_t result = 0;
  for (std::uint64_t group; digits >> group; digits.get()) result = (result << 8) + group;
  return result;
}

// One run of the receiver thread. A text is one recv, its reply one send: there is no framing.
class CommandReceiver {
 public:
  explicit CommandReceiver(MessageServer* record);
  void run();

 private:
  int wait_for_readable(fd_set* readable);
  void serve_readable(const fd_set& readable, int ready);
  void accept_connections();
  void serve(int connection);
  void close_connection(int connection);
  void close_all();
  bool replace_text_by_reply();
  void assign_mac();
  void initialize_pmc();

  MessageServer* const record_;
  const int listener_;
  fd_set open_;  // the listening socket and every connection
  int highest_;  // the highest of them
  // Filled once: after the first full time-out the loop polls (known behaviour 33).
  timeval wait_ = {kWaitSeconds, 0};
  // The text, then the reply in its place. Its last byte is always NUL.
  char message_[kMessageSize];
  bool voice_started_ = false;
};

CommandReceiver::CommandReceiver(MessageServer* record)
    : record_(record), listener_(record->receive_socket), highest_(listener_) {
  FD_ZERO(&open_);
  if (fits_descriptor_set(highest_)) FD_SET(highest_, &open_);
}

void CommandReceiver::run() {
  do {
    fd_set readable;
    const int ready = wait_for_readable(&readable);
    if (ready < 0) {
      std::cout << "ERROR:  select() failed" << std::endl;
      break;
    }
    if (ready == 0) sched_yield();  // a board has one core, and the transfers need it
    serve_readable(readable, ready);
  } while (record_->receiving);
  record_->closed_receive_socket.note(listener_);
  mark_ended(&record_->receiver_thread);
  close_all();
  std::cout << "Receiver proc stopped!!!" << std::endl;
}

int CommandReceiver::wait_for_readable(fd_set* readable) {
  if (highest_ >= FD_SETSIZE) return -1;
  *readable = open_;
  return select(highest_ + 1, readable, nullptr, nullptr, &wait_);
}

void CommandReceiver::serve_readable(const fd_set& readable, int ready) {
  for (int descriptor = 0; descriptor <= highest_ && ready > 0; ++descriptor) {
    if (!FD_ISSET(descriptor, &readable)) continue;
    --ready;
    if (descriptor == record_->receive_socket) {
      accept_connections();
    } else {
      serve(descriptor);
    }
  }
}

void CommandReceiver::accept_connections() {
  int connection;
  while ((connection = accept4(record_->receive_socket, nullptr, nullptr, SOCK_CLOEXEC)) >= 0) {
    if (!fits_descriptor_set(connection)) {
      close(connection);
      continue;
    }
    FD_SET(connection, &open_);
    highest_ = std::max(highest_, connection);
  }
  if (errno != EAGAIN) {
    std::cout << "ERROR on accept()" << std::endl;
    record_->receiving = false;
  }
}

// Serves until the peer closes: connections stay blocking, so that the thread waits in recv for the next
// text (known behaviour 35).
void CommandReceiver::serve(int connection) {
  // Once, and not before each read: the end of a longer text or reply becomes the end of a shorter text that
  // follows it on this connection (known behaviour 34).
  std::memset(message_, 0, sizeof message_);
  for (;;) {
    const ssize_t count = recv(connection, message_, sizeof message_ - 1, 0);
    if (count < 0 && errno == EAGAIN) return;
    if (count < 0) std::cout << "  recv() failed" << std::endl;
    if (count <= 0 || !replace_text_by_reply()) break;
    if (send(connection, message_, std::strlen(message_), 0) < 0) {
      std::cout << "ERROR on send. " << std::endl;
      break;
    }
  }
  close_connection(connection);
}

void CommandReceiver::close_connection(int connection) {
  close(connection);
  FD_CLR(connection, &open_);
  while (highest_ >= 0 && !FD_ISSET(highest_, &open_)) --highest_;
}

void CommandReceiver::close_all() {
  for (int descriptor = 0; descriptor <= highest_ && fits_descriptor_set(descriptor); ++descriptor) {
    if (FD_ISSET(descriptor, &open_)) close(descriptor);
  }
}

// A text that is no command is its own reply. False when there is no memory for the reply.
bool CommandReceiver::replace_text_by_reply() try {
  if (std::strstr(message_, kAskForMac) != nullptr) {
    assign_mac();
  } else if (std::strstr(message_, kInitializePmc) != nullptr) {
    initialize_pmc();
  }
  return true;
} catch (const std::bad_alloc&) {
  return false;
}

void CommandReceiver::assign_mac() {
  const std::string station_mac = temporary_mac();
  if (station_mac.empty()) return;
  const std::uint64_t mac = mac_number(station_mac) + kUnitMacOffset;
  const auto byte = [mac](int position) { return static_cast<unsigned>((mac >> (8 * position)) & 0xFF); };
  std::snprintf(message_, sizeof message_, "%02x:%02x:%02x:%02x:%02x:%02x", byte(5), byte(4), byte(3),
                byte(2), byte(1), byte(0));
  std::cout << "Assigned MAC is " << message_ << std::endl;
}

void CommandReceiver::initialize_pmc() {
  int mode = 0;
  char* rest = nullptr;
  strtok_r(message_, kSeparator, &rest);
  if (const char* const piece = strtok_r(nullptr, kSeparator, &rest)) {
    mode = decimal_number(piece) & 0xFF;
    std::cout << "Mode detected: " << mode << std::endl;
  }
  if (!voice_started_) {
    voice_started_ = true;
    run_command(kStopVoice);
    run_command(kStartVoiceForPpt);
  }
  std::snprintf(message_, sizeof message_, kRunPmcTest, mode);
  // A result of zero is the failure (known behaviour 36).
  const char* const reply = run_command(message_) != 0 ? "READY" : "FAIL";
  std::snprintf(message_, sizeof message_, "%s", reply);
}

}  // namespace

void* ReceiverProc(void* record) {
  CommandReceiver(static_cast<MessageServer*>(record)).run();
  return nullptr;
}
