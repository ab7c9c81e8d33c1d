#ifndef RECORDER_RUN_H
#define RECORDER_RUN_H

#include "record/item.h"
#include "recorder/lines.h"

namespace recorder {

// A run that begins once it is recorded, and hears what is recorded of it.
class Run {
 public:
  virtual ~Run() = default;
  // Begins it. Frames are received from now on, as far as they can be. The lines stay the run's; their last entry is a
  // record::StationEnds. May throw; nothing is recorded then.
  virtual Lines* begin() = 0;
  // What the record has from now on, in its order and with its numbers; before it is in the file.
  virtual void take(const record::Item& item) = 0;
  // SIGHUP, SIGINT or SIGTERM came. The recording goes on until the station's end.
  virtual void end(int signal) = 0;
  // Called all the while, some twenty times a second.
  virtual void look() = 0;
};

}  // namespace recorder

#endif
