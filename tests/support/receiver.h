#ifndef SUPPORT_RECEIVER_H
#define SUPPORT_RECEIVER_H

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <future>
#include <stdexcept>
#include <string>

#include "message_server/message_server.h"
#include "support/descriptors.h"
#include "support/flushed_lines.h"
#include "support/spoiling_output.h"
#include "support/tcp_peer.h"

// What the receiver thread says at its end.
constexpr char kStopped[] = "Receiver proc stopped!!!\n";

// A non-blocking listening socket on a port that the system chooses.
inline int listening_socket() {
  const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  sockaddr_in address = socket_address("127.0.0.1", 0);
  EXPECT_EQ(bind(descriptor, as_sockaddr(&address), sizeof address), 0);
  EXPECT_EQ(listen(descriptor, 50), 0);
  return descriptor;
}

inline TcpPeer connection_to(int listener) {
  sockaddr_in address = {};
  socklen_t length = sizeof address;
  getsockname(listener, as_sockaddr(&address), &length);
  return {"127.0.0.1", ntohs(address.sin_port)};
}

// A record, and the receiver thread at work on it.
class Receiver {
 public:
  Receiver() : Receiver(listening_socket()) {}
  explicit Receiver(int listener) : listener_(listener) {
    record.receive_socket = listener;
    record.receiving = true;
    record.receiver_thread = pthread_self();
    thread_ = std::async(std::launch::async, [this] {
      pthread_ = pthread_self();
      return ReceiverProc(&record);
    });
  }
  ~Receiver() {
    if (thread_.valid()) ends();
    record.receive_socket = -1;  // the thread has closed it
  }
  Receiver(const Receiver&) = delete;
  Receiver& operator=(const Receiver&) = delete;

  TcpPeer connection() const { return connection_to(listener_); }
  // One connection, one text, one reply; the connection is closed when it returns.
  void is_asked(const std::string& text, const std::string& reply) const {
    const TcpPeer peer = connection();
    peer.asks(text, reply);
    peer.ends_its_texts();
    peer.expects_end();
  }
  // When it returns, every connection made before has been taken.
  void takes_all_connections() const { is_asked("all taken", "all taken"); }

  pthread_t thread() const { return pthread_; }
  int listener() const { return listener_; }
  bool ended_within(std::chrono::milliseconds time) const {
    return thread_.wait_for(time) == std::future_status::ready;
  }
  // Stops the thread, waits for its end without waiting for its time-out, and returns all that was printed.
  std::string ends() {
    record.StopReceive();
    try {
      const TcpPeer wakes_it = connection();
      return has_ended();
    } catch (const std::runtime_error&) {
      return has_ended();  // it was awake
    }
  }
  // Waits for the end of the thread; all that was printed.
  std::string has_ended() {
    if (ended_within(std::chrono::seconds(10))) {
      EXPECT_EQ(thread_.get(), nullptr);
      EXPECT_EQ(record.receiver_thread, 0U);
    } else {
      ADD_FAILURE() << "the thread still runs";
    }
    return lines_of(output.text());
  }

  SpoilingOutput output;
  MessageServer record{4000};

 private:
  const int listener_;
  std::atomic<pthread_t> pthread_{0};
  std::future<void*> thread_;
};

#endif
