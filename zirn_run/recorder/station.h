#ifndef RECORDER_STATION_H
#define RECORDER_STATION_H

#include <cstdint>
#include <set>
#include <string>

#include "station/settings.h"

namespace recorder {

using station::Station;
using station::Words;

// The IPv4 addresses of the links; "any" is all links.
Words addresses_of(const Words& links);

// A filter expression for the station's own frames: to and from its addresses, with UDP, ICMP, and TCP on its message
// port. `own_addresses` are those that it has where it serves everywhere.
std::string expression_for(const Station& station, const Words& own_addresses);

// The ports whose datagrams are no contents of files.
std::set<std::uint16_t> ports_without_files(const Station& station);

}  // namespace recorder

#endif
