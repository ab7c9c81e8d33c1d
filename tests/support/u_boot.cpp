#include "support/u_boot.h"

#include <unistd.h>

#include "support/program.h"

namespace {

constexpr char kEmulator[] = "qemu-system-arm";
constexpr char kFirmware[] = "/usr/lib/u-boot/qemu_arm/u-boot.bin";

std::vector<std::string> command_line(const std::string& tap) {
  std::vector<std::string> words = {kEmulator, "-machine",    "virt",       "-m",      "256M", "-bios",
                                    kFirmware, "-nodefaults", "-nographic", "-serial", "stdio"};
  for (const std::string& word : SerialConsole::network_card(tap)) words.push_back(word);
  words.back() += ",romfile=";
  return words;
}

}  // namespace

std::string UBoot::refusal() {
  if (!Program::exists(kEmulator)) return std::string("needs ") + kEmulator + " (package qemu-system-arm)";
  if (access(kFirmware, R_OK) != 0) return std::string("needs ") + kFirmware + " (package u-boot-qemu)";
  return SerialConsole::refusal();
}

UBoot::UBoot(const std::string& tap, const std::string& board_ip, const std::string& server_ip)
    : SerialConsole(command_line(tap), "=> ") {
  starts("Hit any key to stop autoboot", " ");
  runs("setenv ipaddr " + board_ip);
  runs("setenv serverip " + server_ip);
}

bool UBoot::succeeded() {
  return runs("echo $?") == "0\n";
}
