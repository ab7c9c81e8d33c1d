#ifndef EXHAUSTIVE_EVENTS_H
#define EXHAUSTIVE_EVENTS_H

#include <cstddef>
#include <sstream>
#include <streambuf>
#include <string>
#include <vector>

// What can happen to a program that waits for a datagram, as one object that the played system and the model
// both read.

enum class Brings { kDatagram, kTimeOut, kFailedWait, kFailedReceive };
enum class Sending { kSucceeds, kFails, kSendsNothing };

struct Event {
  std::string name;
  Brings brings;
  std::string datagram;
  char letter;                 // of the script, when it is no datagram
  int sender_port;             // 0: whoever sent before
  std::vector<Sending> sends;  // what becomes of the sends that follow; all others succeed
};

Event datagram(const std::string& name, const std::string& bytes, int sender_port = 0);
Event time_out();
Event failed_wait(bool interrupted);
Event refused_receive();
Event vanished_datagram();
Event with_sends(Event event, const std::vector<Sending>& sends);

// The event in the language of Script.
std::string script_of(const Event& event);

// What standard output gets while the object lives. The number format is at its default before and after.
class Printed : private std::streambuf {
 public:
  Printed();
  ~Printed() override;
  Printed(const Printed&) = delete;
  Printed& operator=(const Printed&) = delete;
  const std::string& text() const { return text_; }
  // So that nothing is allocated for this many bytes.
  void reserves(std::size_t count) { text_.reserve(count); }

 private:
  int_type overflow(int_type character) override;
  std::streamsize xsputn(const char* text, std::streamsize count) override;

  std::string text_;
  std::streambuf* before_;
};

// What this run has played so far; told when it ends the process.
extern std::string played_so_far;

// Ends the process with status 1, and says what was played, what was to be and what was seen.
[[noreturn]] void found(const std::string& what, const std::string& expected, const std::string& seen);
// Readable, whatever the bytes are.
std::string in_words(const std::vector<std::string>& packets);

template <typename Value>
void must_be_same(const std::string& what, const Value& expected, const Value& seen) {
  if (expected == seen) return;
  std::ostringstream words_expected;
  std::ostringstream words_seen;
  words_expected << expected;
  words_seen << seen;
  found(what, words_expected.str(), words_seen.str());
}
void must_be_same(const std::string& what, const std::vector<std::string>& expected,
                  const std::vector<std::string>& seen);

// For main, before anything else: a signal that ends the process says first what was played, and scratch
// files are in memory where that is possible.
void prepare_process();

#endif
