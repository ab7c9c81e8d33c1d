#ifndef WIRE_WIRE_PROCESS_H
#define WIRE_WIRE_PROCESS_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "stage/process.h"
#include "wire/order.h"
#include "wire/wire.h"

// A wire in a process of its own, and the orders to it. Its devices exist as long as that runs.
class WireProcess {
 public:
  // As the wire itself; throws as it does.
  WireProcess(const std::string& record, std::uint64_t seed, const std::vector<Wire::Ends>& links);
  // Ends it, so that its file is whole.
  ~WireProcess();

  // Returns when the order is in force and the file holds all that happened before it. Throws
  // std::runtime_error when the wire does not follow.
  void order(const Order& order) const;

  Process& process() { return *process_; }

 private:
  std::unique_ptr<Process> process_;
};

#endif
