// Every sequence of events at the relay, to a stated depth.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "exhaustive/events.h"
#include "fuzz/script.h"
#include "message_server/message_server.h"

namespace {

constexpr std::size_t kDepth = 4;
constexpr int kPort = 12345;
constexpr std::size_t kMaxDatagram = 255;
constexpr char kNoRoute[] = "UDP:ERROR in sendto. Network is unreachable\n";

// The relay, told in other words than the product's.
struct Model {
  std::string printed;
  std::vector<std::string> sent;
  bool is_over = false;

  void takes(const Event& event) {
    switch (event.brings) {
      case Brings::kTimeOut:
        return;
      case Brings::kFailedWait:
        printed += "Error in UDP select(): \n";
        return exits();
      case Brings::kFailedReceive:
        printed += "UDP: ERROR in recvfrom\n";
        return exits();
      case Brings::kDatagram:
        const std::string taken = event.datagram.substr(0, kMaxDatagram);
        sent.push_back(taken.substr(0, taken.find('\0')) + '\0');
        if (!event.sends.empty()) printed += kNoRoute;
    }
  }
  void exits() {
    printed += "UDP Server exited...\n";
    is_over = true;
  }
};

std::vector<Event> events() {
  const Event text = datagram("text", "ABC");
  return {text,
          with_sends(text, {Sending::kFails}),
          datagram("text with NUL", std::string("AB\0CD", 5)),
          datagram("NUL", std::string(1, '\0')),
          datagram("empty datagram", ""),
          datagram("254 bytes", std::string(254, 'x')),
          datagram("255 bytes", std::string(255, 'y')),
          datagram("600 bytes", std::string(600, 'z')),
          datagram("text from elsewhere", "DEF", 4242),
          time_out(),
          failed_wait(true),
          failed_wait(false),
          refused_receive(),
          vanished_datagram()};
}

class Relays {
 public:
  void branch(const Model& model);
  long sequences = 0;
  long transitions = 0;

 private:
  void play(Model model);

  const std::vector<Event> events_ = events();
  std::vector<Event> path_;
  MessageServer record_{kPort};
};

void Relays::branch(const Model& model) {
  if (model.is_over || path_.size() == kDepth) return play(model);
  for (const Event& event : events_) {
    Model next = model;
    next.takes(event);
    ++transitions;
    path_.push_back(event);
    branch(next);
    path_.pop_back();
  }
}

void Relays::play(Model model) {
  ++sequences;
  played_so_far.clear();
  std::string script;
  std::vector<long> waits;
  bool has_timed_out = false;
  for (const Event& event : path_) {
    played_so_far += event.name + "; ";
    script += script_of(event);
    waits.push_back(has_timed_out ? 0 : 2);
    has_timed_out = has_timed_out || event.brings == Brings::kTimeOut;
  }
  // The run flag is cleared during the wait behind the last event.
  if (!model.is_over) {
    waits.push_back(has_timed_out ? 0 : 2);
    model.exits();
  }
  Script played(reinterpret_cast<const std::uint8_t*>(script.data()), script.size());
  record_.udp_local_ip = "172.40.0.1";
  record_.udp_remote_ip = "127.0.0.1";
  record_.udp_running = true;
  record_.udp_thread = 1;
  played.cleared_at_end = &record_.udp_running;
  const Printed printed;
  UdpMessageServerProc(&record_);
  must_be_same("printed", model.printed, printed.text());
  must_be_same("sent", model.sent, played.sent);
  must_be_same("waits", waits.size(), played.waits.size());
  for (std::size_t i = 0; i < waits.size(); ++i) must_be_same("wait in seconds", waits[i], played.waits[i]);
  for (int port : played.destinations) must_be_same("port that is sent to", kPort, port);
  must_be_same("handle of the thread", pthread_t{0}, record_.udp_thread);
  played.closes_newest_descriptor();  // the socket that it sends from is never closed
}

}  // namespace

int main() {
  prepare_process();
  Relays relays;
  relays.branch({});
  std::printf("%ld sequences to depth %zu, %ld transitions\n", relays.sequences, kDepth, relays.transitions);
  std::fflush(stdout);
  return 0;
}
