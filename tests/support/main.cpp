#include <gtest/gtest.h>

#include "support/sandbox.h"

// Every test program starts here: in a sandbox, before any thread exists.
int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  if (!testing::GTEST_FLAG(list_tests)) sandbox::enter();
  return RUN_ALL_TESTS();
}
