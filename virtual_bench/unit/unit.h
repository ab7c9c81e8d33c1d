#ifndef UNIT_UNIT_H
#define UNIT_UNIT_H

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "stage/network_namespace.h"
#include "stage/process.h"

// A read that goes on in a process of its own, until the object is destroyed.
class Reading {
 public:
  struct Request {
    std::string server;  // an IPv4 address
    int port;
    std::string name;
    std::string local_file;  // takes what arrives; a read that fails removes it
    int block_size;          // bytes
    int timeout_seconds;
  };

  Reading(const NetworkNamespace& place, const Request& request);
  bool has_ended() { return process_.end().has_value(); }
  // Of a read that has ended: nothing when the file arrived, else why not: "ERROR 1, File not found".
  std::optional<std::string> failure();

 private:
  Process process_;
};

// The unit on the test network: what it does beside reading.
class Unit {
 public:
  // Waits until the condition holds, for at most so many seconds. Whether it held.
  using WaitUntil = std::function<bool(double seconds, const std::function<bool()>& condition)>;

  Unit(const NetworkNamespace& place, WaitUntil wait_until)
      : place_(place), wait_until_(std::move(wait_until)) {}

  // The first datagram that comes to the port within the time.
  std::optional<std::string> hear(int port, double seconds) const;
  // Sends a datagram. Whether it could be sent.
  bool send(const std::string& server, int port, const std::string& text) const;

  // Asks for a file with blocks of so many bytes, and gives it up with an ERROR when the answer comes. Whether one came.
  bool gives_up(const std::string& server, int port, const std::string& name, int block_size,
                double seconds) const;

  struct Answer {
    bool came;
    std::string text;  // the answer, or why none came
  };
  // Sends the question on a new connection, and takes the first piece of an answer. The command port opens
  // only after a verdict: until then a connection is refused and tried again.
  Answer ask(const std::string& server, int port, const std::string& question, double seconds) const;

 private:
  class Socket;
  std::optional<std::string> next_text(const Socket& socket, double seconds) const;

  const NetworkNamespace& place_;
  const WaitUntil wait_until_;
};

#endif
