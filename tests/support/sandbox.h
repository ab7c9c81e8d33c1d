#ifndef SUPPORT_SANDBOX_H
#define SUPPORT_SANDBOX_H

#include <gtest/gtest.h>

#include <string>

// The private surroundings of a test process: network and mount namespaces of its own, with only a loopback
// interface, entered before the first test. Nothing that a test does to the network or to mounts reaches the
// host. Where the machine allows no namespaces, tests that need one are skipped by NEEDS_SANDBOX.
namespace sandbox {

// Called once, while the process has one thread. Without permission the process stays where it is.
void enter();
bool entered();
// Why entering failed.
std::string refusal();

}  // namespace sandbox

#define NEEDS_SANDBOX() \
  if (!sandbox::entered()) GTEST_SKIP() << "needs private namespaces: " << sandbox::refusal()

#endif
