#ifndef BENCH_NETWORK_H
#define BENCH_NETWORK_H

#include <cstddef>
#include <cstdint>
#include <list>
#include <string>

#include "stage/network_namespace.h"
#include "wire/wire_process.h"

// The machines of the bench, each a network namespace of its own, joined by the wire:
//
//   unit 172.40.0.2 ---- test network ---------- lan0 172.40.0.1 station
//   unit b 172.40.0.3 --------+ and so on
//   PPT server 172.30.0.254 ---- PPT network --- ppt0 172.30.0.1 station
class Network {
 public:
  // The station's end of the test network, as it is on a board that is set up well.
  struct Link {
    std::string name = "lan0";
    std::string address = "172.40.0.1";
    bool has_broadcast_address = true;
  };

  // The station is where the caller is. record: the file that the wire writes. seed: of the chances of damage.
  // units: how many there are, at least 1. Throws std::runtime_error.
  Network(const std::string& record, std::uint64_t seed, const Link& link, std::size_t units);

  // Of an order's links the first is the test network.
  static constexpr std::size_t kPptLink = 1;
  void order_wire(const Order& order) const { wire_.order(order); }
  // From now on nobody answers at this unit's address, not even to ARP; and again.
  void remove_unit(std::size_t unit) const;
  void restore_unit(std::size_t unit) const;
  // From now on the PPT server has this address, if it is one for it in its network; else the one it had.
  void move_ppt_server(const std::string& address);
  // From now on nobody answers at its address, not even to ARP.
  void remove_ppt_server() const;
  // From now on whatever is sent to it is dropped without a word.
  void drop_what_ppt_server_gets() const;
  // Ends both.
  void restore_ppt_server() const;
  // From now on the station may send it nothing.
  void forbid_ppt_server() const;

  const NetworkNamespace station;
  const std::list<NetworkNamespace> units;
  const NetworkNamespace ppt_server;

 private:
  const NetworkNamespace& place_of(std::size_t unit) const;

  const WireProcess wire_;
  std::string ppt_server_address_;
};

// A port of a machine's that something else has, while it lives. Throws std::runtime_error.
class TakenPort {
 public:
  // kind: SOCK_DGRAM for UDP, SOCK_STREAM for TCP
  TakenPort(const NetworkNamespace& place, int kind, int port);
  ~TakenPort();
  TakenPort(const TakenPort&) = delete;
  TakenPort& operator=(const TakenPort&) = delete;

 private:
  int socket_;
};

#endif
