#ifndef TERMINAL_WATCH_H
#define TERMINAL_WATCH_H

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

// The run in the terminal as it happens.
namespace terminal {

struct Options {
  std::string file;                   // a record; "-": standard input; empty: there is
  std::vector<std::string> recorder;  // the command whose output is the record, and
  std::string links;                  // what it is called
  std::optional<double> speed;        // a file at its own pace, so many times as fast; absent: at once
};

// One sentence that names what cannot be read or written; empty: somebody else has said it.
struct NotWatchable : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Shows the run on the terminal until the user quits, or, where standard output is none, in lines until the record
// ends. A signal that ends it ends the process, once the terminal is as it was. Throws NotWatchable.
void watch(const Options& options);

}  // namespace terminal

#endif
