#include "support/ipxe.h"

#include <unistd.h>

#include <chrono>

#include "support/program.h"

namespace {

constexpr char kEmulator[] = "qemu-system-x86_64";
constexpr char kFirmware[] = "/usr/lib/ipxe/qemu/efi-virtio.rom";
constexpr std::chrono::minutes kReadPatience(2);

std::vector<std::string> command_line(const std::string& tap) {
  std::vector<std::string> words = {kEmulator,  "-m",   "256M",    "-nographic",
                                    "-monitor", "none", "-serial", "stdio"};
  for (const std::string& word : SerialConsole::network_card(tap)) words.push_back(word);
  words.back() += ",bootindex=1";
  return words;
}

// A read that takes a while shows how far it is, and wipes that out again by going back.
std::string as_it_stands_at_last(const std::string& printed) {
  std::string line;
  for (const char character : printed) {
    if (character != '\b') {
      line += character;
    } else if (!line.empty()) {
      line.pop_back();
    }
  }
  return line;
}

}  // namespace

std::string Ipxe::refusal() {
  if (!Program::exists(kEmulator)) return std::string("needs ") + kEmulator + " (package qemu-system-x86)";
  if (access(kFirmware, R_OK) != 0) return std::string("needs ") + kFirmware + " (package ipxe-qemu)";
  return SerialConsole::refusal();
}

Ipxe::Ipxe(const std::string& tap, const std::string& ip) : SerialConsole(command_line(tap), "iPXE> ") {
  starts("Press Ctrl-B for the iPXE command line", "\x02");
  for (const std::string& command :
       {std::string("ifopen net0"), "set net0/ip " + ip, std::string("set net0/netmask 255.255.255.0")}) {
    runs(command);
  }
}

std::string Ipxe::reads(const std::string& command, const std::string& name) {
  return as_it_stands_at_last(runs(command + " tftp://172.40.0.1/" + name, kReadPatience));
}
