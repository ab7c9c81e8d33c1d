#ifndef SUPPORT_TEST_NETWORK_H
#define SUPPORT_TEST_NETWORK_H

#include <functional>
#include <string>

#include "stage/network_namespace.h"

// The networks around a test station, private to this process. The station is the process itself; a daemon
// that it starts is in the same place.
//
//   unit  172.40.0.2 ------ 172.40.0.1  station  172.30.0.1 ------ 172.30.0.254  PPT server
//                           lan0 (lan0:0)        ppt0
//
// Make it once per test, in a test that began with NEEDS_SANDBOX().
class TestNetwork {
 public:
  static constexpr char kStation[] = "172.40.0.1";
  static constexpr char kBroadcast[] = "172.40.0.255";
  static constexpr char kUnit[] = "172.40.0.2";
  static constexpr char kPptServer[] = "172.30.0.254";

  TestNetwork();
  ~TestNetwork();
  TestNetwork(const TestNetwork&) = delete;
  TestNetwork& operator=(const TestNetwork&) = delete;

  // Calls the function in the place of the unit or of the PPT server. A socket made there stays there,
  // whoever uses it later.
  void at_unit(const std::function<void()>& function) const;
  void at_ppt_server(const std::function<void()>& function) const;

 private:
  const NetworkNamespace unit_;
  const NetworkNamespace ppt_server_;
};

#endif
