#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <sstream>

#include "check/looks.h"
#include "station/child.h"

namespace check {

namespace {

constexpr char kEnvtool[] = "envtool";
constexpr char kNoEnvtool[] = "there is no envtool";
constexpr char kVoiceScript[] = "/etc/init.d/voice";
constexpr char kTool[] = "/mnt/ramdisk/t1-e1";
constexpr std::chrono::seconds kPatience{5};

bool can_be_executed(const std::string& file) {
  struct stat about = {};
  return stat(file.c_str(), &about) == 0 && S_ISREG(about.st_mode) && access(file.c_str(), X_OK) == 0;
}

bool has_envtool(const Setup& setup) {
  std::istringstream folders(setup.path);
  for (std::string folder; std::getline(folders, folder, ':');) {
    if (can_be_executed(folder + "/" + kEnvtool)) return true;
  }
  return false;
}

// The last line that envtool prints of a variable; empty: none.
std::string shown(const std::string& variable, const Setup& setup) {
  std::istringstream output(
      station::output_of({"env", "PATH=" + setup.path, kEnvtool, "show", variable}, kPatience));
  std::string last;
  for (std::string line; std::getline(output, line);) last = line;
  return last;
}

Finding look_at_program(const std::string& file) {
  std::error_code error;
  if (can_be_executed(file)) return ok();
  return wrong(std::filesystem::exists(file, error) ? file + " cannot be executed" : "there is no " + file);
}

}  // namespace

Finding look_at_run(const Setup& setup) {
  return setup.run.empty() ? ok() : wrong("zirn-test-station is " + setup.run);
}

Finding look_at_envtool(const Setup& setup) {
  return has_envtool(setup) ? ok() : wrong("there is no envtool in " + setup.path);
}

Finding look_at_temporary_mac(const Setup& setup) {
  constexpr char kMac[] = "tempmac=";
  if (!has_envtool(setup)) return not_known(kNoEnvtool);
  const std::string line = shown("tempmac", setup);
  if (line.empty()) return wrong("envtool show tempmac prints nothing");
  const std::size_t at = line.find(kMac);
  if (at == std::string::npos) return wrong("envtool show tempmac ends with: \"" + line + "\"");
  return at + sizeof kMac - 1 < line.size() ? ok("envtool has " + line)
                                            : wrong("envtool has an empty tempmac");
}

Finding look_at_flag(const Setup& setup) {
  if (!has_envtool(setup)) return not_known(kNoEnvtool);
  const std::string line = shown("ppt_flag", setup);
  return line.find("failed") == std::string::npos ? ok()
                                                  : wrong("envtool has " + line + ", of an earlier run");
}

Finding look_at_voice_script(const Setup&) {
  return look_at_program(kVoiceScript);
}

Finding look_at_tool(const Setup&) {
  return look_at_program(kTool);
}

Finding look_at_time(const Setup& setup) {
  std::tm parts = {};
  gmtime_r(&setup.now, &parts);
  char text[sizeof "2026-11-22 10:00:00 UTC" + 8] = {};
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", &parts);
  constexpr int kFirstYear = 1900;
  return parts.tm_year + kFirstYear < BUILD_YEAR ? wrong(std::string("it is ") + text)
                                                 : ok(std::string("it is ") + text);
}

}  // namespace check
