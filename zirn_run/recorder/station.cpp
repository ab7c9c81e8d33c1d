#include "recorder/station.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <sstream>

#include "recorder/child.h"

namespace recorder {

namespace {

// The relay and the command port have this address and port, whatever the command line says.
constexpr char kFixedAddress[] = "172.40.0.1";
constexpr std::uint16_t kRelayPort = 12345;

bool is_address(const std::string& text) {
  in_addr address = {};
  return inet_pton(AF_INET, text.c_str(), &address) == 1;
}

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
  const std::size_t begin = text.find(before);
  if (begin == std::string::npos) return {};
  const std::size_t end = text.find(behind, begin);
  return text.substr(begin + before.size(), end - begin - before.size());
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

Words options_of_unit(const std::string& unit) {
  const std::string told =
      output_of({"systemctl", "show", "--property=ExecStart,EnvironmentFiles", "--", unit});
  Variables variables;
  std::istringstream lines(told);
  for (std::string line; std::getline(lines, line);) {
    const std::string file = between(line, "EnvironmentFiles=", " (");
    if (!file.empty()) read_variables(file, &variables);
  }
  Words options;
  Words words = words_in(between(told, "argv[]=", " ;"));
  if (!words.empty()) words.erase(words.begin());
  for (const std::string& word : words) {
    const auto variable = variables.find(name_of_variable(word));
    const Words meant = variable == variables.end() ? Words{word} : words_in(variable->second);
    options.insert(options.end(), meant.begin(), meant.end());
  }
  return options;
}

Words addresses_of(const Words& links) {
  ifaddrs* all = nullptr;
  if (getifaddrs(&all) != 0) return {};
  const std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> owner(all, freeifaddrs);
  Words addresses;
  for (const ifaddrs* it = all; it != nullptr; it = it->ifa_next) {
    if (it->ifa_addr == nullptr || it->ifa_addr->sa_family != AF_INET) continue;
    const std::string name = it->ifa_name;
    const std::string link = name.substr(0, name.find(':'));  // without a label
    const auto is_it = [&link](const std::string& one) { return one == "any" || one == link; };
    if (std::none_of(links.begin(), links.end(), is_it)) continue;
    char text[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(it->ifa_addr)->sin_addr, text, sizeof text);
    addresses.emplace_back(text);
  }
  return addresses;
}

std::string expression_for(const Station& station, const Words& own_addresses) {
  std::set<std::string> hosts = {kFixedAddress, station.ppt_server};
  if (is_address(station.address) && station.address != "0.0.0.0") {
    hosts.insert(station.address);
  } else {
    hosts.insert(own_addresses.begin(), own_addresses.end());
  }
  const std::string port = std::to_string(station.message_port);
  std::string expression = "(udp or icmp or tcp port " + port + ") and (udp dst port " + port;
  for (const std::string& host : hosts) {
    if (is_address(host)) expression += " or host " + host;
  }
  return expression + ")";
}

std::set<std::uint16_t> ports_without_files(const Station& station) {
  return {station.port, station.ppt_port, station.message_port, kRelayPort};
}

}  // namespace recorder
