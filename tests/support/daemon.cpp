#include "support/daemon.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "support/sanitized.h"
#include "support/whole_file.h"

namespace {

int output_file(const char* name) {
  const int descriptor = memfd_create(name, MFD_CLOEXEC);
  // Parent and child share one position unless every write goes to the end.
  fcntl(descriptor, F_SETFL, O_APPEND);
  return descriptor;
}

Process::Arguments command_line(const std::vector<std::string>& arguments) {
  Process::Arguments words = {TFTP_PROGRAM};
  words.insert(words.end(), arguments.begin(), arguments.end());
  return words;
}

}  // namespace

Daemon::Daemon(const std::vector<std::string>& arguments, std::optional<int> output)
    : output_(output_file("output")),
      errors_(output_file("errors")),
      process_(command_line(arguments), [this, output] {
        dup2(output.value_or(output_), STDOUT_FILENO);
        dup2(errors_, STDERR_FILENO);
        setenv("LSAN_OPTIONS", "suppressions=" LEAKS_THAT_ARE_MEANT ":print_suppressions=0", 1);
      }) {}

Daemon::~Daemon() {
  if (testing::Test::HasFailure()) {
    std::fprintf(stderr, "the daemon's output:\n%s\nits errors:\n%s\n", output().c_str(), errors().c_str());
  }
  close(output_);
  close(errors_);
}

std::string Daemon::output() const {
  std::string text = whole_file(output_);
  // LeakSanitizer's look at the end stops every thread, which a transfer takes for a failed wait.
  const std::string end = "TFTP Server was shut down\n";
  if (kSanitized && text.find(end) != std::string::npos) text.erase(text.find(end) + end.size());
  return text;
}

std::string Daemon::errors() const {
  return whole_file(errors_);
}

bool Daemon::prints(const std::string& piece, Milliseconds patience) const {
  return wait_until([&] { return output().find(piece) != std::string::npos; }, patience);
}

bool Daemon::serves() const {
  return prints("Server started , waiting for connections\n");
}

void Daemon::gets_signal(int signal_number) {
  process_.send_signal(signal_number);
}

int Daemon::exit_status(Milliseconds patience) {
  return status_number(process_.wait_for_end(patience));
}
