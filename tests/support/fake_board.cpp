#include "support/fake_board.h"

#include <sys/mount.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>

#include "support/sandbox.h"
#include "support/whole_file.h"

namespace {

namespace fs = std::filesystem;

constexpr char kInitScripts[] = "/etc/init.d";
constexpr char kMnt[] = "/mnt";
// What programs need of /etc when the whole of it is covered.
constexpr const char* kNeeded[] = {"ld.so.cache", "nsswitch.conf", "protocols", "services",
                                   "hosts",       "passwd",        "group",     "localtime"};

// Empty when it is done, otherwise why not.
std::string cover(const std::string& place) {
  if (mount("tmpfs", place.c_str(), "tmpfs", 0, nullptr) == 0) return "";
  return "mount on " + place + ": " + std::strerror(errno);
}

// The same for /etc, with the files that are needed in it.
std::string cover_etc() {
  std::map<std::string, std::string> contents;
  for (const std::string name : kNeeded) {
    if (fs::exists("/etc/" + name)) contents["/etc/" + name] = whole_file("/etc/" + name);
  }
  const std::string refusal = cover("/etc");
  if (!refusal.empty()) return refusal;
  for (const auto& [path, text] : contents) write_whole_file(path, text);
  fs::create_directory(kInitScripts);
  return "";
}

}  // namespace

FakeBoard::FakeBoard() : path_before_(std::getenv("PATH")) {
  forgets_calls();
  const std::string bin = directory_.file("bin");
  fs::create_directory(bin);
  installs(kEnvtool, bin + "/" + kEnvtool);
  setenv("PATH", (bin + ":" + path_before_).c_str(), 1);
  if (!sandbox::entered()) {
    refusal_ = "no private namespaces: " + sandbox::refusal();
    return;
  }
  mounts_places();
  if (!refusal_.empty()) return;
  fs::create_directory("/mnt/ramdisk");
  installs(kVoice, kVoice);
  installs(kT1E1, kT1E1);
}

FakeBoard::~FakeBoard() {
  if (!covered_.empty()) umount2(covered_.c_str(), MNT_DETACH);
  if (mnt_is_covered_) umount2(kMnt, MNT_DETACH);
  setenv("PATH", path_before_.c_str(), 1);
}

void FakeBoard::mounts_places() {
  const bool has_init_scripts = fs::is_directory(kInitScripts);
  refusal_ = has_init_scripts ? cover(kInitScripts) : cover_etc();
  if (!refusal_.empty()) return;
  covered_ = has_init_scripts ? kInitScripts : "/etc";
  refusal_ = cover(kMnt);
  mnt_is_covered_ = refusal_.empty();
}

void FakeBoard::installs(const std::string& command, const std::string& place) const {
  prints(command, "");
  ends_with(command, 0);
  write_whole_file(place, "#!/bin/sh\necho \"" + command + " $*\" >> " + directory_.file("calls") +
                              "\nwhile [ -e " + file_of(command, "held") + " ]; do sleep 0.01; done\ncat " +
                              file_of(command, "output") + "\nexit $(cat " + file_of(command, "status") +
                              ")\n");
  chmod(place.c_str(), 0755);
}

std::string FakeBoard::file_of(const std::string& command, const char* what) const {
  return directory_.file(fs::path(command).filename().string() + "." + what);
}

void FakeBoard::prints(const std::string& command, const std::string& output) const {
  write_whole_file(file_of(command, "output"), output);
}

void FakeBoard::ends_with(const std::string& command, int status) const {
  write_whole_file(file_of(command, "status"), std::to_string(status));
}

void FakeBoard::holds(const std::string& command) const {
  write_whole_file(file_of(command, "held"), "");
}

void FakeBoard::releases(const std::string& command) const {
  fs::remove(file_of(command, "held"));
}

void FakeBoard::removes(const std::string& command) const {
  fs::remove(command == kEnvtool ? directory_.file("bin/envtool") : command);
}

std::string FakeBoard::calls() const {
  return whole_file(directory_.file("calls"));
}

void FakeBoard::forgets_calls() const {
  write_whole_file(directory_.file("calls"), "");
}
