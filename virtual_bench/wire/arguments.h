#ifndef WIRE_ARGUMENTS_H
#define WIRE_ARGUMENTS_H

#include <array>
#include <cstdint>
#include <string>
#include <vector>

// Where one end of a link comes out.
struct EndAddress {
  std::string network_namespace;  // a path, e.g. /proc/123/ns/net
  std::string device;             // the name that the device gets there
};
using LinkAddress = std::array<EndAddress, 2>;

// The command line: CAPTURE FATES SEED LINK [LINK], with LINK as NAMESPACE=DEVICE,NAMESPACE=DEVICE.
struct Arguments {
  std::string capture;
  std::string fates;
  std::uint64_t seed;
  std::vector<LinkAddress> links;  // one or two
};

// The words are those behind the program's name. Throws std::runtime_error with one line that says what was
// expected.
Arguments read_arguments(const std::vector<std::string>& words);

#endif
