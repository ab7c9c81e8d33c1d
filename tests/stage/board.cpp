#include "stage/board.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <stdexcept>

namespace fs = std::filesystem;

namespace {

constexpr char kInitScripts[] = "/etc/init.d";
constexpr char kMounts[] = "/mnt";
constexpr char kRamDisk[] = "/mnt/ramdisk";

void write_file(const fs::path& file, const std::string& content) {
  std::ofstream(file) << content;
}

// One word of a shell's, whatever it holds.
std::string quoted(const std::string& text) {
  std::string word = "'";
  for (const char c : text) word += c == '\'' ? "'\\''" : std::string(1, c);
  return word + "'";
}

}  // namespace

// An empty folder in the place of another while it lives, but for what that one held: with keep, all is there
// as before.
class Board::Mount {
 public:
  explicit Mount(const char* place, bool keep = false) : place_(place) {
    const int before = open(place, O_PATH | O_DIRECTORY | O_CLOEXEC);
    const bool mounted = mount("tmpfs", place, "tmpfs", 0, nullptr) == 0;
    const int error = errno;
    if (mounted && keep) bind_all("/proc/self/fd/" + std::to_string(before));
    close(before);
    if (!mounted) throw std::runtime_error("an empty " + place_ + " of one's own: " + std::strerror(error));
  }
  ~Mount() { umount2(place_.c_str(), MNT_DETACH); }
  Mount(const Mount&) = delete;
  Mount& operator=(const Mount&) = delete;

 private:
  void bind_all(const fs::path& hidden) const {
    for (const fs::directory_entry& entry : fs::directory_iterator(hidden)) {
      const fs::path place = place_ / entry.path().filename();
      if (entry.is_symlink()) {
        fs::copy_symlink(entry.path(), place);
        continue;
      }
      if (fs::is_directory(entry.path())) {
        fs::create_directory(place);
      } else {
        write_file(place, "");
      }
      mount(entry.path().c_str(), place.c_str(), nullptr, MS_BIND | MS_REC, nullptr);
    }
  }

  const std::string place_;
};

Board::Board(const std::string& folder, Commands commands)
    : folder_(folder), log_(folder + "/log"), statuses_(folder + "/statuses"), tools_(folder + "/bin") {
  fs::create_directories(folder + "/variables");
  forgets_calls();
  if (commands == Commands::kAll) {
    if (!fs::is_directory(kInitScripts)) {
      mounts_.push_back(std::make_unique<Mount>("/etc", true));
      fs::create_directory(kInitScripts);
    }
    mounts_.push_back(std::make_unique<Mount>(kInitScripts));
    // The run's folder or the programs may be among what is on the machine's /mnt.
    mounts_.push_back(std::make_unique<Mount>(kMounts, true));
    fs::create_directory(kRamDisk);
    mounts_.push_back(std::make_unique<Mount>(kRamDisk));
    tools_ = std::string(kRamDisk) + "/bin";  // a folder's name may hold what separates those of a PATH
    install(kVoice);
    install(kT1E1);
  }
  fs::create_directory(tools_);
  install(kEnvtool,
          "case $1 in\n"
          "  show) [ ! -e \"variables/$2\" ] || echo \"$2=$(cat \"variables/$2\")\" ;;\n"
          "  *=*) echo \"${1#*=}\" > \"variables/${1%%=*}\" ;;\n"
          "esac\n");
}

Board::~Board() {
  while (!mounts_.empty()) mounts_.pop_back();
}

std::string Board::path() const {
  const char* before = std::getenv("PATH");
  return tools_ + ":" + (before == nullptr ? "/usr/bin:/bin" : before);
}

void Board::install(const std::string& command, const std::string& more_lines) const {
  const std::string name = fs::path(command).filename();
  prints(command, "");
  ends_with(command, 0);
  write_file(place_of(command),
             "#!/bin/sh\n"
             "cd " +
                 quoted(folder_) +
                 "\n"
                 "echo \"$$ $(date +%s.%N) " +
                 command +
                 " $*\" >> log\n"
                 "while [ -e " +
                 name +
                 ".held ]; do sleep 0.01; done\n"
                 "cat " +
                 name + ".output\n" + more_lines + "status=$(cat " + name +
                 ".status)\n"
                 "echo \"$$ $status\" >> statuses\n"
                 "exit \"$status\"\n");
  fs::permissions(place_of(command), fs::perms::owner_all);
}

std::string Board::place_of(const std::string& command) const {
  return command == kEnvtool ? tools_ + "/" + kEnvtool : command;
}

std::string Board::file_of(const std::string& command, const std::string& what) const {
  return folder_ + "/" + fs::path(command).filename().string() + "." + what;
}

void Board::prints(const std::string& command, const std::string& output) const {
  write_file(file_of(command, "output"), output);
}

void Board::ends_with(const std::string& command, int status) const {
  write_file(file_of(command, "status"), std::to_string(status));
}

void Board::is_killed(const std::string& command) const {
  is_script(command, "kill -9 $$\n");
}

void Board::is_script(const std::string& command, const std::string& lines) const {
  write_file(place_of(command), "#!/bin/sh\n" + lines);
}

void Board::holds(const std::string& command) const {
  write_file(file_of(command, "held"), "");
}

void Board::releases(const std::string& command) const {
  fs::remove(file_of(command, "held"));
}

void Board::removes(const std::string& command) const {
  fs::remove(place_of(command));
}

void Board::sets_variable(const std::string& name, const std::string& value) const {
  write_file(folder_ + "/variables/" + name, value);
}

std::string Board::variable(const std::string& name) const {
  std::ifstream file(folder_ + "/variables/" + name);
  std::string value;
  return std::getline(file, value) ? value : "nothing";
}

std::vector<std::string> Board::calls() const {
  std::vector<std::string> commands;
  for (const Call& call : log()) commands.push_back(call.command);
  return commands;
}

std::vector<Board::Call> Board::log() const {
  std::map<int, int> statuses;
  std::ifstream ends(statuses_);
  for (int pid = 0, status = 0; ends >> pid >> status && !ends.eof();) statuses[pid] = status;
  std::vector<Call> calls;
  std::ifstream file(log_);
  int pid = 0;
  double seconds = 0;
  for (std::string command; file >> pid >> seconds && std::getline(file.ignore(), command);) {
    if (file.eof()) break;
    const auto status = statuses.find(pid);
    calls.push_back({std::llround(seconds * 1e6), command,
                     status == statuses.end() ? std::nullopt : std::optional(status->second)});
  }
  return calls;
}

void Board::forgets_calls() const {
  write_file(log_, "");
  write_file(statuses_, "");
}
