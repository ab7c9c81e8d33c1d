#include "bench/board.h"

#include <sys/mount.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace {

namespace fs = std::filesystem;

constexpr char kInitScripts[] = "/etc/init.d";
constexpr char kMounts[] = "/mnt";
constexpr char kRamDisk[] = "/mnt/ramdisk";
constexpr char kTemporaryMac[] = "02:00:00:00:00:01";

void hide_behind_empty_folder(const char* place) {
  if (mount("tmpfs", place, "tmpfs", 0, nullptr) == 0) return;
  throw std::runtime_error(std::string("an empty ") + place + " of one's own: " + std::strerror(errno));
}

void write_file(const fs::path& file, const std::string& content) {
  std::ofstream(file) << content;
}

void write_script(const fs::path& file, const std::string& lines) {
  write_file(file, "#!/bin/sh\n" + lines);
  fs::permissions(file, fs::perms::owner_all);
}

// The line that logs a call: the path as the station wrote it, and the arguments.
std::string logs_call(const std::string& command, const std::string& log) {
  return "echo \"$(date +%s.%N) " + command + " $*\" >> '" + log + "'\n";
}

}  // namespace

Board::Board(const std::string& folder, const std::string& log) : folder_(folder), log_(log) {
  fs::create_directories(folder + "/bin");
  fs::create_directories(folder + "/state");
  write_file(log, "");
  hide_behind_empty_folder(kMounts);
  hide_behind_empty_folder(kInitScripts);
  fs::create_directory(kRamDisk);
  write_file(folder + "/state/tempmac", kTemporaryMac);
  tool_exits(1);
  write_script(folder + "/bin/envtool", logs_call("envtool", log) + "cd '" + folder + "/state'\n" +
                                            "case $1 in\n"
                                            "  show) echo \"$2=$(cat \"$2\")\" ;;\n"
                                            "  *=*) echo \"${1#*=}\" > \"${1%%=*}\" ;;\n"
                                            "esac\n");
  write_script(std::string(kInitScripts) + "/voice", logs_call("/etc/init.d/voice", log));
  write_script(std::string(kRamDisk) + "/t1-e1",
               logs_call("/mnt/ramdisk/t1-e1", log) + "exit $(cat '" + folder + "/tool_status')\n");
}

std::string Board::path() const {
  const char* before = std::getenv("PATH");
  return folder_ + "/bin:" + (before == nullptr ? "/usr/bin:/bin" : before);
}

void Board::tool_exits(int status) const {
  write_file(folder_ + "/tool_status", std::to_string(status));
}

std::vector<std::string> Board::calls() const {
  std::vector<std::string> commands;
  std::ifstream file(log_);
  for (std::string line; std::getline(file, line);) {
    if (!file.eof()) commands.push_back(line.substr(line.find(' ') + 1));
  }
  return commands;
}

std::string Board::keeps(const std::string& name) const {
  std::ifstream file(folder_ + "/state/" + name);
  std::string value;
  return std::getline(file, value) ? value : "nothing";
}
