// Joins network namespaces by links that this process carries; arguments.h has the command line, wire.h the
// design.

#include <signal.h>

#include <cstdio>
#include <exception>

#include "wire/arguments.h"
#include "wire/wire.h"

int main(int argc, char** argv) {
  constexpr int kFailed = 2;
  // Whoever gives the orders may be gone when one is answered.
  signal(SIGPIPE, SIG_IGN);
  try {
    Wire(read_arguments({argv + 1, argv + argc})).run();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "wire: %s\n", error.what());
    return kFailed;
  }
  return 0;
}
