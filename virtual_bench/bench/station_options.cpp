#include "bench/station_options.h"

#include <cstdlib>

#include "anyoption/anyoption.h"

StationOptions read_station_options(std::vector<std::string> arguments) {
  std::string program = "TFTP";
  std::vector<char*> pointers = {program.data()};
  for (std::string& argument : arguments) pointers.push_back(argument.data());
  AnyOption options;
  options.setFlag('h');
  options.setOption("port", 'n');
  options.setOption("serverip", 's');
  options.setOption("serverport", 'p');
  options.setOption("ipaddr", 'o');
  options.setOption("msgport", 'm');
  options.processCommandArgs(static_cast<int>(pointers.size()), pointers.data());

  StationOptions result;
  const auto read_port = [&options](char letter, std::uint16_t* port) {
    const char* const value = options.getValue(letter);
    if (value != nullptr) *port = static_cast<std::uint16_t>(std::strtol(value, nullptr, 10));
  };
  read_port('n', &result.tftp_port);
  read_port('p', &result.ppt_port);
  read_port('m', &result.message_port);
  if (options.getValue('s') != nullptr) result.ppt_ip = options.getValue('s');
  return result;
}
