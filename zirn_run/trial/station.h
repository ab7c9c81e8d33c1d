#ifndef TRIAL_STATION_H
#define TRIAL_STATION_H

#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "recorder/lines.h"

namespace trial {

// The station's program cannot be started; says why.
struct NotStarted : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// A run of the station's program that this process begins, and that does not outlive it, however it ends. Its lines
// end with a record::StationEnds.
class Station : public recorder::Lines {
 public:
  // Between SIGTERM and SIGKILL, as with the service.
  static constexpr std::chrono::seconds kPatience{10};

  // Returns when it runs. Throws NotStarted.
  virtual void begin() = 0;
  // SIGINT or SIGTERM, which it ends by in order, or SIGKILL.
  virtual void end(int signal) = 0;
};

// The program itself, as a child. `words`: its file and its options. `folder`: where it serves files from. `path`: its
// PATH.
std::unique_ptr<Station> program(const std::vector<std::string>& words, const std::string& folder,
                                 const std::string& path);

// The systemd unit, whose lines are in the journal.
std::unique_ptr<Station> service(const std::string& unit);

}  // namespace trial

#endif
