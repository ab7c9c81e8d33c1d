#include "support/serial_console.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <iterator>
#include <stdexcept>

#include "support/whole_file.h"

namespace {

constexpr std::chrono::milliseconds kKeyInterval(500);
constexpr char kTapDriver[] = "/dev/net/tun";

// Beside the test program, named after it and the test.
std::string log_file() {
  const auto* const test = testing::UnitTest::GetInstance()->current_test_info();
  std::string name = std::string(test->test_suite_name()) + "." + test->name();
  for (char& character : name) {
    if (character == '/') character = '.';
  }
  return std::filesystem::read_symlink("/proc/self/exe").string() + "." + name + ".console";
}

}  // namespace

std::vector<std::string> SerialConsole::network_card(const std::string& tap) {
  return {"-netdev", "tap,id=lan,ifname=" + tap + ",script=no,downscript=no", "-device",
          "virtio-net-pci,netdev=lan"};
}

std::string SerialConsole::refusal() {
  return access(kTapDriver, R_OK | W_OK) == 0 ? "" : std::string("needs ") + kTapDriver;
}

SerialConsole::SerialConsole(const std::vector<std::string>& words, const std::string& prompt)
    : prompt_(prompt), process_(words, [] { dup2(STDOUT_FILENO, STDERR_FILENO); }) {}

SerialConsole::~SerialConsole() {
  if (!testing::Test::HasFailure()) return;
  write_whole_file(log_file(), console_);
  std::fprintf(stderr, "the console, kept in %s:\n%s\n", log_file().c_str(), console_.c_str());
}

void SerialConsole::starts(const std::string& piece, const std::string& keys) {
  if (!shows(piece, kStartPatience)) throw std::runtime_error("'" + piece + "' does not come:\n" + console_);
  // A machine that is not quite ready drops them.
  const auto end = std::chrono::steady_clock::now() + kStartPatience;
  do {
    if (std::chrono::steady_clock::now() > end) throw std::runtime_error("no prompt comes:\n" + console_);
    sends(keys);
  } while (!shows(prompt_, kKeyInterval));
}

void SerialConsole::types(const std::string& command) {
  // Some consoles drop what comes before they have echoed what came before it.
  for (const char character : command) {
    sends(std::string(1, character));
    shows(std::string(1, character), kPatience);
  }
  sends("\r");
  shows("\n", kPatience);
}

std::optional<std::string> SerialConsole::finishes(Milliseconds patience) {
  const std::size_t begin = seen_;
  seen_ -= 1;  // the line end before the prompt may be that of the command's echo
  if (!shows("\n" + prompt_, patience)) return std::nullopt;
  const std::size_t end = seen_ - prompt_.size();
  return console_.substr(begin, end - begin);
}

std::string SerialConsole::runs(const std::string& command, Milliseconds patience) {
  types(command);
  const std::optional<std::string> printed = finishes(patience);
  if (printed) return *printed;
  ADD_FAILURE() << "no end of the command " << command;
  return {};
}

// Waits until the piece is on the console behind what has been seen; it has been seen then.
bool SerialConsole::shows(const std::string& piece, Milliseconds patience) {
  const auto end = std::chrono::steady_clock::now() + patience;
  for (;;) {
    const std::size_t found = console_.find(piece, seen_);
    if (found != std::string::npos) {
      seen_ = found + piece.size();
      return true;
    }
    const auto left = std::chrono::duration_cast<Milliseconds>(end - std::chrono::steady_clock::now());
    pollfd waiting{process_.output(), POLLIN, 0};
    if (left.count() <= 0 || poll(&waiting, 1, static_cast<int>(left.count())) <= 0) return false;
    const std::string text = process_.read_text();
    if (text.empty()) return false;
    std::copy_if(text.begin(), text.end(), std::back_inserter(console_), [](char c) { return c != '\r'; });
  }
}

void SerialConsole::sends(const std::string& keys) {
  if (!process_.write_text(keys)) ADD_FAILURE() << "the console does not take " << keys;
}
