#ifndef BENCH_NETWORK_H
#define BENCH_NETWORK_H

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/process.h"

// The machines of the bench, each a network namespace of its own, joined by the wire:
//
//   unit 172.40.0.2 ---- test network, damaged on order ---- lan0 172.40.0.1 station
//   PPT server 172.30.0.254 ---- PPT network --------------- ppt0 172.30.0.1 station
constexpr char kUnitIp[] = "172.40.0.2";
constexpr char kStationIp[] = "172.40.0.1";
constexpr char kPptServerIp[] = "172.30.0.254";

// What the bench needs and this machine does not give.
struct NotAllowed : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// From now on SIGHUP, SIGINT and SIGTERM end the work of in_namespaces, at once if they come before it, and
// no longer the process itself.
void be_ended_by_signals();
// Does the work in a child process that has namespaces of its own for mounts, processes and network. Returns
// what work returns, or 128 plus the number of the signal that ended it; all that work has started has ended
// then. Throws NotAllowed where that is not possible.
int in_namespaces(const std::function<int()>& work);
// For work to begin with: from now on the process is the station. Throws NotAllowed.
void become_station();

// A network namespace. Whoever calls its enter is in it from then on.
class Place {
 public:
  Place();  // a new one
  ~Place();
  Place(const Place&) = delete;
  Place& operator=(const Place&) = delete;
  void enter() const;
  // A path under which other processes of the bench find it.
  std::string path() const;

 private:
  friend class Network;
  explicit Place(int descriptor) : descriptor_(descriptor) {}
  int descriptor_;
};

class Network {
 public:
  // wire: the program. capture, fates, errors: files that it writes. station_link: the name of the station's
  // end of the test network, "lan0" on a board that is set up well. Throws NotAllowed where there can be no
  // TAP device.
  Network(const std::string& wire, const std::string& capture, const std::string& fates,
          const std::string& errors, int seed, const std::string& station_link);
  // Ends the wire, so that its files are whole.
  ~Network();
  Network(const Network&) = delete;
  Network& operator=(const Network&) = delete;

  // An order to the wire: "loses 5", "cuts 3".
  void orders(const std::string& order);

  const Place station;
  const Place unit;
  const Place ppt_server;

 private:
  std::unique_ptr<Process> wire_;
};

#endif
