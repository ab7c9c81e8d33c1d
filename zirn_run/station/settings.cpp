#include "station/settings.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>

#include "station/child.h"

namespace station {

namespace {

constexpr char kUsualPath[] = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin";  // systemd's
constexpr char kProperties[] =
    "--property=LoadState,ExecStart,EnvironmentFiles,WorkingDirectory,User,DynamicUser,CapabilityBoundingSet,"
    "AmbientCapabilities,ActiveState,MainPID";
constexpr char kRightsOfRoot[] = " cap_net_bind_service cap_net_raw ";

std::uint16_t port_in(const std::string& text) {
  return static_cast<std::uint16_t>(std::strtol(text.c_str(), nullptr, 10));
}

void set(const std::string& option, const std::string& value, Station* station) {
  if (option == "-o" || option == "--ipaddr") station->address = value;
  if (option == "-s" || option == "--serverip") station->ppt_server = value;
  if (option == "-n" || option == "--port") station->port = port_in(value);
  if (option == "-p" || option == "--serverport") station->ppt_port = port_in(value);
  if (option == "-m" || option == "--msgport") station->message_port = port_in(value);
}

Words words_in(const std::string& text) {
  std::istringstream stream(text);
  Words words;
  for (std::string word; stream >> word;) words.push_back(word);
  return words;
}

using Variables = std::map<std::string, std::string>;

// NAME=value or NAME="value", a line each, as /etc/default has them.
void read_variables(const std::string& file_name, Variables* variables) {
  std::ifstream file(file_name);
  for (std::string line; std::getline(file, line);) {
    const std::size_t equals = line.find('=');
    if (equals == std::string::npos || line[0] == '#') continue;
    std::string value = line.substr(equals + 1);
    value.erase(std::remove_if(value.begin(), value.end(), [](char c) { return c == '"' || c == '\''; }),
                value.end());
    (*variables)[line.substr(0, equals)] = value;
  }
}

std::string name_of_variable(const std::string& word) {
  const bool has_braces = word.compare(0, 2, "${") == 0 && word.back() == '}';
  if (has_braces) return word.substr(2, word.size() - 3);
  return word[0] == '$' ? word.substr(1) : "";
}

std::string between(const std::string& text, const std::string& before, const std::string& behind) {
  const std::size_t found = text.find(before);
  if (found == std::string::npos) return {};
  const std::size_t begin = found + before.size();
  return text.substr(begin, text.find(behind, begin) - begin);
}

// The value of a property in what systemctl shows.
std::string property(const std::string& shown, const std::string& name) {
  return between("\n" + shown, "\n" + name + "=", "\n");
}

// The command line, its variables in their places. Without its first word, the program.
Words options_in(const std::string& command_line, const Variables& variables) {
  Words options;
  Words words = words_in(command_line);
  if (!words.empty()) words.erase(words.begin());
  for (const std::string& word : words) {
    const auto variable = variables.find(name_of_variable(word));
    const Words meant = variable == variables.end() ? Words{word} : words_in(variable->second);
    options.insert(options.end(), meant.begin(), meant.end());
  }
  return options;
}

std::string path_in(const Variables& variables) {
  const auto path = variables.find("PATH");
  return path == variables.end() ? kUsualPath : path->second;
}

// Another user has those alone that the unit gives it; root, all that the unit does not take away.
std::string rights_in(const std::string& shown) {
  const std::string user = property(shown, "User");
  const bool is_root =
      (user.empty() || user == "root" || user == "0") && property(shown, "DynamicUser") != "yes";
  return " " + property(shown, is_root ? "CapabilityBoundingSet" : "AmbientCapabilities") + " ";
}

}  // namespace

Station station_of(const Words& options) {
  Station station;
  for (std::size_t i = 0; i < options.size(); ++i) {
    const std::string& word = options[i];
    const bool is_long = word.compare(0, 2, "--") == 0;
    const std::size_t name_bytes =
        is_long ? std::min(word.find('='), word.size()) : std::min<std::size_t>(word.size(), 2);
    const std::string name = word.substr(0, name_bytes);
    if (name.size() < word.size()) {
      set(name, word.substr(name_bytes + (word[name_bytes] == '=' ? 1 : 0)), &station);
    } else if (name != "-h" && name.size() > 1 && name[0] == '-' && i + 1 < options.size()) {
      set(name, options[++i], &station);
    }
  }
  return station;
}

Service service_of(const std::string& unit) {
  const std::string shown = output_of({"systemctl", "show", kProperties, "--", unit});
  Variables variables;
  std::istringstream lines(shown);
  for (std::string line; std::getline(lines, line);) {
    const std::string file = between(line, "EnvironmentFiles=", " (");
    if (!file.empty()) read_variables(file, &variables);
  }
  Service service;
  service.is_known = service.is_unit = property(shown, "LoadState") == "loaded";
  service.options = options_in(between(shown, "argv[]=", " ;"), variables);
  service.folder = property(shown, "WorkingDirectory");
  service.path = path_in(variables);
  service.rights = rights_in(shown);
  const std::string state = property(shown, "ActiveState");
  if (state != "inactive" && state != "failed") service.state = state;
  service.process = static_cast<pid_t>(std::atol(property(shown, "MainPID").c_str()));
  return service;
}

Service init_script_of(const std::string& name) {
  Service service;
  service.is_known = access(("/etc/init.d/" + name).c_str(), X_OK) == 0;
  if (!service.is_known) return service;
  Variables variables;
  read_variables("/etc/default/" + name, &variables);
  service.options = words_in(variables["TFTP_OPTIONS"]);
  service.folder = "/var/lib/" + name;
  service.path = path_in(variables);
  service.rights = kRightsOfRoot;
  std::ifstream("/run/" + name + "/pid") >> service.process;
  const bool runs = service.process > 0 && (kill(service.process, 0) == 0 || errno == EPERM);
  if (runs) service.state = "running";
  return service;
}

}  // namespace station
