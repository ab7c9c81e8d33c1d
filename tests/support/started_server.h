#ifndef SUPPORT_STARTED_SERVER_H
#define SUPPORT_STARTED_SERVER_H

#include <arpa/inet.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>

#include <chrono>
#include <future>
#include <stdexcept>
#include <thread>

#include "sockets/sockets.h"
#include "stage/wait_until.h"
#include "tftp_server/tftp_server.h"

// TFTPServer::Start on a thread of its own. Ends it with the object, if nothing else has. The server must
// live longer.
class StartedServer {
 public:
  using Milliseconds = std::chrono::milliseconds;

  explicit StartedServer(TFTPServer& server) : server_(server) {
    // Interrupts the receive and does nothing else.
    struct sigaction wake = {};
    wake.sa_handler = [](int) {};
    sigaction(SIGUSR1, &wake, nullptr);
    std::packaged_task<void()> start([this] { server_.Start(); });
    result_ = start.get_future();
    thread_ = std::thread(std::move(start));
  }
  ~StartedServer() { ends(); }
  StartedServer(const StartedServer&) = delete;
  StartedServer& operator=(const StartedServer&) = delete;

  // The port that it listens on; waits until there is one.
  int port() const {
    sockaddr_in address = {};
    const bool bound = wait_until([&] {
      socklen_t length = sizeof address;
      getsockname(server_.socket_fd, as_sockaddr(&address), &length);
      return address.sin_port != 0;
    });
    if (!bound) throw std::runtime_error("the server is not bound");
    return ntohs(address.sin_port);
  }
  // Waits for Start to return by itself, and passes on what it threw. False when it goes on.
  bool returns(Milliseconds patience = std::chrono::seconds(10)) {
    if (result_.wait_for(patience) != std::future_status::ready) return false;
    result_.get();
    return true;
  }
  // Clears `running` and interrupts the receive until Start has returned.
  void ends() {
    if (!thread_.joinable()) return;
    while (result_.valid() && result_.wait_for(kPollInterval) != std::future_status::ready) {
      server_.running = false;
      pthread_kill(thread_.native_handle(), SIGUSR1);
    }
    thread_.join();
  }

 private:
  static constexpr Milliseconds kPollInterval{5};

  TFTPServer& server_;
  std::future<void> result_;
  std::thread thread_;
};

#endif
