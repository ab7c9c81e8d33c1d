#ifndef STATION_ADDRESSES_H
#define STATION_ADDRESSES_H

#include <string>
#include <vector>

namespace station {

// An IPv4 address of this machine, and what it stands under: a label ("lan0:0"), or a link.
struct OwnAddress {
  std::string label;
  std::string address;
};

// All of them; none where the system does not tell.
std::vector<OwnAddress> own_addresses();

// "lan0" of "lan0:0".
std::string link_of(const std::string& label);

// This machine's address on the way to another one; empty: there is no way, or that is no address. Nothing is sent.
std::string way_to(const std::string& other);

}  // namespace station

#endif
