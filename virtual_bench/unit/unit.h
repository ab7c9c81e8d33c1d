#ifndef UNIT_UNIT_H
#define UNIT_UNIT_H

#include <signal.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "stage/network_namespace.h"
#include "stage/process.h"
#include "unit/loader.h"

// A read that goes on in a process of its own, until the object is destroyed. A unit that is like the station's own
// client, with its patience, reads by that client.
class Reading {
 public:
  Reading(const NetworkNamespace& place, const ReadRequest& request);
  bool has_ended() { return process_.end().has_value(); }
  // It does nothing more, and nobody hears of that.
  void freeze() const { process_.send_signal(SIGSTOP); }
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

  const NetworkNamespace& place() const { return place_; }

  // The first datagram that comes to the port within the time.
  std::optional<std::string> hear(int port, double seconds) const;
  // Sends a datagram. Whether it could be sent.
  bool send(const std::string& server, int port, const std::string& text) const;

  // Asks for a file with blocks of so many bytes, and gives it up with an ERROR when the answer comes, or once so many
  // blocks have come. Whether they came.
  bool gives_up(const std::string& server, int port, const std::string& name, int block_size, int blocks,
                double seconds) const;
  // Sends a request to read in this mode, or to write. The code of the ERROR that comes back, kNoError for another
  // answer; nothing for none.
  static constexpr int kNoError = -1;
  std::optional<int> is_refused(const std::string& server, int port, const std::string& name,
                                const std::string& mode, double seconds) const;
  // Sends a request to read so many times, one a second, whatever comes back. Whether an answer came.
  bool repeats(const std::string& server, int port, const std::string& name, int times, double seconds) const;
  std::optional<int> writes(const std::string& server, int port, const std::string& name,
                            double seconds) const;

  struct Answer {
    bool came;
    std::string text;  // the answer, or why none came
  };
  static constexpr std::size_t kAnyLength = 65536;
  // Sends the question on a new connection, and takes the first piece of an answer. The command port opens
  // only after a verdict: until then a connection is refused and tried again. longest: how much of the answer is
  // taken; the rest is the next one. holds: keeps the connection open, in the place of the one that it kept before.
  Answer ask(const std::string& server, int port, const std::string& question, double seconds,
             std::size_t longest, bool holds);
  // Asks on the connection that it keeps, or only waits for one more answer where the question is empty.
  Answer ask_on(const std::string& question, double seconds, std::size_t longest) const;
  // Closes the connection that it keeps. What had come on it and was not taken.
  std::string hang_up();
  // The same, and at once, without waiting for anybody.
  void drop_connection();
  // How it goes from a connection on which it has asked, before the answer: it resets the connection, and says before
  // that it has nothing more to say, or does not.
  enum class Leaves { kAfterItsTexts, kAtOnce };
  // Why it could not ask; nothing where it could.
  std::optional<std::string> ask_and_leave(const std::string& server, int port, const std::string& question,
                                           Leaves leaves, double seconds) const;

 private:
  class Socket;
  struct Connected {
    std::shared_ptr<Socket> socket;  // null where there is none
    std::string why_not;
  };
  // At most so many bytes of it.
  std::optional<std::string> next_text(const Socket& socket, double seconds, std::size_t most) const;
  Connected connect_to(const std::string& server, int port, double seconds) const;
  std::optional<int> send_request(const std::string& server, int port, const std::string& request,
                                  double seconds) const;

  const NetworkNamespace& place_;
  const WaitUntil wait_until_;
  std::shared_ptr<Socket> held_;
};

#endif
