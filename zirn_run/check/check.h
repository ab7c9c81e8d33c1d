#ifndef CHECK_CHECK_H
#define CHECK_CHECK_H

#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "station/settings.h"

// Whether a station is set up for a run. All points are one table, in the order in which a run needs them. Each is
// looked at by itself; nothing is changed, no port is taken, and nothing reaches the PPT server but ARP and an ICMP
// echo.
namespace check {

struct Setup {
  station::Words options;  // of the station's program
  bool is_unit = false;    // systemd begins it
  station::Station station;
  std::string folder;                 // that the files are served from
  std::string path;                   // where the program looks for envtool
  std::optional<std::string> rights;  // the service's; nothing: those of this process
  std::string run;                    // one of the service that is under way; empty: none
  std::time_t now = 0;
};

// Without options, as the service does it where there is one; else by hand, from the current folder.
Setup setup_of(const station::Words& options, const std::optional<std::string>& folder);

enum class State {
  kOk,
  kNotKnown,  // not to be seen from here, or of no use while another point is wrong
  kWrong,     // it stops a run, or makes it wrong
};

struct Finding {
  State state = State::kOk;
  std::string text;  // what was found; may be empty where it is ok
};

struct Point {
  const char* name;
  const char* looked_at;  // what is so where it is ok
  const char* follows;    // for a run where it is wrong
  const char* to_do;
  bool stops;  // where it is wrong: no unit comes to a verdict
  Finding (*look)(const Setup&);
};

const std::vector<Point>& points();

// One line, without its end. What came from outside is printable in it.
std::string text_of(const Point& point, const Finding& finding);

}  // namespace check

#endif
