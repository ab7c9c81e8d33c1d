#ifndef FUZZ_SCRIPT_H
#define FUZZ_SCRIPT_H

#include <cstddef>
#include <cstdint>
#include <exception>
#include <string>
#include <vector>

// The other side of a conversation, told by the fuzzer's bytes. They are a list of events, each a letter:
//
//   D length bytes   a datagram, or a text on the connection; length: 2 bytes, big-endian, cut to what is left
//   B length bytes   what a command of the board prints
//   T   a wait times out
//   W   a wait fails
//   R   a receive fails
//   G   there was nothing to receive after all
//   S   the next send fails
//   C   somebody connects
//   E   the peer ends its connection
//   X   the next command of the board ends with a status other than 0
//   V   a wait fails: the descriptor is bad
//   Q   a receive fails: nothing is there any more
//   O   the next send succeeds
//   Z   the next send succeeds and sends nothing
//   P length bytes   the datagrams that follow come from this port: 2 bytes, big-endian
//
// Any other byte is passed over. When the events are used up, every wait times out.
class Script {
 public:
  // The script that the functions which take the place of the system's play from. One at a time.
  Script(const std::uint8_t* bytes, std::size_t size);
  // Ends the process when a descriptor that was made meanwhile is still open.
  ~Script();
  Script(const Script&) = delete;
  Script& operator=(const Script&) = delete;
  static Script* current;

  bool is_over();
  // The letter of the next event; 0 when there is none.
  char next();
  // The next event's bytes; it is used up.
  std::string take();
  // Takes the next event if it is of this kind.
  bool takes(char kind);

  // A number for the code under test, behind those of the system's descriptors; -1 after some hundreds.
  int new_descriptor();
  bool has_open(int descriptor) const;
  void closes(int descriptor);
  static constexpr int kFirstDescriptor = 500;
  // For a descriptor that the code under test keeps on purpose.
  void closes_newest_descriptor();
  void counts_wait_after_end();

  std::vector<std::string> sent;       // every datagram or reply of the code under test
  std::vector<int> destinations;       // the port that each datagram went to
  std::vector<std::string> commands;   // what the board was asked for
  std::vector<long> waits;             // how long each wait was to be, in seconds
  bool* cleared_at_end = nullptr;      // the run flag that a wait after the end clears
  bool stops_at_end = false;           // a wait after the end throws EndOfScript
  int sender_port = kFirstSenderPort;  // where the datagrams come from
  static constexpr int kFirstSenderPort = 1069;

 private:
  char peek();
  std::string take_any();

  const std::uint8_t* bytes_;
  std::size_t left_;
  int waits_after_end_ = 0;
  std::vector<bool> open_;  // the descriptors, in order
};

class EndOfScript : public std::exception {};

// A wait for a negative time fails at once, so that a loop which goes on after a failed wait never ends.
// select throws this when it has failed so a hundred times in a row.
class EndlessWait : public std::exception {};

// Ends the process, and says what was expected, when the condition does not hold.
void require(bool condition, const char* expectation);

#endif
