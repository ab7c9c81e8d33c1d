#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "check/looks.h"

namespace check {

namespace {

namespace fs = std::filesystem;

constexpr char kBootScript[] = "bootscript.txt";
constexpr char kVerdict[] = "F_l_m_";  // how the names begin that are no files

std::string place_of(const std::string& name, const Setup& setup) {
  return (fs::path(setup.folder) / name).string();  // an absolute name is served as well
}

bool is_folder(const std::string& name) {
  std::error_code ignored;
  return fs::is_directory(name, ignored);
}

bool can_be_read(const std::string& file) {
  std::error_code ignored;
  return fs::is_regular_file(file, ignored) && access(file.c_str(), R_OK) == 0;
}

// The name in "tftp ADDRESS NAME"; empty where the line is another, or the unit makes the name up.
std::string loaded_in(const std::string& line) {
  std::istringstream words(line);
  std::string command, address, name;
  words >> command >> address >> name;
  const bool is_known = command == "tftp" && name.find('$') == std::string::npos;
  return is_known && name.compare(0, sizeof kVerdict - 1, kVerdict) != 0 ? name : "";
}

}  // namespace

Finding look_at_folder(const Setup& setup) {
  if (!is_folder(setup.folder)) return wrong("there is no folder " + setup.folder);
  const bool is_open = access(setup.folder.c_str(), R_OK | X_OK) == 0;
  return is_open ? ok("files are served from " + setup.folder) : wrong(setup.folder + " cannot be read");
}

Finding look_at_boot_script(const Setup& setup) {
  if (!is_folder(setup.folder)) return not_known("there is no folder " + setup.folder);
  const std::string file = place_of(kBootScript, setup);
  std::error_code error;
  if (!fs::exists(file, error)) return wrong("there is no " + file);
  if (!can_be_read(file)) return wrong(file + " cannot be read");
  return fs::file_size(file, error) == 0 ? wrong(file + " is empty") : ok();
}

Finding look_at_files(const Setup& setup) {
  const std::string script = place_of(kBootScript, setup);
  if (!can_be_read(script)) return not_known(script + " cannot be read");
  std::ifstream file(script);
  std::string missing;
  int count = 0;
  for (std::string line; std::getline(file, line);) {
    const std::string name = loaded_in(line);
    if (name.empty()) continue;
    ++count;
    if (!can_be_read(place_of(name, setup))) missing += (missing.empty() ? "" : ", ") + name;
  }
  if (!missing.empty())
    return wrong("bootscript.txt loads what cannot be read in " + setup.folder + ": " + missing);
  return ok("bootscript.txt loads " + std::to_string(count) + " files, all there");
}

}  // namespace check
