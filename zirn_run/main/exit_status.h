#ifndef MAIN_EXIT_STATUS_H
#define MAIN_EXIT_STATUS_H

#include <stdexcept>

// What the program ends with; zirn-run(1) lists it.
enum ExitStatus {
  kDone = 0,
  kNotPassed = 1,  // a run that was asked about
  kWrongCall = 2,
  kNotPossible =
      3,           // a file, a link or a right is missing, a file cannot be used, or the station is not ready
  kNoVerdict = 4,  // a run that was begun
};

// A command cannot do its work; says what was found and what was expected.
struct NotPossible : std::runtime_error {
  using std::runtime_error::runtime_error;
};

#endif
