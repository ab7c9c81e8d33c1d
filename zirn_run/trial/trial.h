#ifndef TRIAL_TRIAL_H
#define TRIAL_TRIAL_H

#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "station/settings.h"
#include "story/story.h"
#include "trial/station.h"

// One run of the station from its beginning to its end: recorded, told as it happens, and ended when that is wanted. A
// process of one thread has one at a time.
namespace trial {

struct Options {
  station::Words station;                                // the station's own options
  std::string unit;                                      // the systemd unit that it is; empty: none
  std::string record;                                    // the file; FILE.part until it is whole
  std::optional<std::chrono::duration<double>> longest;  // then the run is ended
};

// Whoever hears of the run. None of these may wait.
struct Listener {
  std::function<void(const std::string& text)> happens;  // with the seconds since the beginning before it
  std::function<void(const std::string& line)> prints;   // the same, of each line of the station, and at once
  std::function<void(const std::string& text)> progress;  // of what lasts; empty: nothing does
};

// The links that such a station's frames are on.
station::Words links_of(const station::Station& station);

// Begins the station, and returns after its end. The story is told all that is recorded, and finished. False: not all
// could be recorded, as standard error says; the run went on. SIGHUP, SIGINT and SIGTERM end the station, a second one
// at once; they stay blocked. Throws NotStarted, and what is wrong with the file; there is no run then.
bool test(const Options& options, Station* station, const Listener& listener, story::Story* story);

}  // namespace trial

#endif
