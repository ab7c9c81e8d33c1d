#include "main/programs.h"

#include <unistd.h>

#include <algorithm>

#include "main/exit_status.h"

namespace fs = std::filesystem;

namespace {

constexpr char kProgram[] = "TFTP";
constexpr char kInstalled[] = "/usr/sbin/TFTP";

}  // namespace

bool can_be_executed(const fs::path& file) {
  std::error_code ignored;
  return fs::is_regular_file(file, ignored) && access(file.c_str(), X_OK) == 0;
}

fs::path beside_this_program(const std::string& name) {
  std::error_code ignored;
  return fs::read_symlink("/proc/self/exe", ignored).replace_filename(name);
}

std::string found_station_program(const std::string& path) {
  const fs::path beside = beside_this_program(kProgram);
  if (can_be_executed(beside)) return beside;
  for (std::size_t begin = 0; begin < path.size();) {
    const std::size_t end = std::min(path.find(':', begin), path.size());
    const fs::path file = fs::path(path.substr(begin, end - begin)) / kProgram;
    if (can_be_executed(file)) return fs::absolute(file);
    begin = end + 1;
  }
  if (can_be_executed(kInstalled)) return kInstalled;
  throw NotPossible(
      "expected the station's program beside this one, in PATH or as /usr/sbin/TFTP, found none: --program "
      "FILE");
}
