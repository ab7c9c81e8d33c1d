#ifndef PPT_SERVER_PPT_SERVER_H
#define PPT_SERVER_PPT_SERVER_H

#include <netinet/in.h>
#include <poll.h>

#include <chrono>
#include <string>
#include <vector>

#include "stage/network_namespace.h"

// The remote PPT server: it is asked for files by TFTP (and hears verdicts so), takes the station's
// connection, and receives relayed datagrams. It lives on its caller's calls: serve does what is to be done.
class PptServer {
 public:
  static constexpr int kRelayPort = 12345;

  struct Event {
    enum class Kind { kHeard, kConnected, kClosed, kReceived };
    Kind kind;
    std::string text;  // kHeard: the name; kReceived: the datagram, a final NUL left out

    // "heard NAME", "connected", "closed", "received" and TEXT in quotes.
    std::string in_words() const;
    bool operator==(const Event& other) const { return kind == other.kind && text == other.text; }
  };

  // On every address of that namespace. Throws std::runtime_error when a port is not free.
  PptServer(const NetworkNamespace& place, int tftp_port, int message_port);
  ~PptServer();
  PptServer(const PptServer&) = delete;
  PptServer& operator=(const PptServer&) = delete;

  // From now on at these ports; throws likewise.
  void move_to(int tftp_port, int message_port);

  // From now on every request gets an empty file, as at first, or after a while; an ERROR packet; a datagram
  // without any byte; no answer.
  void answer(double after_seconds = 0);
  void answer_error(int code, const std::string& text);
  void answer_nothing();
  void keep_silent();
  // From now on every port is closed; only the one for requests is.
  void refuse();
  void refuse_requests();

  // Adds what to wait for before serve.
  void add_descriptors(std::vector<pollfd>* watched) const;
  // Does what there is to do now, without waiting, and says what it was.
  std::vector<Event> serve();

 private:
  using Clock = std::chrono::steady_clock;
  enum class Mode { kAnswers, kAnswersError, kAnswersNothing, kSilent };
  struct Due {
    Clock::time_point at;
    sockaddr_in station;
  };

  int bound(int kind, int port) const;
  void open_ports();
  void close_ports();
  bool hear_request(Event* event);
  void answer_from_new_port(sockaddr_in station);

  const NetworkNamespace& place_;
  int tftp_port_;
  int message_port_;
  Mode mode_ = Mode::kAnswers;
  Clock::duration wait_ = {};  // before an answer
  std::vector<Due> due_;       // answers, in the order of their times
  int error_code_ = 0;
  std::string error_text_;
  int requests_ = -1, listening_ = -1, connection_ = -1, relayed_ = -1;  // -1: closed
  std::vector<int> transfers_;                                           // stay open for the ACK
};

#endif
