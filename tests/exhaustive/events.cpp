#include "exhaustive/events.h"

#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>

#include "support/tftp_bytes.h"

namespace {

constexpr int kFound = 1;

std::string length_and_bytes(char letter, const std::string& bytes) {
  std::string result(1, letter);
  result += static_cast<char>(bytes.size() >> 8);
  result += static_cast<char>(bytes.size() & 0xFF);
  return result + bytes;
}

void tell_and_end(int signal_number) {
  const std::string line = "played: " + played_so_far + "\n";
  [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, line.data(), line.size());
  _exit(128 + signal_number);
}

}  // namespace

std::string played_so_far;

Event datagram(const std::string& name, const std::string& bytes, int sender_port) {
  return {name, Brings::kDatagram, bytes, 'D', sender_port, {}};
}

Event time_out() {
  return {"time-out", Brings::kTimeOut, "", 'T', 0, {}};
}

Event failed_wait(bool interrupted) {
  return {interrupted ? "interrupted wait" : "failed wait",
          Brings::kFailedWait,
          "",
          interrupted ? 'W' : 'V',
          0,
          {}};
}

Event refused_receive() {
  return {"refused receive", Brings::kFailedReceive, "", 'R', 0, {}};
}

Event vanished_datagram() {
  return {"vanished datagram", Brings::kFailedReceive, "", 'Q', 0, {}};
}

Event with_sends(Event event, const std::vector<Sending>& sends) {
  event.sends = sends;
  for (Sending sending : sends) {
    event.name += sending == Sending::kSucceeds ? ", send"
                  : sending == Sending::kFails  ? ", failed send"
                                                : ", empty send";
  }
  return event;
}

std::string script_of(const Event& event) {
  std::string script;
  if (event.sender_port != 0) {
    const std::string port = {static_cast<char>(event.sender_port >> 8),
                              static_cast<char>(event.sender_port & 0xFF)};
    script += length_and_bytes('P', port);
  }
  script += event.brings == Brings::kDatagram ? length_and_bytes('D', event.datagram)
                                              : std::string(1, event.letter);
  for (Sending sending : event.sends) {
    script += sending == Sending::kSucceeds ? 'O' : sending == Sending::kFails ? 'S' : 'Z';
  }
  return script;
}

Printed::Printed() : before_(std::cout.rdbuf(this)) {}

Printed::~Printed() {
  std::cout.rdbuf(before_);
  std::cout.flags(std::ios::dec | std::ios::skipws);
  std::cout.fill(' ');
}

Printed::int_type Printed::overflow(int_type character) {
  if (character != traits_type::eof()) text_ += traits_type::to_char_type(character);
  return traits_type::not_eof(character);
}

std::streamsize Printed::xsputn(const char* text, std::streamsize count) {
  text_.append(text, static_cast<std::size_t>(count));
  return count;
}

void found(const std::string& what, const std::string& expected, const std::string& seen) {
  std::fprintf(stderr, "found: %s\nplayed: %s\nexpected: %s\nseen: %s\n", what.c_str(), played_so_far.c_str(),
               expected.c_str(), seen.c_str());
  std::_Exit(kFound);
}

std::string in_words(const std::vector<std::string>& packets) {
  std::string words;
  for (const std::string& packet : packets) words += "[" + tftp::in_words(packet) + "] ";
  return words;
}

void must_be_same(const std::string& what, const std::vector<std::string>& expected,
                  const std::vector<std::string>& seen) {
  if (expected != seen) found(what, in_words(expected), in_words(seen));
}

void prepare_process() {
  if (access("/dev/shm", W_OK) == 0) setenv("TMPDIR", "/dev/shm", 0);
  for (int signal_number : {SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGALRM}) signal(signal_number, tell_and_end);
}
