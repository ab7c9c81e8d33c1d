#ifndef BENCH_STATION_OPTIONS_H
#define BENCH_STATION_OPTIONS_H

#include <cstdint>
#include <string>
#include <vector>

// What the station's command line says of its neighbours; read as the station itself reads it.
struct StationOptions {
  std::uint16_t tftp_port = 69;
  std::uint16_t ppt_port = 69;
  std::uint16_t message_port = 12345;
  std::string ppt_ip = "172.30.0.254";
};

// arguments: those after the program's name.
StationOptions read_station_options(std::vector<std::string> arguments);

#endif
