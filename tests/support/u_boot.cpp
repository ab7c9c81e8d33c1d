#include "support/u_boot.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <vector>

#include "support/program.h"
#include "support/whole_file.h"

namespace {

constexpr char kEmulator[] = "qemu-system-arm";
constexpr char kFirmware[] = "/usr/lib/u-boot/qemu_arm/u-boot.bin";
constexpr char kTapDriver[] = "/dev/net/tun";
constexpr char kPrompt[] = "\n=> ";
constexpr char kCountdown[] = "Hit any key to stop autoboot";
constexpr std::chrono::seconds kStartPatience(60);

std::vector<std::string> command_line(const std::string& tap) {
  return {kEmulator,
          "-machine",
          "virt",
          "-m",
          "256M",
          "-bios",
          kFirmware,
          "-nodefaults",
          "-nographic",
          "-serial",
          "stdio",
          "-netdev",
          "tap,id=lan,ifname=" + tap + ",script=no,downscript=no",
          "-device",
          "virtio-net-pci,netdev=lan,romfile="};
}

void become(std::vector<std::string> words, int serial) {
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) dup2(serial, stream);
  execvp(argv[0], argv.data());
  _exit(127);
}

// Beside the test program, named after it and the test.
std::string log_file() {
  const auto* const test = testing::UnitTest::GetInstance()->current_test_info();
  const std::string name = std::string(test->test_suite_name()) + "." + test->name();
  std::string path = std::filesystem::read_symlink("/proc/self/exe").string() + "." + name + ".console";
  for (std::size_t i = path.rfind('.' + name); i < path.size(); ++i) {
    if (path[i] == '/') path[i] = '.';
  }
  return path;
}

}  // namespace

std::string UBoot::refusal() {
  if (!Program::exists(kEmulator)) return std::string("needs ") + kEmulator + " (package qemu-system-arm)";
  if (access(kFirmware, R_OK) != 0) return std::string("needs ") + kFirmware + " (package u-boot-qemu)";
  if (access(kTapDriver, R_OK | W_OK) != 0) return std::string("needs ") + kTapDriver;
  return {};
}

UBoot::UBoot(const std::string& tap, const std::string& board_ip, const std::string& server_ip) {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
    throw std::runtime_error("cannot make a socket pair");
  }
  pid_ = fork();
  if (pid_ == 0) become(command_line(tap), ends[1]);
  serial_ = ends[0];
  close(ends[1]);
  if (!shows(kCountdown, kStartPatience)) throw std::runtime_error("U-Boot does not start:\n" + console_);
  sends(" ");
  if (!shows(kPrompt, kStartPatience)) throw std::runtime_error("U-Boot has no prompt:\n" + console_);
  runs("setenv ipaddr " + board_ip);
  runs("setenv serverip " + server_ip);
}

UBoot::~UBoot() {
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
  close(serial_);
  if (!testing::Test::HasFailure()) return;
  write_whole_file(log_file(), console_);
  std::fprintf(stderr, "U-Boot's console, kept in %s:\n%s\n", log_file().c_str(), console_.c_str());
}

void UBoot::types(const std::string& command) {
  sends(command + "\r");
  // The echo: what follows is the command's own.
  shows(command + "\n", kStartPatience);
}

std::optional<std::string> UBoot::finishes(Milliseconds patience) {
  const std::size_t begin = seen_ - 1;  // at the line end of the command
  if (!shows(kPrompt, patience)) return std::nullopt;
  const std::size_t end = seen_ - std::string(kPrompt).size();
  return end == begin ? "" : console_.substr(begin + 1, end - begin);
}

std::string UBoot::runs(const std::string& command, Milliseconds patience) {
  types(command);
  const std::optional<std::string> printed = finishes(patience);
  if (printed) return *printed;
  ADD_FAILURE() << "no end of the command " << command;
  return {};
}

bool UBoot::succeeded() {
  return runs("echo $?") == "0\n";
}

// Waits until the piece is on the console behind what has been seen; it has been seen then.
bool UBoot::shows(const std::string& piece, Milliseconds patience) {
  const auto end = std::chrono::steady_clock::now() + patience;
  for (;;) {
    // A prompt's line end may be the one that ended the command's echo.
    const std::size_t from = seen_ == 0 ? 0 : seen_ - 1;
    const std::size_t found = console_.find(piece, from);
    if (found != std::string::npos) {
      seen_ = found + piece.size();
      return true;
    }
    const auto left = std::chrono::duration_cast<Milliseconds>(end - std::chrono::steady_clock::now());
    pollfd waiting{serial_, POLLIN, 0};
    if (left.count() <= 0 || poll(&waiting, 1, static_cast<int>(left.count())) <= 0) return false;
    char piece_of_text[4096];
    const ssize_t count = read(serial_, piece_of_text, sizeof piece_of_text);
    if (count <= 0) return false;
    for (ssize_t i = 0; i < count; ++i) {
      if (piece_of_text[i] != '\r') console_ += piece_of_text[i];
    }
  }
}

void UBoot::sends(const std::string& keys) {
  if (write(serial_, keys.data(), keys.size()) != static_cast<ssize_t>(keys.size())) {
    ADD_FAILURE() << "the board's console does not take " << keys;
  }
}
