#include "check/check.h"

#include <cstdlib>
#include <filesystem>

namespace check {

namespace {

constexpr char kService[] = "zirn-test-station";

station::Service known_service() {
  station::Service service = station::service_of(kService);
  return service.is_known ? service : station::init_script_of(kService);
}

std::string own_path() {
  const char* const path = std::getenv("PATH");
  return path == nullptr ? "" : path;
}

std::string current_folder() {
  std::error_code ignored;
  return std::filesystem::current_path(ignored).string();
}

// Without what a terminal may obey, from a process's name or a tool's output.
std::string printable(std::string text) {
  for (char& c : text) {
    if (c < ' ' || c > '~') c = '?';
  }
  return text;
}

}  // namespace

Setup setup_of(const station::Words& options, const std::optional<std::string>& folder) {
  const station::Service service = known_service();
  const bool is_by_hand = !options.empty() || !service.is_known;
  Setup setup;
  setup.options = is_by_hand ? options : service.options;
  setup.is_unit = !is_by_hand && service.is_unit;
  setup.station = station::station_of(setup.options);
  setup.folder = folder ? *folder : is_by_hand ? current_folder() : service.folder;
  setup.path = is_by_hand ? own_path() : service.path;
  if (!is_by_hand) setup.rights = service.rights;
  setup.run = service.state;
  if (!service.state.empty() && service.process > 0)
    setup.run += ", process " + std::to_string(service.process);
  setup.now = std::time(nullptr);
  return setup;
}

std::string text_of(const Point& point, const Finding& finding) {
  const std::string found = printable(finding.text);
  const std::string name = point.name;
  if (finding.state == State::kOk)
    return "ok         " + name + ": " + (found.empty() ? point.looked_at : found);
  if (finding.state == State::kNotKnown) return "not known  " + name + ": " + found;
  return "WRONG      " + name + ": " + found + ". Then: " + point.follows + ". Do: " + point.to_do;
}

}  // namespace check
