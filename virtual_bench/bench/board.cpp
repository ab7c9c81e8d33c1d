#include "bench/board.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

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
constexpr char kTools[] = "/mnt/ramdisk/bin";  // what the station finds by its PATH
constexpr char kTemporaryMac[] = "02:00:00:00:00:01";

void hide_behind_empty_folder(const char* place) {
  if (mount("tmpfs", place, "tmpfs", 0, nullptr) == 0) return;
  throw std::runtime_error(std::string("an empty ") + place + " of one's own: " + std::strerror(errno));
}

// The same path below a folder that is hidden by now.
void bind_again(const fs::path& hidden, const fs::path& place) {
  if (fs::is_directory(hidden)) {
    fs::create_directory(place);
  } else {
    std::ofstream(place).flush();
  }
  mount(hidden.c_str(), place.c_str(), nullptr, MS_BIND | MS_REC, nullptr);
}

// An empty folder on a /mnt of one's own. What else is on the machine's /mnt stays there: the run's folder or
// the programs may be among it.
void make_ram_disk() {
  const int before = open(kMounts, O_PATH | O_DIRECTORY | O_CLOEXEC);
  const fs::path hidden = "/proc/self/fd/" + std::to_string(before);
  hide_behind_empty_folder(kMounts);
  for (const fs::directory_entry& entry : fs::directory_iterator(hidden)) {
    if (entry.is_symlink()) continue;
    bind_again(entry.path(), kMounts / entry.path().filename());
  }
  close(before);
  fs::create_directory(kRamDisk);
  hide_behind_empty_folder(kRamDisk);
}

void write_file(const fs::path& file, const std::string& content) {
  std::ofstream(file) << content;
}

void write_script(const fs::path& file, const std::string& lines) {
  write_file(file, "#!/bin/sh\n" + lines);
  fs::permissions(file, fs::perms::owner_all);
}

// One word of a shell's, whatever it holds.
std::string quoted(const std::string& text) {
  std::string word = "'";
  for (const char c : text) word += c == '\'' ? "'\\''" : std::string(1, c);
  return word + "'";
}

// The line that logs a call: the path as the station wrote it, and the arguments.
std::string logs_call(const std::string& command, const std::string& log) {
  return "echo \"$(date +%s.%N) " + command + " $*\" >> " + quoted(log) + "\n";
}

}  // namespace

Board::Board(const std::string& folder, const std::string& log) : folder_(folder), log_(log) {
  fs::create_directories(folder + "/state");
  write_file(log, "");
  make_ram_disk();
  hide_behind_empty_folder(kInitScripts);
  fs::create_directory(kTools);
  write_file(folder + "/state/tempmac", kTemporaryMac);
  tool_exits(1);
  write_script(std::string(kTools) + "/envtool", logs_call("envtool", log) + "cd " +
                                                     quoted(folder + "/state") + "\n" +
                                                     "case $1 in\n"
                                                     "  show) echo \"$2=$(cat \"$2\")\" ;;\n"
                                                     "  *=*) echo \"${1#*=}\" > \"${1%%=*}\" ;;\n"
                                                     "esac\n");
  write_script(std::string(kInitScripts) + "/voice", logs_call("/etc/init.d/voice", log));
  write_script(std::string(kRamDisk) + "/t1-e1", logs_call("/mnt/ramdisk/t1-e1", log) + "exit $(cat " +
                                                     quoted(folder + "/tool_status") + ")\n");
}

std::string Board::path() const {
  const char* before = std::getenv("PATH");
  return std::string(kTools) + ":" + (before == nullptr ? "/usr/bin:/bin" : before);
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
