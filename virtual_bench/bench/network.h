#ifndef BENCH_NETWORK_H
#define BENCH_NETWORK_H

#include <string>

#include "stage/network_namespace.h"
#include "stage/process.h"

// The machines of the bench, each a network namespace of its own, joined by the wire:
//
//   unit 172.40.0.2 ---- test network, damaged on order ---- lan0 172.40.0.1 station
//   PPT server 172.30.0.254 ---- PPT network --------------- ppt0 172.30.0.1 station
constexpr char kUnitIp[] = "172.40.0.2";
constexpr char kStationIp[] = "172.40.0.1";
constexpr char kPptServerIp[] = "172.30.0.254";

class Network {
 public:
  // wire: the program. capture, fates, errors: files that it writes. station_link: the name of the station's
  // end of the test network, "lan0" on a board that is set up well.
  Network(const std::string& wire, const std::string& capture, const std::string& fates,
          const std::string& errors, int seed, const std::string& station_link);
  // Ends the wire, so that its files are whole.
  ~Network();
  Network(const Network&) = delete;
  Network& operator=(const Network&) = delete;

  // An order to the wire: "loses 5", "cuts 3".
  void orders(const std::string& order);

  const NetworkNamespace station;
  const NetworkNamespace unit;
  const NetworkNamespace ppt_server;

 private:
  Process wire_;
};

#endif
